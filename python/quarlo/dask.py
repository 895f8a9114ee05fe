"""quarlo.mine over transactions spread across a dask cluster.

``quarlo.dask.mine(client, transactions, support, ...)`` returns the same
DataFrame as ``quarlo.mine`` over all the transactions, row for row. It runs
in six phases:

1. scan: every partition is read on a worker into coded transactions (its
   labels, one code per item, the end of every transaction) with the support
   of each label; the scans stay on the workers;
2. count: the driver adds the partitions' label supports and transaction
   counts into the totals and asks the library for the lowest count any
   length demands;
3. reduce: every partition drops, on its worker, the items whose global
   support is below that count and recodes the rest into one code space;
4. plan: one task gathers the reduced partitions in order and builds the
   top level of the search over all of them, dealing every top item's
   conditional database into ``groups`` self-contained parts of about equal
   estimated work;
5. mine: the parts are mined on the workers, spread by their work;
6. merge: the driver gathers the mined parts in order and merges them into
   the result one run over all the transactions gives.

Only a plan that sees every (reduced) transaction reproduces one run's rows:
the engine cuts items from records depending on the whole tree, and the order
of the itemsets of a length follows those cuts. The parts then hold what a
shuffle of transaction prefixes would send, as weighted tree paths.
"""

from __future__ import annotations

import glob
import operator
import os
import time
import uuid
from collections.abc import Sequence
from typing import Union

import dask
import dask.bag
import distributed
import numpy as np
import pandas as pd

from . import _MAX_U32, Support, _flag, _frame, _int_at_least, _options, _quarlo

__all__ = ["mine"]

Sources = Union[dask.bag.Bag, str, "os.PathLike[str]", Sequence[Union[str, "os.PathLike[str]"]]]

# A partition's code for a label whose item no itemset can hold.
_DROPPED = np.uint32(_MAX_U32)

_PHASES = ("scan", "count", "reduce", "plan", "mine", "merge")


