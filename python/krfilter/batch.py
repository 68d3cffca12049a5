"""python3 -m krfilter.batch: one filter over many image files, on Dask.

Exit status: 0 every file done (or skipped as done before), 1 some file
failed (see the manifest), 2 a wrong command line, filter name or parameter.
"""

import argparse
import os
import sys

from . import dask as batch

_EPILOG = """parameters: NAME=VALUE with the catalogue name ("Up Border=20"), its
keyword (up_border=20) or #N=VALUE (1-based); a name several parameters share
is set in order when repeated (Sigma=0.15 Sigma=0.05). Parameters not given
keep their catalogue defaults.

examples:
  python3 -m krfilter.batch median2D scans/ -o out/ oddnum=5
  python3 -m krfilter.batch gamma a.png b.tif c.dcm -o out/ Gamma=0.6 --workers 2
  python3 -m krfilter.batch unsharp scans/ -o out/ --scheduler tcp://10.0.0.5:8786"""


def _number(text):
    try:
        return int(text)
    except ValueError:
        return float(text)  # the filter's catalogue type decides later whether it fits


def _parse(argv):
    parser = argparse.ArgumentParser(prog="python3 -m krfilter.batch", epilog=_EPILOG,
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     description="Run one krfilter filter over PNG, TIFF and DICOM files as Dask "
                                                 "tasks, one image per task.")
    parser.add_argument("filter", help="filter name, exactly as the catalogue spells it")
    parser.add_argument("items", nargs="+", metavar="INPUT|NAME=VALUE",
                        help="input files or folders, and parameter assignments")
    parser.add_argument("-o", "--output", required=True, help="folder for the results and the manifest")
    parser.add_argument("--white", type=int, help="white level for every file (default: each file's own)")
    parser.add_argument("--format", choices=["png", "tiff", "dicom"], help="output format (default: the input's)")
    parser.add_argument("--manifest", help="manifest path (default: OUTPUT/%s)" % batch.MANIFEST_NAME)
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--scheduler", metavar="ADDRESS", help="address of a running Dask scheduler")
    where.add_argument("--workers", type=int, metavar="N", help="start a local cluster of N worker processes")
    args = parser.parse_intermixed_args(argv)

    inputs, params = [], {}
    for item in args.items:
        if "=" in item and not os.path.exists(item):
            key, text = item.split("=", 1)
            try:
                value = _number(text.strip())
            except ValueError:
                parser.error("value %r of %s is not a number" % (text, key))
            if key in params:  # a shared name: the values go in order
                previous = params[key]
                params[key] = (previous if isinstance(previous, list) else [previous]) + [value]
            else:
                params[key] = value
        elif os.path.isdir(item):
            inputs += batch.list_inputs(item)
        else:
            inputs.append(item)
    if not inputs:
        parser.error("no input files")
    return args, inputs, params


def main(argv=None):
    args, inputs, params = _parse(sys.argv[1:] if argv is None else argv)
    client = cluster = None
    try:
        if args.scheduler:
            from distributed import Client
            client = Client(args.scheduler)
        elif args.workers:
            from distributed import Client, LocalCluster
            cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, host="127.0.0.1",
                                   dashboard_address=None)
            client = Client(cluster)
        try:
            records = batch.map_files(args.filter, inputs, args.output, client=client, white=args.white,
                                      output_format=args.format, manifest=args.manifest, **params)
        except ValueError as error:
            print("krfilter.batch: %s" % error, file=sys.stderr)
            return 2
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()
    counts = {status: sum(r["status"] == status for r in records) for status in ("ok", "skipped", "failed")}
    for record in records:
        if record["status"] == "failed":
            print("krfilter.batch: %s: %s" % (record["input"], record["error"]), file=sys.stderr)
    print("%d done, %d skipped, %d failed; manifest %s" % (
        counts["ok"], counts["skipped"], counts["failed"],
        args.manifest or os.path.join(os.path.abspath(args.output), batch.MANIFEST_NAME)))
    return 1 if counts["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
