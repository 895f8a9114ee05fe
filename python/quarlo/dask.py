"""quarlo.mine over transactions spread across a dask cluster.

``quarlo.dask.mine(client, transactions, support, ...)`` returns the frame
``quarlo.mine(..., order="canonical")`` gives for all the transactions. By
default no task and not the driver ever holds every transaction: the run
splits the frequent items into groups and mines each group apart, in six
phases:

1. scan: every partition is read on a worker into coded transactions (its
   labels, one code per item, the end of every transaction) with the support
   of each label; the scans stay on the workers;
2. count: the driver adds the partitions' label supports and transaction
   counts into the totals, asks the library for the lowest count any length
   demands and ranks the items that reach it, most frequent first (ties in
   the library's item order), as the search orders them;
3. reduce: every partition drops, on its worker, the items below that count,
   recodes the rest to their ranks and sorts each transaction by rank; it
   reports how much each item weighs in it (the length of the transaction's
   prefix up to the item, summed), and the driver cuts the ranks into
   ``groups`` runs of about equal weight;
4. shuffle: every partition sends each group the prefixes of its
   transactions up to their last item of the group (a transaction without
   an item of the group sends it nothing), with dask's own task-based
   dataframe shuffle: one output partition per group;
5. mine: each group is mined on a worker by the library's ``mine_shard``,
   which finds exactly the itemsets whose least frequent item is in the
   group, with their supports over all the data;
6. merge: the driver gathers the itemsets (and only them) and puts them in
   the canonical order, where parents and maximal itemsets are found too.

The canonical order is by length, then by the items compared one after the
other in the library's item order (numbers by value, then text labels byte
by byte). It does not depend on how the run was split; the order in which
one run finds the itemsets of a length does (the engine cuts items from
records depending on the whole tree), which is why a split run cannot give
FILE.fp's order. ``order="fp"`` keeps that order at the price of one plan
task that gathers every reduced transaction (see ``mine``).

Every task is pure: when a worker dies, dask runs its lost tasks again from
the files or the bag, and the result is the same.
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
import dask.dataframe
import distributed
import numpy as np
import pandas as pd
from dask.dataframe.shuffle import rearrange_by_column_tasks

from . import _MAX_U32, Support, _flag, _frame, _int_at_least, _options, _order, _quarlo

__all__ = ["mine"]

Sources = Union[dask.bag.Bag, str, "os.PathLike[str]", Sequence[Union[str, "os.PathLike[str]"]]]

# A partition's code for a label whose item no itemset can hold.
_DROPPED = np.uint32(_MAX_U32)

# The rows a partition sends through the shuffle: one per group it has
# prefixes for. "_partitions" is the group, which dask's task shuffle takes
# as the output partition as it is.
_PREFIX_META = pd.DataFrame({
    "_partitions": pd.Series([], dtype=np.int64),
    "source": pd.Series([], dtype=np.int64),
    "transactions": pd.Series([], dtype=np.int64),
    "items": pd.Series([], dtype=object),
    "lengths": pd.Series([], dtype=object),
})


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
    order: str = "canonical",
    return_stats: bool = False,
):
    """Return the frequent itemsets of transactions on a dask cluster.

    The frame is the one ``quarlo.mine(..., order=order)`` returns for all
    the transactions in partition order: the same rows in the same order,
    the same columns.

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
        and by the workers that mine.
    groups
        The number of groups the frequent items are cut into, each mined by
        one task (default: twice the workers' threads, at least 1). More
        groups make smaller tasks that balance better over the workers, and
        send more bytes: a transaction sends one prefix to every group it
        has an item of.
    threads
        Checked as ``quarlo.mine`` checks it; here the groups are what runs
        in parallel, so the result and the work do not depend on it.
    order
        ``"canonical"`` (the default): rows by length, then by their items
        in the library's item order, as ``quarlo.mine(..., order=
        "canonical")`` gives them. ``"fp"``: the order of the program's
        FILE.fp, as ``quarlo.mine`` gives by default; this takes one plan
        task that gathers every reduced transaction, builds the top level of
        the search and deals the rest into ``groups`` parts, so that task
        must hold all the reduced transactions.
    return_stats
        Return ``(frame, stats)`` instead of the frame. ``stats`` is a dict:
        ``seconds`` per phase and "total"; ``bytes`` moved per phase;
        "partitions", "transactions", "labels", "kept_labels",
        "lowest_count", "groups", "work" (estimated, per group) and
        "largest_input" (bytes of transactions the largest task took in).
        With the canonical order the phases are "scan", "count", "reduce",
        "shuffle", "mine" and "merge"; the bytes "counts" (labels and
        supports to the driver), "maps" (label codes to the partitions),
        "reduced" (the reduced transactions: 4 bytes an item and 8 a
        transaction), "shuffled" (the prefixes sent to the groups) and
        "mined" (the itemsets to the driver); and per group "inputs" (bytes
        in), "group_transactions" and "group_seconds" (in the library).
        With ``order="fp"`` the phases are "scan", "count", "reduce",
        "plan", "mine" and "merge", and the bytes "counts", "maps",
        "reduced" (all into the plan task), "parts", "mined" and "record".

    Raises
    ------
    The exceptions of ``quarlo.mine``; an error on a worker (a file that
    cannot be read, a bad line or label) is raised on the driver with its
    message, which names the file and its line or the partition and its
    transaction. Nothing of the run is left on the workers.

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
    canonical = _order(order)
    return_stats = _flag("return_stats", return_stats)

    for attempt in range(_ATTEMPTS):
        run = _Run(client, o, groups)
        try:
            frame = run.sharded(transactions) if canonical else run.planned(transactions)
            break
        except _Stalled:
            if attempt + 1 == _ATTEMPTS:
                raise RuntimeError(f"the cluster stopped making progress {_ATTEMPTS} times after "
                                   "losing workers") from None
        finally:
            run.release()
    run.stats["attempts"] = attempt + 1
    return (frame, run.stats) if return_stats else frame