def mine(
    client: distributed.Client,
    transactions: Sources,
    support: Support,
    *,
    groups: int | None = None,
    min_len: int = 1,
    max_len: int | None = None,
    maximal: bool = False,
    parents: bool = False,
    threads: int = 1,
    return_stats: bool = False,
):
    """Return the frequent itemsets of transactions on a dask cluster.

    The frame is the one ``quarlo.mine`` returns for all the transactions
    in partition order: the same rows in the same order, the same columns.

    Parameters
    ----------
    client
        A ``distributed.Client``. Every worker must import the same build of
        quarlo as the driver.
    transactions
        One of:

        * a ``dask.bag.Bag`` of transactions, each an iterable of labels
          converted as ``quarlo.mine`` converts iterables;
        * a list of paths to files in the quarlo program's format, one
          partition per file in the order given;
        * a path or a glob pattern (``"baskets/*.txt"``), one partition per
          file in sorted order.

        Paths are made absolute on the driver and read by the workers, so
        the files must be visible to them at the same paths.
    support, min_len, max_len, maximal, parents
        As for ``quarlo.mine``. A support-table file is read on the driver
        and by the worker that plans.
    groups
        The number of parts the search is dealt into (default: twice the
        workers' threads, at least 1). Each part is mined by one task.
    threads
        Checked as ``quarlo.mine`` checks it; here the parts are what runs
        in parallel, so the result and the work do not depend on it.
    return_stats
        Return ``(frame, stats)`` instead of the frame. ``stats`` is a dict:
        ``seconds`` per phase ("scan", "count", "reduce", "plan", "mine",
        "merge", and "total"), ``bytes`` moved ("counts": labels and
        supports to the driver, "maps": the label maps to the partitions,
        "reduced": the reduced partitions to the plan task, "parts": the
        parts to the mining tasks, "mined": their results to the driver,
        "record": the plan's record to the driver), and the run's figures
        ("partitions", "transactions", "labels", "kept_labels",
        "lowest_count", "groups", "work" per part, "plan_seconds" and
        "part_seconds" spent in the library).

    Raises
    ------
    The exceptions of ``quarlo.mine``; an error on a worker (a file that
    cannot be read, a bad label) is raised on the driver with its message.

    Examples
    --------
    ::

        import dask.bag, distributed, quarlo.dask
        with distributed.Client(n_workers=2, threads_per_worker=1) as client:
            bag = dask.bag.read_text("baskets-*.txt").map(str.split)
            frame = quarlo.dask.mine(client, bag, {1: 0.01, 3: 0.005})
            frame = quarlo.dask.mine(client, "baskets-*.txt", 0.01, maximal=True)
    """
    if not isinstance(client, distributed.Client):
        raise TypeError(f"client must be a distributed.Client, not {type(client).__name__}")
    o = _options(support, min_len, max_len, maximal, parents, threads)
    if o.support_kind == "table_file":
        o = o._replace(support=os.path.abspath(o.support))
    if groups is None:
        groups = max(1, 2 * sum(client.nthreads().values()))
    groups = _int_at_least("groups", groups, 1)
    return_stats = _flag("return_stats", return_stats)

    token = uuid.uuid4().hex[:12]
    stats = {"seconds": {}, "bytes": {}, "groups": groups}
    started = last = time.perf_counter()

    def phase_done(name):
        nonlocal last
        now = time.perf_counter()
        stats["seconds"][name] = now - last
        last = now

    # 1. scan
    scans = _scan(client, transactions, token)
    distributed.wait(scans)
    phase_done("scan")

    # 2. count
    counts = client.gather(client.map(_counts, scans, key=_keys("count", token, len(scans))))
    totals = _Totals(counts)
    lowest = _quarlo.lowest_count(o.support_kind, o.support, o.min_len, o.max_len,
                                  totals.labels, totals.supports, totals.transactions)
    maps = totals.code_maps(lowest)
    stats.update(partitions=len(scans), transactions=totals.transactions,
                 labels=len(totals.labels), lowest_count=lowest)
    stats["bytes"]["counts"] = sum(_label_bytes(labels) + supports.nbytes
                                   for labels, supports, _ in counts)
    phase_done("count")

    # 3. reduce
    reduced = client.map(_reduce, scans, maps, key=_keys("reduce", token, len(scans)))
    distributed.wait(reduced)
    del scans
    kept_labels = totals.kept_labels(lowest)
    stats["kept_labels"] = len(kept_labels)
    stats["bytes"]["maps"] = sum(m.nbytes for m in maps)
    phase_done("reduce")

    # 4. plan
    [labels_future] = client.scatter([(kept_labels, totals.labels, totals.supports)], hash=False)
    planned = client.submit(_plan, reduced, labels_future, totals.transactions, o.support_kind,
                            o.support, o.min_len, o.max_len, groups, key=f"quarlo-plan-{token}")
    parts = [client.submit(operator.getitem, planned, i + 1, key=f"quarlo-part-{token}-{i}")
             for i in range(groups)]
    record, work, part_sizes, reduced_bytes, plan_seconds = \
        client.submit(operator.getitem, planned, 0, key=f"quarlo-record-{token}").result()
    del planned, reduced, labels_future
    stats.update(work=list(work), plan_seconds=plan_seconds)
    stats["bytes"].update(reduced=reduced_bytes, record=len(record), parts=sum(part_sizes))
    phase_done("plan")

    # 5. mine
    mined = [client.submit(_mine_part, part, workers=worker and [worker], allow_other_workers=True,
                           key=f"quarlo-mine-{token}-{i}")
             for i, (part, worker) in enumerate(zip(parts, _deal(work, client.nthreads())))]
    distributed.wait(mined)
    del parts
    phase_done("mine")

    # 6. merge
    results = client.gather(mined)
    del mined
    columns = _quarlo.merge(record, [r for r, _ in results], o.maximal, o.parents)
    frame = _frame(columns)
    stats["part_seconds"] = [s for _, s in results]
    stats["bytes"]["mined"] = sum(len(r) for r, _ in results)
    phase_done("merge")
    stats["seconds"]["total"] = time.perf_counter() - started
    return (frame, stats) if return_stats else frame


def _keys(name: str, token: str, n: int) -> list[str]:
    return [f"quarlo-{name}-{token}-{i}" for i in range(n)]


def _scan(client, transactions, token):
    """Futures of the scans of the partitions, in partition order."""
    if isinstance(transactions, dask.bag.Bag):
        partitions = transactions.to_delayed()
        keys = _keys("scan", token, len(partitions))
        return client.compute([dask.delayed(_scan_labels)(p, dask_key_name=k)
                               for p, k in zip(partitions, keys)])
    paths = _paths(transactions)
    return client.map(_scan_file, paths, key=_keys("scan", token, len(paths)))


