"""One filter over many image files, one image per task, on Dask.

map_files() runs on the local threads when no Dask cluster is at hand, or on
any distributed cluster through its client (a LocalCluster or a scheduler
address): the code is the same. Each result is written atomically; each file
gets one line in a JSON-lines manifest (input, output, filter, status, code,
error, seconds), and a failed file is recorded without stopping the others.
A rerun with the same output folder skips every input the manifest already
records as done whose output is still there.
"""

import json
import os
import time

from . import imageio

MANIFEST_NAME = "manifest.jsonl"


def list_inputs(inputs):
    """Input files from a folder (its files with a PNG, TIFF or DICOM extension,
    sorted by name) or a list of paths (taken as given)."""
    if isinstance(inputs, (str, os.PathLike)):
        folder = os.fspath(inputs)
        if not os.path.isdir(folder):
            return [os.path.abspath(folder)]
        names = sorted(n for n in os.listdir(folder)
                       if imageio.format_of(n) and not n.startswith(".") and os.path.isfile(os.path.join(folder, n)))
        return [os.path.abspath(os.path.join(folder, n)) for n in names]
    return [os.path.abspath(os.fspath(p)) for p in inputs]


def output_for(input_path, output_dir, output_format=None):
    """The result's path: the input's base name in output_dir, with the input's
    format unless output_format ("png", "tiff" or "dicom") is given."""
    stem, extension = os.path.splitext(os.path.basename(input_path))
    kind = output_format or imageio.format_of(input_path) or "png"
    if kind == imageio.format_of(input_path):
        return os.path.join(output_dir, stem + extension)
    return os.path.join(output_dir, stem + imageio.suffix_for(kind))


def process_file(name, input_path, output_path, white=None, params=None):
    """Reads one file, runs the filter, writes the result; returns the manifest
    record. Never raises for a problem of the file or the filter."""
    from . import FilterError, apply
    start = time.perf_counter()
    record = {"input": input_path, "output": output_path, "filter": name, "status": "ok", "code": 0, "error": None}
    try:
        grey = imageio.read_grey(input_path)
        level = grey.white if white is None else white
        result = apply(grey.samples, name, white=level, **(params or {}))
        imageio.write_result(output_path, result, level, grey)
    except FilterError as error:
        record.update(status="failed", code=error.code, error=str(error))
    except Exception as error:  # a bad file must not stop the batch: it is recorded instead
        record.update(status="failed", code=None, error="%s: %s" % (type(error).__name__, error))
    record["seconds"] = round(time.perf_counter() - start, 6)
    return record


def _run_job(job):
    return process_file(*job)


def _completed(manifest):
    """Inputs the manifest records as done whose outputs still exist."""
    done = {}
    if os.path.exists(manifest):
        with open(manifest) as f:
            for line in f:
                try:
                    record = json.loads(line)
                except ValueError:
                    continue  # a line cut short by an interrupted run
                if record.get("status") == "ok" and os.path.exists(record.get("output", "")):
                    done[record["input"]] = record
                else:
                    done.pop(record.get("input"), None)
    return done


def _check_arguments(name, white, params):
    """Refuses a wrong filter name or parameter before any task starts, where
    the library loads here; a client without the library leaves it to the workers."""
    from . import _apply, _catalogue
    if white is not None and (not isinstance(white, int) or not 0 <= white <= 65535):
        raise ValueError("white must be a whole number from 0 to 65535, not %r" % (white,))
    try:
        _catalogue.filters()
    except OSError:
        return
    _apply._assign(_catalogue.entry(name), (), params)


def _default_client():
    try:
        from distributed import get_client
        return get_client()
    except (ImportError, ValueError):
        return None


def map_files(name, inputs, output_dir, client=None, white=None, output_format=None, manifest=None, **params):
    """Runs filter `name` over `inputs` (a folder or a list of files) into
    output_dir. client: a distributed Client; None takes the current client if
    there is one, else runs on local threads. white: None reads each file's
    own white level. params: as for krfilter.apply. Returns one record per
    input, in input order; inputs skipped as already done have status "skipped"."""
    import dask.bag

    _check_arguments(name, white, params)
    output_dir = os.path.abspath(os.fspath(output_dir))
    os.makedirs(output_dir, exist_ok=True)
    manifest = os.path.abspath(manifest or os.path.join(output_dir, MANIFEST_NAME))
    done = _completed(manifest)

    paths = list_inputs(inputs)
    records = [None] * len(paths)
    jobs, slots = [], []
    for k, path in enumerate(paths):
        if path in done:
            records[k] = dict(done[path], status="skipped", seconds=0.0)
            continue
        jobs.append((name, path, output_for(path, output_dir, output_format), white, params))
        slots.append(k)
    targets = [job[2] for job in jobs]
    if len(set(targets)) != len(targets):
        raise ValueError("two inputs would write the same output: %s"
                         % sorted({t for t in targets if targets.count(t) > 1}))
    if not jobs:
        return records

    parts = dask.bag.from_sequence(jobs, npartitions=len(jobs)).map(_run_job).to_delayed()
    client = client or _default_client()
    with open(manifest, "a") as log:
        def keep(slot, record):
            records[slot] = record
            log.write(json.dumps(record) + "\n")
            log.flush()

        if client is None:
            import dask
            for slot, part in zip(slots, dask.compute(*parts, scheduler="threads")):
                keep(slot, part[0])
            return records

        from distributed import as_completed
        futures = client.compute(parts)
        slot_of = {future.key: (slot, job) for future, slot, job in zip(futures, slots, jobs)}
        for future in as_completed(futures):
            slot, job = slot_of[future.key]
            try:
                record = future.result()[0]
            except Exception as error:  # a lost worker or a task that could not run at all
                record = {"input": job[1], "output": job[2], "filter": name, "status": "failed", "code": None,
                          "error": "%s: %s" % (type(error).__name__, error), "seconds": None}
            keep(slot, record)
    return records
