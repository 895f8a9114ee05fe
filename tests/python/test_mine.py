"""quarlo.mine against the quarlo program: the same itemsets, counts, order,
parents and maximal itemsets as its FILE.fp and FILE.pc, from a file, from
iterables and from a DataFrame; the exact decimal rule of fractions; the
documented exceptions; calls from several threads at once."""

import decimal
import doctest
import errno
import math
import os
import random
import re
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from fractions import Fraction
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

import quarlo

ROOT = Path(__file__).resolve().parents[2]
GROCERIES, GROCERIES_TABLE = ROOT / "examples/groceries.txt", ROOT / "examples/groceries.supp"
LABELS = ROOT / "tests/data/conversion/labels-noise.txt"
NUMBERS = ROOT / "tests/data/conversion/numbers-noise.txt"
SHARED_DATA = Path(os.environ.get("QUARLO_DATA", ROOT.parent / "shared/data"))


def tokens(path):
    """The lines of a transaction file as lists of str."""
    return [line.split() for line in path.read_bytes().decode("utf-8", "surrogateescape").split("\n")]


def frame_ids(frame):
    """The program's id L-N of each row (N counts the rows of its length)."""
    seen, ids = Counter(), []
    for n in frame["length"]:
        ids.append(f"{n - 1}-{seen[n]}")
        seen[n] += 1
    return ids


def assert_frame_is_program_fp(frame, fp, ids=True, ntrans=None):
    rows = [line.split() for line in fp.splitlines()]
    assert list(zip(frame["count"], frame["itemsets"], frame["length"])) == \
        [(int(r[1]), frozenset(r[3:]), len(r) - 3) for r in rows]
    assert np.allclose(frame["support"] * 100, [float(r[2]) for r in rows], rtol=0, atol=0.0005)
    if ntrans:
        assert (frame["support"] == frame["count"] / ntrans).all()
    if ids:
        assert frame_ids(frame) == [r[0] for r in rows]


def frame_pc(frame):
    """The parents column written as the program writes FILE.pc."""
    ids = frame_ids(frame)
    order = sorted(range(len(frame)), key=lambda i: -frame["length"][i])
    return "".join(" ".join([ids[i]] + [ids[p] for p in frame["parents"][i]]) + "\n" for i in order)


# An input, the program's support option and the same support for mine().
PROGRAM_CASES = [
    (GROCERIES, ["-S", GROCERIES_TABLE], GROCERIES_TABLE),
    (GROCERIES, ["-s", "0"], 1),
    (GROCERIES, ["-s", "12"], 0.12),
    (ROOT / "tests/data/cli/market.txt", ["-S", ROOT / "tests/data/cli/market.supp"], {1: 0.6, 2: 0.4}),
    (LABELS, ["-s", "2"], 0.02),
    (NUMBERS, ["-s", "3"], 0.03),
    (ROOT / "tests/data/pipeline/gaps.txt", ["-S", ROOT / "tests/data/pipeline/gaps.supp"],
     ROOT / "tests/data/pipeline/gaps.supp"),
]


@pytest.mark.parametrize("data,option,support", PROGRAM_CASES,
                         ids=[f"{c[0].name} {c[1][0]}" for c in PROGRAM_CASES])
def test_rows_parents_and_maximal_are_the_programs(run_program, data, option, support):
    ntrans = sum(1 for t in tokens(data) if set(t) - {"-1"})
    fp, pc = run_program(data, "-p", *option)
    frame = quarlo.mine(data, support, parents=True)
    assert_frame_is_program_fp(frame, fp, ntrans=ntrans)
    assert frame_pc(frame) == pc
    fp, _ = run_program(data, "-x", *option)
    assert_frame_is_program_fp(quarlo.mine(data, support, maximal=True), fp, ids=False)
    fp, _ = run_program(data, "-m", "2", "-M", "3", *option)
    assert_frame_is_program_fp(quarlo.mine(data, support, min_len=2, max_len=3), fp)


def label_key(label):
    """The program's order of labels: numbers by value first, then text byte by byte."""
    if re.fullmatch("0|[1-9][0-9]*", label) and int(label) <= 4294967295:
        return 0, int(label), b""
    return 1, 0, label.encode("utf-8", "surrogateescape")


