"""quarlo.dask.mine on a local cluster of two worker processes gives
quarlo.mine's frame over the same transactions: in the canonical order when
the items are mined in groups apart (the default), in FILE.fp's order
through the plan task. From bags of several partitions and from files split
in pieces, with constant, falling and rising supports, maximal itemsets,
parents and any number of groups; when a worker is killed on the way; and
with one clear error for a bad line."""

import errno
import gc
import os
import random
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

import pandas as pd
import pytest

import quarlo

distributed = pytest.importorskip("distributed")
dask_bag = pytest.importorskip("dask.bag")
import quarlo.dask  # noqa: E402  (needs dask, checked above)
from distributed.diagnostics.plugin import SchedulerPlugin  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
GROCERIES, GROCERIES_TABLE = ROOT / "examples/groceries.txt", ROOT / "examples/groceries.supp"
MARKET = ROOT / "tests/data/cli/market.txt"
LABELS = ROOT / "tests/data/conversion/labels-noise.txt"
NUMBERS = ROOT / "tests/data/conversion/numbers-noise.txt"
GAPS, GAPS_TABLE = ROOT / "tests/data/pipeline/gaps.txt", ROOT / "tests/data/pipeline/gaps.supp"


@pytest.fixture(scope="module")
def client():
    try:
        cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                           dashboard_address=None)
    except Exception as e:  # no sockets, no processes: nothing here can run
        pytest.skip(f"no local dask cluster: {e}")
    with cluster, distributed.Client(cluster) as c:
        yield c


def tokens(path):
    return [line.split() for line in path.read_bytes().decode("utf-8", "surrogateescape").split("\n")]


def bag(path, npartitions):
    return dask_bag.from_sequence(tokens(path), npartitions=npartitions)


def split_file(path, pieces, directory):
    """`path` cut at line ends into `pieces` files whose concatenation is it."""
    lines = path.read_bytes().split(b"\n")
    step = -(-len(lines) // pieces)
    names = []
    for k in range(pieces):
        names.append(directory / f"{path.stem}-{k}.txt")
        chunk = lines[k * step:(k + 1) * step]
        names[-1].write_bytes(b"\n".join(chunk) + (b"\n" if (k + 1) * step < len(lines) else b""))
    assert b"".join(n.read_bytes() for n in names) == path.read_bytes()
    return names


def nothing_left(client):
    """Whether the scheduler and the workers have forgotten every task
    (within 60 s: a worker that was killed may take long to be let go on a
    loaded machine)."""
    gc.collect()  # futures a finished run's frames still name
    for _ in range(1200):
        tasks = client.run_on_scheduler(lambda dask_scheduler: len(dask_scheduler.tasks))
        held = sum(client.run(lambda dask_worker: len(dask_worker.data)).values())
        if tasks == held == 0:
            return True
        time.sleep(0.05)
    return False


# An input, a support and mine()'s other arguments.
CASES = [
    (GROCERIES, GROCERIES_TABLE, {"parents": True}),
    (GROCERIES, GROCERIES_TABLE, {"maximal": True, "parents": True}),
    (GROCERIES, 0.2, {"maximal": True}),
    (GROCERIES, 1, {"min_len": 2, "max_len": 3}),
    (GROCERIES, {1: 0.12, 3: 0.2}, {"parents": True}),  # rises with the length
    (MARKET, {1: 0.6, 2: 0.4}, {"parents": True}),
    (LABELS, 0.02, {"parents": True}),
    (NUMBERS, {1: 0.05, 3: 0.01}, {"maximal": True, "parents": True}),
    (GAPS, GAPS_TABLE, {"maximal": True, "parents": True}),
]
IDS = [f"{c[0].stem} {c[1].name if isinstance(c[1], Path) else c[1]} {sorted(c[2])}" for c in CASES]


@pytest.mark.parametrize("data,support,kw", CASES, ids=IDS)
def test_groups_mined_apart_give_one_runs_canonical_frame(client, tmp_path, data, support, kw):
    want = quarlo.mine(data, support, order="canonical", **kw)
    assert len(want) > 0
    items = len({label for t in tokens(data) for label in t} - {"-1"})
    for npartitions, groups in ((3, 1), (4, items + 3)):
        got = quarlo.dask.mine(client, bag(data, npartitions), support, groups=groups, **kw)
        pd.testing.assert_frame_equal(got, want)
    split_file(data, 3, tmp_path)
    glob = str(tmp_path / f"{data.stem}-*.txt")
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, glob, support, **kw), want)


def test_random_databases_with_tied_supports_and_mixed_labels(client):
    # Few items, many ties, numbers, numbers with leading zeros and text: the
    # order of equal supports decides where prefixes are cut.
    rng = random.Random(5)
    for k in range(20):
        labels = list(dict.fromkeys(str(rng.choice([i, f"x{i}", f"{i:02d}", 10 * i])) for i in range(rng.randint(2, 14))))
        lines = [rng.sample(labels, rng.randint(0, len(labels))) for _ in range(rng.randint(1, 60))]
        support = rng.choice([1, 2, 0.1, {1: 0.3, 2: 0.1}, {1: 2, 3: 4}])
        kw = rng.choice([{}, {"parents": True}, {"maximal": True, "parents": True},
                         {"min_len": 2, "max_len": 3, "parents": True}])
        got = quarlo.dask.mine(client, dask_bag.from_sequence(lines, npartitions=rng.randint(1, 4)),
                               support, groups=rng.randint(1, 6), **kw)
        pd.testing.assert_frame_equal(got, quarlo.mine(lines, support, order="canonical", **kw),
                                      obj=f"database {k}, {support}, {kw}")