# dask 2022.12's scheduler can leave a task processing on a live worker after
# the worker holding one of its inputs died, with that input released: the
# task never ends. A run whose tasks stay in that state this long is started
# again under new keys (its tasks are pure, so the result is the same).
_STALL_SECONDS = 10.0
_ATTEMPTS = 3


class _Stalled(Exception):
    """The cluster holds tasks of the run that wait for inputs nobody has."""


def _orphans(dask_scheduler) -> list[str]:
    """Keys of tasks processing while one of their inputs is in no worker's memory."""
    return [str(ts.key) for ts in dask_scheduler.tasks.values()
            if ts.state == "processing" and any(d.state != "memory" for d in ts.dependencies)]


class _Run:
    """One call of mine(): its futures, its statistics and its clock."""

    def __init__(self, client, options, groups):
        self.client = client
        self.o = options
        self.groups = groups
        self.token = uuid.uuid4().hex[:12]
        self.stats = {"seconds": {}, "bytes": {}, "groups": groups}
        self._live = {}  # the futures the run holds, by phase
        self._started = self._last = time.perf_counter()

    def keys(self, name: str, n: int) -> list[str]:
        return [f"quarlo-{name}-{self.token}-{i}" for i in range(n)]

    def hold(self, name, futures):
        self._live[name] = futures
        return futures

    def drop(self, name):
        """Lets the cluster forget a phase's results once nothing needs them."""
        self._live.pop(name, None)

    def release(self):
        """Cancels whatever the run still holds (after an error: tasks still
        running or waiting), so that nothing of it stays on the workers."""
        held = [f for futures in self._live.values() for f in distributed.futures_of(futures)]
        self._live.clear()
        if held:
            self.client.cancel(held)

    def wait(self, futures):
        """distributed.wait(futures), or _Stalled when tasks stay orphaned."""
        stuck_since, stuck = None, set()
        while True:
            try:
                distributed.wait(futures, timeout=2)
                return
            except TimeoutError:
                pass
            now = set(self.client.run_on_scheduler(_orphans))
            if not now or not (now & stuck):
                stuck_since, stuck = (time.perf_counter() if now else None), now
            elif time.perf_counter() - stuck_since > _STALL_SECONDS:
                raise _Stalled()

    def phase_done(self, name):
        now = time.perf_counter()
        self.stats["seconds"][name] = now - self._last
        self._last = now
        if name == "merge":
            self.stats["seconds"]["total"] = now - self._started

    def count(self, transactions):
        """Phases 1 and 2: the scans on the workers and their totals."""
        scans = self.hold("scans", _scan(self.client, transactions, f"quarlo-scan-{self.token}"))
        self.wait(scans)
        self.phase_done("scan")
        counts = self.hold("counts", self.client.map(_counts, scans, key=self.keys("count", len(scans))))
        self.wait(counts)
        counts = self.client.gather(counts)
        self.drop("counts")
        totals = _Totals(counts)
        lowest = _quarlo.lowest_count(self.o.support_kind, self.o.support, self.o.min_len,
                                      self.o.max_len, totals.labels, totals.supports,
                                      totals.transactions)
        self.stats.update(partitions=len(scans), transactions=totals.transactions,
                          labels=len(totals.labels), lowest_count=lowest)
        self.stats["bytes"]["counts"] = sum(_label_bytes(labels) + supports.nbytes
                                            for labels, supports, _ in counts)
        return scans, totals, lowest

    # -----------------------------------------------------------------------
    # The canonical order: groups of items mined apart

    def sharded(self, transactions):
        client, o, groups = self.client, self.o, self.groups
        scans, totals, lowest = self.count(transactions)
        items = _Items(totals, lowest)
        maps = items.rank_maps(totals)
        self.stats["kept_labels"] = len(items.by_rank)
        self.stats["bytes"]["maps"] = sum(m.nbytes for m in maps)
        self.phase_done("count")

        # 3. reduce
        reduced = self.hold("reduced", client.map(_reduce_ranked, scans, maps,
                                                  nitems=len(items.by_rank),
                                                  key=self.keys("reduce", len(scans))))
        self.wait(reduced)
        del scans
        self.drop("scans")
        weighed = self.hold("weighed", client.map(_weight, reduced, key=self.keys("weigh", len(reduced))))
        self.wait(weighed)
        weighed = client.gather(weighed)
        self.drop("weighed")
        weights = sum((w for w, _, _ in weighed), np.zeros(len(items.by_rank)))
        longest = max((n for _, n, _ in weighed), default=0)
        self.stats["bytes"]["reduced"] = sum(b for _, _, b in weighed)
        bounds = _cut(weights, groups)
        self.stats["work"] = [float(weights[a:b].sum()) for a, b in zip(bounds[:-1], bounds[1:])]
        self.phase_done("reduce")

        # 4. shuffle
        item_type = np.uint16 if len(items.by_rank) <= 1 << 16 else np.uint32
        length_type = np.uint16 if longest < 1 << 16 else np.uint32
        prefixes = self.hold("prefixes", client.map(
            _prefixes, reduced, range(len(reduced)), bounds=bounds, item_type=item_type,
            length_type=length_type, key=self.keys("prefixes", len(reduced))))
        frame = dask.dataframe.from_delayed(prefixes, meta=_PREFIX_META, verify_meta=False)
        shuffled = self.hold("shuffled", client.persist(
            rearrange_by_column_tasks(frame, "_partitions", npartitions=groups, ignore_index=True)))
        del frame, reduced, prefixes
        self.wait(shuffled)
        self.drop("reduced")
        self.drop("prefixes")
        parts = shuffled.to_delayed()
        sizes = self.hold("sizes", client.compute([dask.delayed(_input_size, pure=True)(
            p, dask_key_name=k) for p, k in zip(parts, self.keys("size", groups))]))
        self.wait(sizes)
        sizes = client.gather(sizes)
        self.drop("sizes")
        self.stats["inputs"] = [n for n, _ in sizes]
        self.stats["group_transactions"] = [t for _, t in sizes]
        self.stats["largest_input"] = max(self.stats["inputs"], default=0)
        self.stats["bytes"]["shuffled"] = sum(self.stats["inputs"])
        self.phase_done("shuffle")

        # 5. mine
        labels = dask.delayed((items.by_rank, totals.labels, totals.supports), pure=True)
        mined = self.hold("mined", client.compute([
            dask.delayed(_mine_group, pure=True)(
                part, g, bounds[g], bounds[g + 1], labels, totals.transactions, o.support_kind,
                o.support, o.min_len, o.max_len, item_type, length_type, dask_key_name=key)
            for g, (part, key) in enumerate(zip(parts, self.keys("mine", groups)))]))
        # Each group's input goes as soon as its task is done with it.
        del parts, shuffled
        self.drop("shuffled")
        self.wait(mined)
        self.phase_done("mine")

        # 6. merge
        results = client.gather(mined)
        self.drop("mined")
        del mined
        lengths = np.concatenate([r[0] for r in results]) if results else np.zeros(0, np.uint32)
        ranks = np.concatenate([r[1] for r in results]) if results else np.zeros(0, np.uint32)
        counts = np.concatenate([r[2] for r in results]) if results else np.zeros(0, np.uint32)
        self.stats["group_seconds"] = [r[3] for r in results]
        self.stats["bytes"]["mined"] = int(lengths.nbytes + ranks.nbytes + counts.nbytes)
        columns = _quarlo.combine(items.canonical, lengths, items.canonical_of_rank[ranks], counts,
                                  totals.transactions, o.maximal, o.parents)
        frame = _frame(columns)
        self.phase_done("merge")
        return frame

    # -----------------------------------------------------------------------
    # FILE.fp's order: one plan task over every reduced transaction

    def planned(self, transactions):
        client, o, groups = self.client, self.o, self.groups
        scans, totals, lowest = self.count(transactions)
        maps = totals.code_maps(lowest)
        self.phase_done("count")

        # 3. reduce
        reduced = self.hold("reduced", client.map(_reduce, scans, maps,
                                                  key=self.keys("reduce", len(scans))))
        distributed.wait(reduced)
        del scans
        self.drop("scans")
        kept_labels = totals.kept_labels(lowest)
        self.stats["kept_labels"] = len(kept_labels)
        self.stats["bytes"]["maps"] = sum(m.nbytes for m in maps)
        self.phase_done("reduce")

        # 4. plan
        labels = (kept_labels, totals.labels, totals.supports)
        planned = client.submit(_plan, reduced, labels, totals.transactions, o.support_kind,
                                o.support, o.min_len, o.max_len, groups,
                                key=f"quarlo-plan-{self.token}")
        parts = self.hold("parts", [
            client.submit(operator.getitem, planned, i + 1, key=key)
            for i, key in enumerate(self.keys("part", groups))])
        record, work, part_sizes, reduced_bytes, plan_seconds = client.submit(
            operator.getitem, planned, 0, key=f"quarlo-record-{self.token}").result()
        del planned, reduced, labels
        self.drop("reduced")
        self.stats.update(work=list(work), plan_seconds=plan_seconds, largest_input=reduced_bytes)
        self.stats["bytes"].update(reduced=reduced_bytes, record=len(record), parts=sum(part_sizes))
        self.phase_done("plan")

        # 5. mine
        mined = self.hold("mined", [
            client.submit(_mine_part, part, workers=worker and [worker], allow_other_workers=True,
                          key=key)
            for part, worker, key in zip(parts, _deal(work, client.nthreads()),
                                         self.keys("mine", groups))])
        del parts
        distributed.wait(mined)
        self.drop("parts")
        self.phase_done("mine")

        # 6. merge
        results = client.gather(mined)
        self.drop("mined")
        del mined
        columns = _quarlo.merge(record, [r for r, _ in results], o.maximal, o.parents)
        frame = _frame(columns)
        self.stats["part_seconds"] = [s for _, s in results]
        self.stats["bytes"]["mined"] = sum(len(r) for r, _ in results)
        self.phase_done("merge")
        return frame