@pytest.mark.parametrize("data,support", [(GROCERIES, GROCERIES_TABLE), (LABELS, 0.02), (NUMBERS, {1: 0.05, 3: 0.01})])
def test_canonical_order_sorts_rows_by_length_then_items_and_keeps_parents(data, support):
    for kw in ({"parents": True}, {"maximal": True, "parents": True}, {"min_len": 2, "max_len": 3, "parents": True}):
        found = quarlo.mine(data, support, **kw)
        canonical = quarlo.mine(data, support, order="canonical", **kw)
        order = sorted(range(len(found)), key=lambda i: (found["length"][i], sorted(map(label_key, found["itemsets"][i]))))
        assert list(canonical["itemsets"]) == [found["itemsets"][i] for i in order]
        assert list(canonical["count"]) == [found["count"][i] for i in order]
        assert list(canonical["support"]) == [found["support"][i] for i in order]
        for row, i in enumerate(order):
            assert canonical["parents"][row] == sorted(canonical["parents"][row])
            assert {canonical["itemsets"][p] for p in canonical["parents"][row]} == \
                {found["itemsets"][p] for p in found["parents"][i]}
    with pytest.raises(ValueError, match='"fp" or "canonical"'):
        quarlo.mine(data, support, order="sorted")


def one_hot(transactions, dtype=bool):
    labels = sorted({x for t in transactions for x in t}, key=str)
    return pd.DataFrame([[x in t for x in labels] for t in transactions], columns=labels).astype(dtype)


@pytest.mark.parametrize("data,support", [(GROCERIES, GROCERIES_TABLE), (LABELS, 0.02), (NUMBERS, 5)])
def test_file_iterables_and_dataframes_give_the_same_frame(data, support):
    want = quarlo.mine(data, support, parents=True)
    assert len(want) > 20
    lists = tokens(data)
    if data == NUMBERS:
        lists = [[int(x) for x in t] for t in lists]  # str(-1) is still the reserved "-1"
    items = [[x for x in t if x not in ("-1", -1)] for t in lists]
    forms = {"str path": str(data), "lists": lists, "generator of tuples": (tuple(t) for t in lists),
             "sets": [set(t) for t in items], "bool DataFrame": one_hot(items),
             "0/1 DataFrame": one_hot(items, np.int64), "0.0/1.0 DataFrame": one_hot(items, np.float32),
             "object DataFrame": one_hot(items).astype(object)}
    for name, transactions in forms.items():
        pd.testing.assert_frame_equal(quarlo.mine(transactions, support, parents=True), want, obj=name)


def test_labels_of_any_bytes_and_any_hashable_read_as_their_text(tmp_path):
    path = tmp_path / "latin1.txt"
    path.write_bytes(b"caf\xe9 1.5\ncaf\xe9\n1.5 tea\n")
    from_file = quarlo.mine(path, 1)
    assert frozenset({"caf\udce9", "1.5"}) in set(from_file["itemsets"])
    pd.testing.assert_frame_equal(quarlo.mine([["caf\udce9", 1.5], ["caf\udce9"], [1.5, "tea"]], 1), from_file)


# ---------------------------------------------------------------------------
# Supports

def counts_file(path, ntrans, supports):
    """`ntrans` transactions holding "all", and "sN" in the first N of them."""
    path.write_text("".join(" ".join(["all"] + [f"s{n}" for n in supports if t < n]) + "\n"
                            for t in range(ntrans)))
    return path


def test_fractions_count_exactly_on_the_decimal_as_written(tmp_path, run_program):
    # The double nearest 0.002 lies above it, so its exact product with 20,000
    # is above 40, and the program's -s 0.2 demands 41. The fraction demands 40.
    assert math.ceil(Fraction(0.002) * 20000) == 41
    data = counts_file(tmp_path / "t.txt", 20000, [39, 40, 41])
    assert sorted(quarlo.mine(data, 0.002, max_len=1)["count"]) == [40, 41, 20000]
    fp, _ = run_program(data, "-s", "0.2", "-M", "1")
    assert sorted(int(line.split()[1]) for line in fp.splitlines()) == [41, 20000]
    assert sorted(quarlo.mine(data, 0.00200001, max_len=1)["count"]) == [41, 20000]
    # 100 * 0.07 is 7.000000000000001 in doubles; the fraction demands 7.
    assert math.ceil(100 * 0.07) == 8
    data = counts_file(tmp_path / "u.txt", 100, [6, 7, 8])
    for support in (0.07, np.float64(0.07), decimal.Decimal("0.07"), {1: 0.07, 3: 0.5}):
        assert min(quarlo.mine(data, support, max_len=1)["count"]) == 7, support
    assert list(quarlo.mine(data, 1.0)["count"]) == [100]