def dense_lines(n=3000, seed=11):
    # 40 items of skewed frequency in transactions of 10-24: deep, bushy trees.
    rng = random.Random(seed)
    weights = [1.0 / (k + 1) for k in range(40)]
    return [sorted({f"i{k}" for k in rng.choices(range(40), weights, k=rng.randint(10, 24))})
            for _ in range(n)]


def test_no_task_takes_every_transaction_and_the_driver_gets_only_itemsets(client):
    lines = dense_lines() + [["rare"], ["rare", "scarce"]]  # these two go whole
    support = {1: 0.3, 2: 0.15, 4: 0.05}
    frame, stats = quarlo.dask.mine(client, dask_bag.from_sequence(lines, npartitions=3), support,
                                    groups=4, return_stats=True)
    pd.testing.assert_frame_equal(frame, quarlo.mine(lines, support, order="canonical"))
    assert frame["length"].max() >= 5
    counts = {}
    for t in lines:
        for label in set(t):
            counts[label] = counts.get(label, 0) + 1
    lowest = -(-len(lines) * 5 // 100)
    kept = [[label for label in set(t) if counts[label] >= lowest] for t in lines]
    assert (stats["partitions"], stats["transactions"], stats["labels"], stats["lowest_count"]) == \
        (3, len(lines), len(counts), lowest)
    assert stats["kept_labels"] == sum(c >= lowest for c in counts.values())
    # Four bytes a kept item, eight a transaction that keeps one.
    assert stats["bytes"]["reduced"] == sum(4 * len(t) + 8 for t in kept if t)
    # Every group got some transactions, none all of them, and every kept
    # transaction reached at least one group.
    assert len(stats["inputs"]) == len(stats["group_transactions"]) == len(stats["work"]) == 4
    assert all(0 < n < len(lines) for n in stats["group_transactions"])
    assert sum(stats["group_transactions"]) >= sum(1 for t in kept if t)
    assert stats["largest_input"] == max(stats["inputs"]) < stats["bytes"]["shuffled"] == sum(stats["inputs"])
    assert stats["largest_input"] < stats["bytes"]["reduced"] / 2
    # Lengths, items and counts of the itemsets, four bytes each, and nothing more.
    assert stats["bytes"]["mined"] == 4 * (2 * len(frame) + frame["length"].sum())
    assert set(stats["seconds"]) == {"scan", "count", "reduce", "shuffle", "mine", "merge", "total"}
    assert stats["seconds"]["total"] >= sum(v for k, v in stats["seconds"].items() if k != "total")
    assert nothing_left(client)


def test_fp_order_goes_through_one_plan_and_gives_quarlo_mines_rows(client, tmp_path):
    lines = dense_lines(1500)
    for data, support, kw in ((GROCERIES, GROCERIES_TABLE, {"parents": True}),
                              (NUMBERS, {1: 0.05, 3: 0.01}, {"maximal": True}),
                              (lines, {1: 0.3, 2: 0.15, 4: 0.05}, {"parents": True})):
        source = bag(data, 2) if isinstance(data, Path) else dask_bag.from_sequence(data, npartitions=3)
        got, stats = quarlo.dask.mine(client, source, support, order="fp", groups=3, return_stats=True, **kw)
        pd.testing.assert_frame_equal(got, quarlo.mine(data, support, **kw))
        assert stats["largest_input"] == stats["bytes"]["reduced"] > 0  # the plan task took them all
    pieces = split_file(GROCERIES, 2, tmp_path)
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, pieces, 0.2, order="fp"), quarlo.mine(GROCERIES, 0.2))


def test_empty_inputs_single_paths_and_nothing_frequent(client, tmp_path):
    for data, support in (([[], ["-1"]], 0.5), (tokens(GROCERIES), 26), ([["a"]] * 3 + [[]], 1.0)):
        want = quarlo.mine(data, support, parents=True, order="canonical")
        got = quarlo.dask.mine(client, dask_bag.from_sequence(data, npartitions=2), support, parents=True)
        pd.testing.assert_frame_equal(got, want)
    (tmp_path / "empty.txt").write_bytes(b"")
    want = quarlo.mine(GROCERIES, 0.3, order="canonical")
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, [tmp_path / "empty.txt", GROCERIES], 0.3), want)
    literal = tmp_path / "baskets[1].txt"  # a file whose name reads as a pattern
    literal.write_bytes(GROCERIES.read_bytes())
    for path in (literal, str(literal)):
        pd.testing.assert_frame_equal(quarlo.dask.mine(client, path, 0.3), want)