def _scan(client, transactions, prefix):
    """Futures of the scans of the partitions, in partition order."""
    if isinstance(transactions, dask.bag.Bag):
        partitions = transactions.to_delayed()
        return client.compute([dask.delayed(_scan_labels, pure=True)(p, i, dask_key_name=f"{prefix}-{i}")
                               for i, p in enumerate(partitions)])
    paths = _paths(transactions)
    return client.map(_scan_file, paths, key=[f"{prefix}-{i}" for i in range(len(paths))])


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

    def maps_of(self, code: np.ndarray) -> list[np.ndarray]:
        """For each partition, `code` of each of its labels."""
        return [code[self._index[begin:end]] for begin, end in self._bounds]

    def code_maps(self, lowest: int) -> list[np.ndarray]:
        """For each partition, the code of each of its labels among the kept
        labels, or _DROPPED."""
        kept = self._kept(lowest)
        return self.maps_of(np.where(kept, np.cumsum(kept) - 1, _MAX_U32).astype(np.uint32))


class _Items:
    """The items that reach the lowest count, in two orders: by rank (most
    frequent first, ties in the library's item order: the order of the
    search, in which each group is a run of ranks) and canonical (the
    library's item order, in which the frame is sorted)."""

    def __init__(self, totals: _Totals, lowest: int):
        kept = np.flatnonzero(totals.supports >= lowest)
        labels = [totals.labels[k] for k in kept]
        # The library lists a transaction's labels in its item order.
        self.canonical = list(_quarlo.scan("labels", [labels])[0]) if labels else []
        place = {label: i for i, label in enumerate(self.canonical)}
        canonical_of_kept = np.array([place[label] for label in labels], dtype=np.int64)
        by_canonical = np.empty(len(kept), dtype=np.int64)
        by_canonical[canonical_of_kept] = kept
        supports = totals.supports[by_canonical].astype(np.int64)
        rank_order = np.lexsort((np.arange(len(kept)), -supports))  # canonical positions by rank
        self.canonical_of_rank = rank_order.astype(np.uint32)
        self.by_rank = [self.canonical[c] for c in rank_order]
        self._rank_of_label = np.full(len(totals.labels), _MAX_U32, dtype=np.uint32)
        self._rank_of_label[by_canonical[rank_order]] = np.arange(len(kept), dtype=np.uint32)

    def rank_maps(self, totals: _Totals) -> list[np.ndarray]:
        """For each partition, the rank of each of its labels, or _DROPPED."""
        return totals.maps_of(self._rank_of_label)