def test_tables_paths_counts_and_fractions_agree():
    want = quarlo.mine(GROCERIES, GROCERIES_TABLE, parents=True)  # 20, 16, 12, 8 % of 25
    assert list(want["length"].value_counts().sort_index()) == [7, 10, 4, 2]
    for support in [str(GROCERIES_TABLE), {1: 0.2, 2: 0.16, 3: 0.12, 4: 0.08},
                    {4: 0.08, 1: 0.2, 3: 0.12, 2: 0.16}, {np.int64(1): np.int64(5), 2: 4, 3: 3, 4: 2}]:
        pd.testing.assert_frame_equal(quarlo.mine(GROCERIES, support, parents=True), want, obj=repr(support))
    pd.testing.assert_frame_equal(quarlo.mine(GROCERIES, {1: 0.2, 3: 0.12}),  # a length holds until the next
                                  quarlo.mine(GROCERIES, {1: 0.2, 2: 0.2, 3: 0.12}))
    constant = quarlo.mine(GROCERIES, 5)
    for support in (0.2, np.float32(0.2), decimal.Decimal("0.2"), np.int32(5), {1: 5}, {1: 0.2}):
        pd.testing.assert_frame_equal(quarlo.mine(GROCERIES, support), constant, obj=repr(support))


def test_empty_results_keep_their_columns_and_types():
    types = {"itemsets": object, "support": np.float64, "count": np.int64, "length": np.int64, "parents": object}
    for transactions, support, min_len in [(GROCERIES, 26, 1), (GROCERIES, 1, 20), ([], 1, 1),
                                           ([[], ["-1"]], 0.5, 1), (pd.DataFrame({"a": [False]}), 1, 1)]:
        frame = quarlo.mine(transactions, support, min_len=min_len, parents=True)
        assert len(frame) == 0 and dict(frame.dtypes) == types


# ---------------------------------------------------------------------------
# Errors

def test_bad_arguments_raise_the_documented_exceptions(tmp_path):
    ok, split, zero = tmp_path / "ok.txt", tmp_path / "split.txt", tmp_path / "zero.supp"
    ok.write_text("a b\nb c\n")
    split.write_text("a b\nb -1 c\n")
    zero.write_text("1 5\n0 3\n")
    cases = [
        ((5, 1), TypeError, "transactions must be"), ((b"a b", 1), TypeError, "transactions must be"),
        ((np.ones((2, 2), bool), 1), TypeError, "give a DataFrame"),
        (([["a"], "bc"], 1), TypeError, "transaction 1 must be an iterable"),
        (([["a", ["b"]]], 1), TypeError, "unhashable"),
        (([["a b"]], 1), ValueError, "white space"), (([["a", ""]], 1), ValueError, "empty"),
        (([["a", "-1", "b"]], 1), ValueError, "-1 between two items"),
        ((split, 1), ValueError, "line 2 holds -1"),
        ((pd.DataFrame({"a": [1, 2]}), 1), ValueError, "booleans or 0/1"),
        ((pd.DataFrame({"a": [1.0, np.nan]}), 1), ValueError, "booleans or 0/1"),
        ((pd.DataFrame({"a": ["1", "0"]}), 1), ValueError, "booleans or 0/1"),
        ((pd.DataFrame([[1, 0]], columns=[1, "1"]), 1), ValueError, "differ"),
        ((ok, True), TypeError, "support must be"), ((ok, Fraction(1, 2)), TypeError, "support must be"),
        ((ok, 0), ValueError, "count must be"), ((ok, 2**32), ValueError, "count must be"),
        ((ok, 0.0), ValueError, "fraction must be"), ((ok, 1.5), ValueError, "give an int"),
        ((ok, float("nan")), ValueError, "fraction must be"),
        ((ok, {2: 0.5}), ValueError, "length 1"), ((ok, {"1": 0.5}), TypeError, "lengths must be ints"),
        ((ok, {1: 0.5, 2: 1}), ValueError, "all fractions .* or all counts"),
        ((ok, {1: "0.5"}), TypeError, "values must be floats or ints"),
        ((ok, zero), ValueError, "Invalid length 0"),
    ]
    for args, error, message in cases:
        with pytest.raises(error, match=message):
            quarlo.mine(*args)
    for kwargs, error in [({"min_len": 0}, ValueError), ({"min_len": 3, "max_len": 2}, ValueError),
                          ({"min_len": 1.0}, TypeError), ({"threads": 0}, ValueError),
                          ({"maximal": "yes"}, TypeError), ({"parents": 1}, TypeError)]:
        with pytest.raises(error):
            quarlo.mine(ok, 1, **kwargs)