# ---------------------------------------------------------------------------
# Faults


class WorkerKiller(SchedulerPlugin):
    """SIGKILLs, for each (key part, state) in turn, the worker of the first
    task whose key holds the part when it reaches the state: the worker
    running it ("processing") or holding its result ("memory")."""

    def __init__(self, scheduler, events):
        self.scheduler, self.events, self.killed = scheduler, list(events), []

    def transition(self, key, start, finish, *args, **kwargs):
        if not self.events or finish != self.events[0][1] or self.events[0][0] not in str(key):
            return
        task = self.scheduler.tasks[key]
        worker = task.processing_on if finish == "processing" else next(iter(task.who_has), None)
        if worker is not None:
            os.kill(worker.pid, signal.SIGKILL)  # the nanny starts a new worker process
            self.killed.append(self.events.pop(0))


@pytest.mark.parametrize("events", [
    [("('simple-shuffle-", "memory"), ("quarlo-mine-", "processing")],
    [("quarlo-reduce-", "memory"), ("quarlo-mine-", "memory")],
], ids=["shuffle and mining", "reduce and after a group"])
def test_a_worker_killed_on_the_way_leaves_the_result_identical(client, tmp_path, events):
    rng = random.Random(3)
    weights = [1.0 / (k + 1) ** 0.5 for k in range(80)]
    files = []
    for f in range(4):
        files.append(tmp_path / f"part-{f}.txt")
        files[-1].write_text("".join(" ".join(map(str, set(rng.choices(range(80), weights, k=rng.randint(5, 15)))))
                                     + "\n" for _ in range(10000)))
    want = quarlo.dask.mine(client, files, 0.003, groups=4, parents=True)
    assert len(want) > 10000
    killer = WorkerKiller(client.cluster.scheduler, events)
    client.cluster.scheduler.add_plugin(killer, name="worker-killer")
    try:
        got = quarlo.dask.mine(client, files, 0.003, groups=4, parents=True)
    finally:
        client.cluster.scheduler.remove_plugin(name="worker-killer")
    assert killer.killed == events
    pd.testing.assert_frame_equal(got, want)
    client.wait_for_workers(2, timeout=120)  # a nanny that could not restart its worker fails here
    assert nothing_left(client)


def test_a_bad_line_raises_one_error_naming_its_file_or_partition(client, tmp_path):
    files = split_file(GROCERIES, 3, tmp_path)
    lines = files[1].read_text().split("\n")
    lines[2] = "bread -1 milk"
    files[1].write_text("\n".join(lines))
    with pytest.raises(ValueError, match=f"^{re.escape(str(files[1]))}: line 3 holds -1 between two items$"):
        quarlo.dask.mine(client, files, 0.2)
    assert nothing_left(client)
    baskets = tokens(GROCERIES)
    baskets[12] = ["bread", "-1", "milk"]
    with pytest.raises(ValueError, match="^partition 1: transaction 2 holds -1 between two items$"):
        quarlo.dask.mine(client, dask_bag.from_sequence(baskets, partition_size=10), 0.2)
    assert nothing_left(client)


def test_errors_on_workers_reach_the_driver_as_quarlo_mine_raises_them(client, tmp_path):
    missing = tmp_path / "missing.txt"
    with pytest.raises(FileNotFoundError) as e:
        quarlo.dask.mine(client, [GROCERIES, missing], 0.2)
    assert e.value.errno == errno.ENOENT and e.value.filename == str(missing)
    with pytest.raises(FileNotFoundError, match="no file matches"):
        quarlo.dask.mine(client, str(tmp_path / "none-*.txt"), 0.2)
    for data, support in (([["a", "b c"]], 1), ([["a", "-1", "b"]], 1), ([["a"]], tmp_path / "no.supp")):
        with pytest.raises(Exception) as want:
            quarlo.mine(data, support)
        with pytest.raises(type(want.value), match=re.escape(str(want.value))):
            quarlo.dask.mine(client, dask_bag.from_sequence([["x"]] + data, npartitions=2), support)
    with pytest.raises(TypeError, match="partition 0: transaction 0 must be an iterable"):
        quarlo.dask.mine(client, dask_bag.from_sequence(["a b"]), 1)
    for args, kw, error in (((None, [GROCERIES], 1), {}, TypeError),
                            ((client, [["a", "b"]], 1), {}, TypeError),
                            ((client, [], 1), {}, ValueError),
                            ((client, [GROCERIES], 1.5), {}, ValueError),
                            ((client, [GROCERIES], 1), {"groups": 0}, ValueError),
                            ((client, [GROCERIES], 1), {"order": "found"}, ValueError),
                            ((client, [GROCERIES], 1), {"max_len": 0}, ValueError)):
        with pytest.raises(error):
            quarlo.dask.mine(*args, **kw)
    assert nothing_left(client)


def test_importing_quarlo_leaves_dask_alone():
    code = "import sys, quarlo; assert 'dask' not in sys.modules and 'distributed' not in sys.modules"
    subprocess.run([sys.executable, "-c", code], check=True, env={"PYTHONPATH": str(Path(quarlo.__file__).parents[1])})