def _cut(weights: np.ndarray, groups: int) -> list[int]:
    """Bounds of `groups` runs of ranks, [bounds[g], bounds[g + 1]), whose
    largest weight is as small as runs allow (an item heavier than that
    stands alone); runs may be empty when there are fewer items than groups."""
    n = len(weights)
    cum = np.concatenate(([0.0], np.cumsum(weights, dtype=np.float64)))

    def runs(cap):
        bounds = [0]
        for _ in range(groups):
            at = bounds[-1]
            end = int(np.searchsorted(cum, cum[at] + cap, side="right")) - 1
            bounds.append(min(n, max(end, at + 1)))
        return bounds

    low, high = cum[-1] / groups, cum[-1]
    best = runs(high)
    for _ in range(60):
        if high - low <= max(1.0, 1e-6 * high):
            break
        middle = (low + high) / 2
        bounds = runs(middle)
        if bounds[-1] == n:
            best, high = bounds, middle
        else:
            low = middle
    best[-1] = n
    return best


# ---------------------------------------------------------------------------
# Tasks on the workers


def _scan_file(path: str):
    # The library's messages name the file, and the line of a bad one.
    return _quarlo.scan("file", os.fsencode(path))


def _scan_labels(partition, index: int):
    try:
        return _quarlo.scan("labels", partition)
    except (ValueError, TypeError) as e:
        raise type(e)(f"partition {index}: {e}") from None


