#!/usr/bin/python3
"""quarlo.dask, the items mined in groups apart, against quarlo.mine in one process.

Run from the repository root after `make python`:

    /usr/bin/python3 bench/dask_scale.py [--sizes 10000000,30000000] [--support 0.0005]
                                         [--files 8] [--groups 8,32] [--limit-gib G]

For each size, a Quest file (../shared/tools/gen_quest.py -D SIZE -T 10 -I 4
-L 2000 -N 1000 --seed 1) is generated into a temporary directory under
--tmp (default /tmp) and cut at line ends into --files pieces; then

- quarlo.mine(file, support, order="canonical") runs in a fresh interpreter,
  so that its peak resident memory (VmHWM) is its own;
- quarlo.dask.mine(client, pieces, support, groups=...) runs once on a fresh
  LocalCluster(n_workers=2, threads_per_worker=1, processes=True): the
  seconds of each phase, the bytes moved, the largest task input and the
  peak resident memory of each worker process;

the two frames must be equal row for row (a digest of the rows). With
--limit-gib, both runs are repeated with the address space of every process
limited to G GiB (RLIMIT_AS, inherited by the cluster's worker processes):
the run one process cannot do in the memory each worker needs.

The generated files are removed at the end of each size; nothing is written
into the tree.
"""

import argparse
import hashlib
import json
import os
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "build/python"))
sys.path.insert(0, str(ROOT / "bench"))
from python_bench import split  # noqa: E402  (the file cutter both scripts use)
GIB = 2**30
MIB = 2**20


def digest(frame) -> str:
    """A digest of the rows in order: itemsets (sorted labels) and counts."""
    h = hashlib.sha256()
    for items, count in zip(frame["itemsets"], frame["count"]):
        h.update((" ".join(sorted(items)) + f" {count}\n").encode("utf-8", "surrogateescape"))
    return h.hexdigest()[:16]


def peak_mib() -> float:
    """This process's peak resident memory (VmHWM; getrusage's maxrss would
    carry the parent's over fork and exec)."""
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024
    return float("nan")


def limited(gib):
    """A preexec function that caps the address space at `gib` GiB."""
    def cap():
        if gib:
            resource.setrlimit(resource.RLIMIT_AS, (int(gib * GIB), int(gib * GIB)))
    return cap


def run_json(args, gib=None):
    """Runs this script with `args` in a fresh interpreter; its JSON line, or
    the error it ended with."""
    done = subprocess.run([sys.executable, __file__, *args], capture_output=True, text=True,
                          preexec_fn=limited(gib))
    lines = [line for line in done.stdout.splitlines() if line.startswith("{")]
    if done.returncode != 0 or not lines:
        tail = (done.stderr.strip().splitlines() or ["no output"])[-1]
        return {"error": f"status {done.returncode}: {tail}"}
    return json.loads(lines[-1])


# ---------------------------------------------------------------------------
# The two runs, each in an interpreter of its own


def one_process(path, support):
    import quarlo

    start = time.perf_counter()
    frame = quarlo.mine(path, support, order="canonical")
    seconds = time.perf_counter() - start
    print(json.dumps({"seconds": seconds, "rows": len(frame), "digest": digest(frame),
                      "peak_mib": peak_mib()}))


def on_cluster(files, support, groups):
    import logging

    import distributed

    import quarlo.dask

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        client.run(lambda: logging.getLogger("distributed.utils_perf").setLevel(logging.ERROR))
        start = time.perf_counter()
        frame, stats = quarlo.dask.mine(client, files, support, groups=groups, return_stats=True)
        seconds = time.perf_counter() - start
        peaks = sorted(client.run(peak_mib).values())
        print(json.dumps({"seconds": seconds, "rows": len(frame), "digest": digest(frame),
                          "stats": stats, "worker_peak_mib": peaks, "driver_peak_mib": peak_mib()}))


# ---------------------------------------------------------------------------
# The table


def fmt_bytes(n):
    return f"{n / MIB:,.0f} MiB" if n < 10 * GIB else f"{n / GIB:,.1f} GiB"