def test_unreadable_files_raise_os_errors_with_errno_and_name(tmp_path):
    ok, absent = tmp_path / "ok.txt", tmp_path / "absent"
    ok.write_text("a b\n")
    for args in [(absent, 1), (ok, absent)]:
        with pytest.raises(FileNotFoundError) as caught:
            quarlo.mine(*args)
        assert (caught.value.errno, caught.value.filename) == (errno.ENOENT, str(absent))
    with pytest.raises(IsADirectoryError):
        quarlo.mine(tmp_path, 1)


# ---------------------------------------------------------------------------
# Threads

JOBS = [(GROCERIES, GROCERIES_TABLE, {"parents": True}), (GROCERIES, 0.08, {"maximal": True, "threads": 2}),
        (LABELS, 0.02, {}), (NUMBERS, {1: 0.05, 3: 0.01}, {"threads": 3}), (tokens(LABELS), 5, {"parents": True})]


def test_calls_from_a_thread_pool_and_dask_workers_give_the_serial_frames():
    want = [quarlo.mine(t, s, **kw) for t, s, kw in JOBS]
    with ThreadPoolExecutor(max_workers=8) as pool:
        got = list(pool.map(lambda job: quarlo.mine(job[0], job[1], **job[2]), JOBS * 8))
    distributed = pytest.importorskip("distributed")
    with distributed.Client(processes=False, threads_per_worker=4, n_workers=1, dashboard_address=None) as dask:
        got += dask.gather([dask.submit(quarlo.mine, t, s, pure=False, **kw) for t, s, kw in JOBS])
    for i, frame in enumerate(got):
        pd.testing.assert_frame_equal(frame, want[i % len(want)])


def test_another_thread_runs_while_one_mines(tmp_path):
    # Dense transactions that take a while to mine and hold no itemset of 16 items.
    rng = random.Random(7)
    data = tmp_path / "dense.txt"
    data.write_text("".join(" ".join(map(str, rng.sample(range(40), 28))) + "\n" for _ in range(1000)))
    done = threading.Event()
    worker = threading.Thread(target=lambda: (quarlo.mine(data, 0.1, min_len=16), done.set()))
    start = last = time.perf_counter()
    longest = 0.0
    worker.start()
    while not done.is_set():
        now = time.perf_counter()
        longest, last = max(longest, now - last), now
    worker.join()
    took = time.perf_counter() - start
    assert longest < took / 2, f"this thread stood still {longest:.3f} s of {took:.3f} s"


def test_help_example_runs():
    assert doctest.testmod(quarlo).failed == 0 and ">>> " in quarlo.mine.__doc__


# ---------------------------------------------------------------------------
# The benchmark data sets (about 20 s; skipped where they are absent)

# chess and mushroom give a million patterns and more under their tables: the
# dense sets are checked up to a length (patterns of length 6 still run to
# tens of thousands; maximality is then judged among the patterns kept).
DATASET_RUNS = [(name, args) for name in ("chess", "mushroom") for args in (["-x", "-M", "6"], ["-p", "-M", "4"])] + \
               [(name, args) for name in ("retail", "T10I4D100K") for args in (["-x"], ["-p"])]


@pytest.mark.skipif(not (SHARED_DATA / "chess.dat").is_file(), reason="no benchmark data beside the tree")
@pytest.mark.parametrize("name,args", DATASET_RUNS, ids=[f"{n} {' '.join(a)}" for n, a in DATASET_RUNS])
def test_benchmark_data_sets_give_the_programs_files(run_program, name, args):
    data, table = SHARED_DATA / f"{name}.dat", ROOT / f"bench/tables/{name}.supp"
    fp, pc = run_program(data, "-S", table, *args)
    frame = quarlo.mine(data, table, maximal="-x" in args, parents="-p" in args,
                        max_len=int(args[args.index("-M") + 1]) if "-M" in args else None)
    assert len(frame) > 400
    assert_frame_is_program_fp(frame, fp, ids="-x" not in args)
    if "-p" in args:
        assert frame_pc(frame) == pc