def _counts(scan):
    labels, supports, _, ends = scan
    return labels, supports, len(ends)


def _drop(codes, ends, keep):
    """The transactions codes/ends with only the codes where `keep` holds;
    transactions left empty go."""
    if keep.all():
        return codes, ends
    kept_before = np.zeros(len(codes) + 1, dtype=np.uint64)
    np.cumsum(keep, out=kept_before[1:])
    new_ends = kept_before[ends]
    starts = np.concatenate((np.zeros(1, dtype=np.uint64), new_ends[:-1]))
    return codes[keep], new_ends[new_ends > starts]


def _reduce(scan, code_map):
    """A partition's transactions without the dropped items, in the kept
    labels' codes; transactions left empty go."""
    _, _, codes, ends = scan
    if len(codes) == 0:
        return codes, ends
    coded = code_map[codes]
    return _drop(coded, ends, coded != _DROPPED)


def _reduce_ranked(scan, rank_map, nitems: int):
    """A partition's transactions without the dropped items, as ranks, each
    transaction's ranks ascending; each rank's weight (the lengths of the
    prefixes that end at it, summed: the size of its conditional database);
    the longest transaction; the bytes of the ranked transactions."""
    _, _, codes, ends = scan
    ranks, ends, weights, longest = _quarlo.rank(codes, ends, rank_map, nitems)
    return ranks, ends, weights, longest, int(ranks.nbytes + ends.nbytes)