def report(size, support, groups, single, dask):
    s = dask["stats"]
    b = s["bytes"]
    reduced, largest = b["reduced"], s["largest_input"]
    worker = max(dask["worker_peak_mib"])
    print(f"### {size:,} transactions, support {support}, {s['partitions']} files, {groups} groups\n")
    print("| run | seconds | itemsets | peak memory |")
    print("|---|---:|---:|---:|")
    print(f"| quarlo.mine, one process | {single['seconds']:.1f} | {single['rows']:,} "
          f"| {single['peak_mib']:,.0f} MiB |")
    print(f"| quarlo.dask, 2 workers | {dask['seconds']:.1f} | {dask['rows']:,} "
          f"| workers {' + '.join(f'{p:,.0f}' for p in dask['worker_peak_mib'])} MiB, "
          f"driver {dask['driver_peak_mib']:,.0f} MiB |")
    print()
    phases = ("scan", "count", "reduce", "shuffle", "mine", "merge")
    print("| " + " | ".join(phases) + " | groups in library (sum / max) |")
    print("|" + "---:|" * (len(phases) + 1))
    print("| " + " | ".join(f"{s['seconds'][p]:.1f}" for p in phases) +
          f" | {sum(s['group_seconds']):.1f} / {max(s['group_seconds']):.1f} |")
    print()
    print("| goal | measured | met |")
    print("|---|---:|:---:|")
    ratio = largest / reduced
    print(f"| largest task input <= 2.5 / groups = {2.5 / groups:.1%} of the reduced transactions "
          f"| {fmt_bytes(largest)} of {fmt_bytes(reduced)} = {ratio:.1%} | {'yes' if ratio <= 2.5 / groups else 'no'} |")
    print(f"| peak memory per worker <= 0.6 x one process | {worker:,.0f} / {single['peak_mib']:,.0f} MiB "
          f"= {worker / single['peak_mib']:.2f} | {'yes' if worker <= 0.6 * single['peak_mib'] else 'no'} |")
    print(f"| wall time <= 1.2 x one process | {dask['seconds']:.1f} / {single['seconds']:.1f} s "
          f"= {dask['seconds'] / single['seconds']:.2f} | {'yes' if dask['seconds'] <= 1.2 * single['seconds'] else 'no'} |")
    print()
    print(f"Bytes: shuffled {fmt_bytes(b['shuffled'])} ({b['shuffled'] / reduced:.2f} x the reduced "
          f"transactions), group inputs {', '.join(f'{x / MIB:.0f}' for x in s['inputs'])} MiB, "
          f"itemsets to the driver {fmt_bytes(b['mined'])}, counts {fmt_bytes(b['counts'])}; "
          f"kept items {s['kept_labels']} of {s['labels']}, lowest count {s['lowest_count']}; "
          f"group transactions {', '.join(f'{t / 1e6:.2f}M' for t in s['group_transactions'])}.\n",
          flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--sizes", default="10000000,30000000")
    parser.add_argument("--support", type=float, default=0.0005)
    parser.add_argument("--files", type=int, default=8)
    parser.add_argument("--groups", default="8", help="groups of the dask runs, comma-separated")
    parser.add_argument("--limit-gib", type=float, default=0.0,
                        help="also run both with every process's address space capped (GiB)")
    parser.add_argument("--tmp", default="/tmp")
    parser.add_argument("--one-process", nargs=2, help=argparse.SUPPRESS)
    parser.add_argument("--cluster", nargs="+", help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.one_process:
        return one_process(args.one_process[0], float(args.one_process[1]))
    if args.cluster:
        return on_cluster(args.cluster[2:], float(args.cluster[0]), int(args.cluster[1]))

    for size in [int(s) for s in args.sizes.split(",") if s]:
        with tempfile.TemporaryDirectory(prefix="quarlo-scale-", dir=args.tmp) as tmp:
            path = Path(tmp) / f"quest-{size}.txt"
            start = time.perf_counter()
            subprocess.run([sys.executable, str(ROOT.parent / "shared/tools/gen_quest.py"), "-D", str(size),
                            "-T", "10", "-I", "4", "-L", "2000", "-N", "1000", "--seed", "1", "-o", str(path)],
                           check=True)
            files = split(path, args.files)
            print(f"({path.stat().st_size / MIB:,.0f} MiB, made and split in {time.perf_counter() - start:.0f} s)",
                  flush=True)
            single = run_json(["--one-process", str(path), repr(args.support)])
            for groups in [int(g) for g in args.groups.split(",")]:
                cluster_args = ["--cluster", repr(args.support), str(groups), *map(str, files)]
                dask = run_json(cluster_args)
                if "error" in single or "error" in dask:
                    print(f"failed: one process {single.get('error')}, dask {dask.get('error')}")
                    continue
                assert single["digest"] == dask["digest"], "quarlo.dask gave other rows than quarlo.mine"
                report(size, args.support, groups, single, dask)
            if args.limit_gib:
                print(f"#### Every process limited to {args.limit_gib:g} GiB of address space\n")
                single = run_json(["--one-process", str(path), repr(args.support)], args.limit_gib)
                dask = run_json(cluster_args, args.limit_gib)
                for name, r in (("quarlo.mine, one process", single), ("quarlo.dask, 2 workers", dask)):
                    if "error" in r:
                        print(f"- {name}: failed ({r['error']})")
                    else:
                        print(f"- {name}: {r['seconds']:.1f} s, {r['rows']:,} itemsets (digest {r['digest']}), "
                              f"peak {max(r.get('worker_peak_mib', [r.get('peak_mib', 0)])):,.0f} MiB")
                print(flush=True)


if __name__ == "__main__":
    main()
