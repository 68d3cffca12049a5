#!/usr/bin/env python3
"""Merges the benchmark program's JSON tables (one per workload) into one
Markdown table: per filter and workload, the time and its ratio to the peer
(or to a memcpy of the raster where the filter has no peer).

usage: report.py TABLE.json [TABLE.json ...]"""

import json
import sys


def main(paths):
    tables = [json.load(open(path)) for path in paths]
    workloads = [t["workload"] for t in tables]
    filters = []
    for t in tables:
        filters += [f["filter"] for f in t["filters"] if f["filter"] not in filters]
    print("| filter | peer | " + " | ".join(workloads) + " |")
    print("|---|---|" + "---|" * len(workloads))
    print("| memcpy of the raster (floor) | | " + " | ".join("%.2f ms" % t["memcpy_ms"] for t in tables) + " |")
    for name in filters:
        peer, cells = "memcpy", []
        for t in tables:
            row = next((f for f in t["filters"] if f["filter"] == name), None)
            if row is None:
                cells.append("")
            elif row["peer"] is not None:
                peer = row["peer"]
                cells.append("%.2f ms, **%.2f×**" % (row["ms"], row["ratio_to_peer"]))
            else:
                cells.append("%.2f ms, **%.2f×**" % (row["ms"], row["ratio_to_memcpy"]))
        print("| %s | %s | %s |" % (name, peer, " | ".join(cells)))


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(sys.argv[1:])