def _paths(transactions) -> list[str]:
    """The files of a path, a glob pattern or a list of paths, absolute."""
    if isinstance(transactions, (str, os.PathLike)):
        path = os.fspath(transactions)
        if isinstance(path, bytes) or not any(c in path for c in "*?[") or os.path.isfile(path):
            return [os.path.abspath(path)]
        paths = sorted(glob.glob(path))
        if not paths:
            raise FileNotFoundError(f"no file matches {path!r}")
        return [os.path.abspath(p) for p in paths]
    if isinstance(transactions, Sequence) and not isinstance(transactions, (bytes, bytearray)):
        if not transactions:
            raise ValueError("the list of transaction files is empty")
        bad = next((p for p in transactions if not isinstance(p, (str, os.PathLike))), None)
        if bad is None:
            return [os.path.abspath(os.fspath(p)) for p in transactions]
    raise TypeError(
        "transactions must be a dask.bag of transactions, a list of file paths or a path or glob "
        f"pattern, not {type(transactions).__name__}")


def _label_bytes(labels) -> int:
    return sum(len(label.encode("utf-8", "surrogateescape")) for label in labels)


class _Totals:
    """The partitions' counts added up: every label with its support over all
    partitions, and where each partition's labels stand among them."""

    def __init__(self, counts):
        self.transactions = sum(n for _, _, n in counts)
        if self.transactions > _MAX_U32:
            raise ValueError(f"more than {_MAX_U32} transactions")
        every = np.empty(sum(len(labels) for labels, _, _ in counts), dtype=object)
        at = 0
        self._bounds = []
        for labels, _, _ in counts:
            every[at:at + len(labels)] = labels
            self._bounds.append((at, at + len(labels)))
            at += len(labels)
        self._index, unique = pd.factorize(every)
        self.labels = list(unique)
        supports = np.zeros(len(self.labels), dtype=np.uint64)
        if counts:
            np.add.at(supports, self._index, np.concatenate([s for _, s, _ in counts]))
        self.supports = supports.astype(np.uint32)

    def _kept(self, lowest: int) -> np.ndarray:
        return self.supports >= lowest

    def kept_labels(self, lowest: int) -> list:
        return [label for label, keep in zip(self.labels, self._kept(lowest)) if keep]

    def code_maps(self, lowest: int) -> list[np.ndarray]:
        """For each partition, the code of each of its labels among the kept
        labels, or _DROPPED."""
        kept = self._kept(lowest)
        code = np.where(kept, np.cumsum(kept) - 1, _MAX_U32).astype(np.uint32)
        return [code[self._index[begin:end]] for begin, end in self._bounds]


# ---------------------------------------------------------------------------
# Tasks on the workers


def _scan_file(path: str):
    return _quarlo.scan("file", os.fsencode(path))


def _scan_labels(partition):
    return _quarlo.scan("labels", partition)


def _counts(scan):
    labels, supports, _, ends = scan
    return labels, supports, len(ends)


def _reduce(scan, code_map):
    """A partition's transactions without the dropped items, in the kept
    labels' codes; transactions left empty go."""
    _, _, codes, ends = scan
    if len(codes) == 0:
        return codes, ends
    coded = code_map[codes]
    keep = coded != _DROPPED
    if keep.all():
        return coded, ends
    kept_before = np.zeros(len(codes) + 1, dtype=np.uint64)
    np.cumsum(keep, out=kept_before[1:])
    new_ends = kept_before[ends]
    starts = np.concatenate((np.zeros(1, dtype=np.uint64), new_ends[:-1]))
    return coded[keep], new_ends[new_ends > starts]


def _plan(reduced, labels, transactions, support_kind, support, min_len, max_len, groups):
    """[summary, part 0, part 1, ...]: the plan over the reduced partitions in
    order; the summary is (record, work, part sizes, bytes in, seconds)."""
    kept_labels, total_labels, total_supports = labels
    start = time.perf_counter()
    record, parts, work = _quarlo.plan(kept_labels, reduced, total_labels, total_supports,
                                       transactions, support_kind, support, min_len, max_len,
                                       groups)
    seconds = time.perf_counter() - start
    bytes_in = sum(codes.nbytes + ends.nbytes for codes, ends in reduced)
    return [(record, work, [len(p) for p in parts], bytes_in, seconds), *parts]


def _mine_part(part: bytes):
    start = time.perf_counter()
    mined = _quarlo.mine_part(part)
    return mined, time.perf_counter() - start


def _deal(work, nthreads: dict) -> list[str]:
    """A worker for each part: the largest parts first, each to the worker
    whose threads would then carry the least work. The scheduler would
    otherwise run every part where the plan left it."""
    workers = sorted(nthreads.items())
    if not workers:
        return [None] * len(work)
    load = {address: 0 for address, _ in workers}
    chosen = [None] * len(work)
    for i in sorted(range(len(work)), key=lambda i: -work[i]):
        address = min(workers, key=lambda w: ((load[w[0]] + work[i] + 1) / max(w[1], 1), w[0]))[0]
        load[address] += work[i] + 1
        chosen[i] = address
    return chosen