def _weight(reduced):
    return reduced[2:]


def _prefixes(reduced, source: int, *, bounds, item_type, length_type) -> pd.DataFrame:
    """The rows this partition sends to the groups: for each group, the
    prefix of every transaction up to its last item in the group, as ranks
    laid end to end and their lengths."""
    rows = [(g, source, n, items, lengths) for g, n, items, lengths in _quarlo.prefixes(
        reduced[0], reduced[1], bounds, item_type == np.uint32, length_type == np.uint32)]
    frame = pd.DataFrame(rows, columns=list(_PREFIX_META.columns))
    return frame.astype(_PREFIX_META.dtypes.to_dict())


def _input_size(part: pd.DataFrame):
    return (int(sum(len(b) for b in part["items"]) + sum(len(b) for b in part["lengths"])),
            int(part["transactions"].sum()))


def _mine_group(part: pd.DataFrame, group: int, first: int, last: int, labels, transactions: int,
                support_kind, support, min_len, max_len, item_type, length_type):
    """The itemsets of group `group` (ranks first..last): lengths, ranks and
    counts laid end to end, and the seconds the library took."""
    if (part["_partitions"] != group).any():
        raise RuntimeError(f"the shuffle sent group {group} rows of another group")
    part = part.sort_values("source")  # the same transactions in the same order, however they came
    by_rank, total_labels, total_supports = labels
    codes = np.concatenate([np.frombuffer(b, item_type) for b in part["items"]] or
                           [np.zeros(0, item_type)]).astype(np.uint32)
    lengths = np.concatenate([np.frombuffer(b, length_type) for b in part["lengths"]] or
                             [np.zeros(0, length_type)])
    del part
    ends = np.cumsum(lengths, dtype=np.uint64)
    if first == last or len(ends) == 0:
        empty = np.zeros(0, dtype=np.uint32)
        return empty, empty, empty, 0.0
    start = time.perf_counter()
    lengths, ranks, counts = _quarlo.mine_shard(by_rank, codes, ends, total_labels, total_supports,
                                                transactions, first, last, support_kind, support,
                                                min_len, max_len)
    return lengths, ranks, counts, time.perf_counter() - start


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
