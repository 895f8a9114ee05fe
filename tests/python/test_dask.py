"""quarlo.dask.mine on a local cluster of two worker processes gives
quarlo.mine's frame over the same transactions, row for row: from bags of
several partitions and from files split in pieces, with constant, falling and
rising supports, maximal itemsets, parents and any number of groups."""

import errno
import random
import re
import subprocess
import sys
from pathlib import Path

import pandas as pd
import pytest

import quarlo

distributed = pytest.importorskip("distributed")
dask_bag = pytest.importorskip("dask.bag")
import quarlo.dask  # noqa: E402  (needs dask, checked above)

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


# An input, a support and mine()'s other arguments.
CASES = [
    (GROCERIES, GROCERIES_TABLE, {"parents": True}),
    (GROCERIES, GROCERIES_TABLE, {"maximal": True, "parents": True}),
    (GROCERIES, 0.2, {"maximal": True}),
    (GROCERIES, 1, {"min_len": 2, "max_len": 3}),
    (GROCERIES, {1: 0.12, 3: 0.2}, {"parents": True}),  # rises with the length
    (MARKET, {1: 0.6, 2: 0.4}, {"parents": True}),
    (LABELS, 0.02, {"parents": True}),
    (NUMBERS, {1: 0.05, 3: 0.01}, {"maximal": True}),
    (GAPS, GAPS_TABLE, {"maximal": True, "parents": True}),
]
IDS = [f"{c[0].stem} {c[1].name if isinstance(c[1], Path) else c[1]} {sorted(c[2])}" for c in CASES]


@pytest.mark.parametrize("data,support,kw", CASES, ids=IDS)
def test_bags_and_split_files_give_one_runs_frame(client, tmp_path, data, support, kw):
    want = quarlo.mine(data, support, **kw)
    assert len(want) > 0
    items = len({label for t in tokens(data) for label in t} - {"-1"})
    for npartitions, groups in ((3, 1), (2, 2), (4, items + 3), (1, None)):
        got = quarlo.dask.mine(client, bag(data, npartitions), support, groups=groups, **kw)
        pd.testing.assert_frame_equal(got, want)
    pieces = split_file(data, 3, tmp_path)
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, pieces, support, groups=3, **kw), want)
    glob = str(tmp_path / f"{data.stem}-*.txt")
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, glob, support, **kw), want)


def test_dense_random_database_branches_and_merges_back(client, tmp_path):
    # 40 items of skewed frequency in transactions of 10-24: deep, bushy trees.
    rng = random.Random(11)
    weights = [1.0 / (k + 1) for k in range(40)]
    lines = [sorted({f"i{k}" for k in rng.choices(range(40), weights, k=rng.randint(10, 24))})
             for _ in range(3000)]
    data = tmp_path / "dense.txt"
    data.write_text("".join(" ".join(t) + "\n" for t in lines))
    for support, kw in (({1: 0.3, 2: 0.15, 4: 0.05}, {"parents": True}),
                        ({1: 0.3, 2: 0.15, 4: 0.05}, {"maximal": True}),
                        (0.1, {"min_len": 3})):
        want = quarlo.mine(lines, support, **kw)
        assert want["length"].max() >= 5
        for groups in (1, 7):
            got, stats = quarlo.dask.mine(client, dask_bag.from_sequence(lines, npartitions=5),
                                          support, groups=groups, return_stats=True, **kw)
            pd.testing.assert_frame_equal(got, want)
            assert sum(w > 0 for w in stats["work"]) > (groups > 1)
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, split_file(data, 2, tmp_path), 0.1, min_len=3),
                                  quarlo.mine(data, 0.1, min_len=3))


def test_stats_count_what_the_phases_move(client):
    lines = tokens(GROCERIES) + [["rare"], ["rare", "scarce"]]  # these two go whole
    frame, stats = quarlo.dask.mine(client, dask_bag.from_sequence(lines, npartitions=3), 0.2,
                                    return_stats=True)
    counts = {}
    for t in lines:
        for label in set(t):
            counts[label] = counts.get(label, 0) + 1
    ntrans = sum(1 for t in lines if t)
    lowest = -(-ntrans * 2 // 10)
    kept = [[label for label in set(t) if counts[label] >= lowest] for t in lines]
    assert (stats["partitions"], stats["transactions"], stats["labels"], stats["lowest_count"]) == \
        (3, ntrans, len(counts), lowest)
    assert stats["kept_labels"] == sum(c >= lowest for c in counts.values())
    # Four bytes a kept item, eight a transaction that keeps one.
    assert stats["bytes"]["reduced"] == sum(4 * len(t) + 8 for t in kept if t)
    assert stats["groups"] == len(stats["work"]) == len(stats["part_seconds"]) == 4  # 2 x 2 threads
    assert stats["bytes"]["parts"] > 0 and stats["bytes"]["mined"] > 0
    assert set(stats["seconds"]) == {"scan", "count", "reduce", "plan", "mine", "merge", "total"}
    assert stats["seconds"]["total"] >= sum(v for k, v in stats["seconds"].items() if k != "total")
    pd.testing.assert_frame_equal(frame, quarlo.mine(lines, 0.2))


def test_empty_inputs_single_paths_and_nothing_frequent(client, tmp_path):
    for data, support in (([[], ["-1"]], 0.5), (tokens(GROCERIES), 26), ([["a"]] * 3 + [[]], 1.0)):
        want = quarlo.mine(data, support, parents=True)
        got = quarlo.dask.mine(client, dask_bag.from_sequence(data, npartitions=2), support, parents=True)
        pd.testing.assert_frame_equal(got, want)
    (tmp_path / "empty.txt").write_bytes(b"")
    want = quarlo.mine(GROCERIES, 0.3)
    pd.testing.assert_frame_equal(quarlo.dask.mine(client, [tmp_path / "empty.txt", GROCERIES], 0.3), want)
    literal = tmp_path / "baskets[1].txt"  # a file whose name reads as a pattern
    literal.write_bytes(GROCERIES.read_bytes())
    for path in (literal, str(literal)):
        pd.testing.assert_frame_equal(quarlo.dask.mine(client, path, 0.3), want)


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
    with pytest.raises(TypeError, match="transaction 0 must be an iterable"):
        quarlo.dask.mine(client, dask_bag.from_sequence(["a b"]), 1)
    for args, kw, error in (((None, [GROCERIES], 1), {}, TypeError),
                            ((client, [["a", "b"]], 1), {}, TypeError),
                            ((client, [], 1), {}, ValueError),
                            ((client, [GROCERIES], 1.5), {}, ValueError),
                            ((client, [GROCERIES], 1), {"groups": 0}, ValueError),
                            ((client, [GROCERIES], 1), {"max_len": 0}, ValueError)):
        with pytest.raises(error):
            quarlo.dask.mine(*args, **kw)


def test_importing_quarlo_leaves_dask_alone():
    code = "import sys, quarlo; assert 'dask' not in sys.modules and 'distributed' not in sys.modules"
    subprocess.run([sys.executable, "-c", code], check=True, env={"PYTHONPATH": str(Path(quarlo.__file__).parents[1])})
