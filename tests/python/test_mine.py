"""quarlo.mine against the quarlo program: the same itemsets, counts, order,
parents and maximal itemsets as its FILE.fp and FILE.pc, from a file, from
iterables and from a DataFrame; the exact decimal rule of fractions; the
documented exceptions; calls from several threads at once."""

import decimal
import doctest
import errno
import math
import os
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from fractions import Fraction
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

import quarlo

ROOT = Path(__file__).resolve().parents[2]
GROCERIES = ROOT / "examples/groceries.txt"
GROCERIES_TABLE = ROOT / "examples/groceries.supp"
SHARED_DATA = Path(os.environ.get("QUARLO_DATA", ROOT.parent / "shared/data"))


# ---------------------------------------------------------------------------
# The program's files and a frame side by side

def program_rows(fp_text):
    """FILE.fp as (id, count, percent, itemset) per line."""
    rows = []
    for line in fp_text.splitlines():
        ident, count, percent, *items = line.split()
        rows.append((ident, int(count), float(percent), frozenset(items)))
    return rows


def transactions_in(path):
    """Lines of a transaction file that hold an item ("-1" is none)."""
    lines = path.read_bytes().split(b"\n")
    return sum(1 for line in lines if set(line.split()) - {b"-1"})


def frame_ids(frame):
    """The program's id L-N of every row of a frame that was not pruned."""
    seen = {}
    ids = []
    for length in frame["length"]:
        ids.append(f"{length - 1}-{seen.get(length, 0)}")
        seen[length] = seen.get(length, 0) + 1
    return ids


def frame_pc(frame):
    """The parents column written as the program writes FILE.pc."""
    ids = frame_ids(frame)
    order = sorted(range(len(frame)), key=lambda i: -frame["length"][i])
    return "".join(" ".join([ids[i]] + [ids[p] for p in frame["parents"][i]]) + "\n" for i in order)


def assert_frame_is_program_fp(frame, fp_text, ids=True):
    rows = program_rows(fp_text)
    assert [(c, s) for _, c, _, s in rows] == list(zip(frame["count"], frame["itemsets"]))
    assert list(frame["length"]) == [len(s) for _, _, _, s in rows]
    for (_, count, percent, _), support in zip(rows, frame["support"]):
        assert abs(support * 100 - percent) <= 0.0005 + 1e-9
    if ids:
        assert frame_ids(frame) == [ident for ident, _, _, _ in rows]


# Inputs, each with the program's support option and the same support for mine().
PROGRAM_CASES = [
    ("examples/groceries.txt", ["-S", GROCERIES_TABLE], GROCERIES_TABLE),
    ("examples/groceries.txt", ["-s", "0"], 1),
    ("examples/groceries.txt", ["-s", "12"], 0.12),
    ("tests/data/cli/market.txt", ["-S", ROOT / "tests/data/cli/market.supp"],
     {1: 0.6, 2: 0.4}),
    ("tests/data/conversion/labels-noise.txt", ["-s", "2"], 0.02),
    ("tests/data/conversion/numbers-noise.txt", ["-s", "3"], 0.03),
    ("tests/data/pipeline/lattice.txt", ["-S", ROOT / "tests/data/pipeline/lattice.supp"],
     ROOT / "tests/data/pipeline/lattice.supp"),
    ("tests/data/pipeline/gaps.txt", ["-S", ROOT / "tests/data/pipeline/gaps.supp"],
     ROOT / "tests/data/pipeline/gaps.supp"),
]


@pytest.mark.parametrize("data,option,support", PROGRAM_CASES,
                         ids=[f"{c[0]} {c[1][0]}" for c in PROGRAM_CASES])
def test_rows_parents_and_maximal_are_the_programs(run_program, data, option, support):
    data = ROOT / data
    fp, pc = run_program(data, "-p", *option)
    frame = quarlo.mine(data, support, parents=True)
    assert_frame_is_program_fp(frame, fp)
    assert frame_pc(frame) == pc
    assert (frame["support"] == frame["count"] / transactions_in(data)).all()

    fp, _ = run_program(data, "-x", *option)
    assert_frame_is_program_fp(quarlo.mine(data, support, maximal=True), fp, ids=False)

    fp, _ = run_program(data, "-m", "2", "-M", "3", *option)
    assert_frame_is_program_fp(quarlo.mine(data, support, min_len=2, max_len=3), fp)


# ---------------------------------------------------------------------------
# Three forms of the same transactions

def file_tokens(path):
    """The transactions of a file as lists of str tokens, line by line."""
    text = path.read_bytes().decode("utf-8", "surrogateescape")
    return [line.split() for line in text.split("\n")]


def one_hot(transactions, dtype=bool):
    """A DataFrame with a column per label and a row per transaction."""
    labels = sorted({label for t in transactions for label in t}, key=str)
    rows = [[label in set(t) for label in labels] for t in transactions]
    return pd.DataFrame(rows, columns=labels).astype(dtype)


@pytest.mark.parametrize("data,support", [
    ("examples/groceries.txt", GROCERIES_TABLE),
    ("tests/data/conversion/labels-noise.txt", 0.02),
    ("tests/data/pipeline/lattice.txt", {1: 3, 2: 1}),
])
def test_file_iterables_and_dataframes_give_the_same_frame(data, support):
    data = ROOT / data
    want = quarlo.mine(data, support, parents=True)
    assert len(want) > 5
    tokens = file_tokens(data)
    without_breaks = [[x for x in t if x != "-1"] for t in tokens]
    forms = {
        "PathLike": data,
        "str path": str(data),
        "lists of str": tokens,  # "-1" first or last is no item, as in the file
        "generator of tuples": (tuple(t) for t in tokens),
        "sets": [set(t) for t in without_breaks],
        "bool DataFrame": one_hot(without_breaks),
        "0/1 DataFrame": one_hot(without_breaks, np.int64),
        "0.0/1.0 DataFrame": one_hot(without_breaks, np.float32),
        "object DataFrame": one_hot(without_breaks).astype(object),
    }
    for name, transactions in forms.items():
        got = quarlo.mine(transactions, support, parents=True)
        pd.testing.assert_frame_equal(got, want, obj=name)


def test_non_str_labels_and_raw_bytes_read_as_their_text(tmp_path):
    numbers = ROOT / "tests/data/conversion/numbers-noise.txt"
    as_ints = [[int(x) for x in t] for t in file_tokens(numbers)]  # -1 stays reserved as an int
    want = quarlo.mine(numbers, 0.03)
    pd.testing.assert_frame_equal(quarlo.mine(as_ints, 0.03), want)
    frame = one_hot([[x for x in t if x != -1] for t in as_ints])
    assert isinstance(frame.columns[0], (int, np.integer))
    pd.testing.assert_frame_equal(quarlo.mine(frame, 0.03), want)

    # Any hashable stands for the text str() gives it.
    mixed = quarlo.mine([[1.5, ("a",)], [1.5, "1.5"], [("a",)]], 1)
    assert list(mixed["itemsets"]) == [frozenset({"1.5"}), frozenset({"('a',)"}),
                                      frozenset({"('a',)", "1.5"})]
    assert list(mixed["count"]) == [2, 2, 1]

    # Bytes that are no UTF-8 come back as surrogate escapes, and go in again as the same label.
    path = tmp_path / "latin1.txt"
    path.write_bytes(b"caf\xe9 milk\ncaf\xe9\nmilk tea\n")
    from_file = quarlo.mine(path, 2)
    assert frozenset({"caf\udce9"}) in set(from_file["itemsets"])
    pd.testing.assert_frame_equal(quarlo.mine([["caf\udce9", "milk"], ["caf\udce9"], ["milk", "tea"]], 2),
                                  from_file)


# ---------------------------------------------------------------------------
# Supports

def counts_file(path, ntrans, supports):
    """`ntrans` transactions, each with the item "all", where an item named
    "sN" stands in the first N of them for every N in `supports`."""
    lines = [" ".join(["all"] + [f"s{n}" for n in supports if t < n]) for t in range(ntrans)]
    path.write_text("\n".join(lines) + "\n")
    return path


def test_fractions_count_exactly_on_the_decimal_as_written(tmp_path, run_program):
    # The double nearest 0.002 lies above it: its exact product with 20,000 is
    # above 40, and the program's -s 0.2 demands 41. The fraction demands 40.
    assert math.ceil(Fraction(0.002) * 20000) == 41
    data = counts_file(tmp_path / "t.txt", 20000, [39, 40, 41])
    frame = quarlo.mine(data, 0.002, max_len=1)
    assert sorted(frame["count"]) == [40, 41, 20000]
    fp, _ = run_program(data, "-s", "0.2", "-M", "1")
    assert sorted(count for _, count, _, _ in program_rows(fp)) == [41, 20000]
    assert sorted(quarlo.mine(data, 0.00200001, max_len=1)["count"]) == [41, 20000]

    # 100 * 0.07 is 7.000000000000001 in doubles; the fraction demands 7.
    assert math.ceil(100 * 0.07) == 8
    data = counts_file(tmp_path / "u.txt", 100, [6, 7, 8])
    for support in (0.07, np.float64(0.07), decimal.Decimal("0.07"), {1: 0.07}, {1: 0.07, 3: 0.5}):
        assert sorted(quarlo.mine(data, support, max_len=1)["count"])[0] == 7, support
    assert sorted(quarlo.mine(data, 1.0, max_len=1)["count"]) == [100]


def test_tables_paths_counts_and_fractions_agree():
    want = quarlo.mine(GROCERIES, GROCERIES_TABLE, parents=True)  # 1 20, 2 16, 3 12, 4 8 (%)
    assert list(want["length"].value_counts().sort_index()) == [7, 10, 4, 2]
    same = [
        str(GROCERIES_TABLE),
        {1: 0.2, 2: 0.16, 3: 0.12, 4: 0.08},
        {4: 0.08, 1: 0.2, 3: 0.12, 2: 0.16},  # given in any order
        {1: 5, 2: 4, 3: 3, 4: 2},  # of 25 transactions
        {np.int64(1): np.int64(5), 2: 4, 3: 3, 4: 2},
    ]
    for support in same:
        pd.testing.assert_frame_equal(quarlo.mine(GROCERIES, support, parents=True), want,
                                      obj=repr(support))
    # A length holds until the next one given.
    pd.testing.assert_frame_equal(quarlo.mine(GROCERIES, {1: 0.2, 3: 0.12}),
                                  quarlo.mine(GROCERIES, {1: 0.2, 2: 0.2, 3: 0.12}))
    # One value for every length, in each form.
    constant = quarlo.mine(GROCERIES, 5)
    assert constant["count"].min() == 5
    for support in (0.2, np.float32(0.2), decimal.Decimal("0.2"), np.int32(5), {1: 5}, {1: 0.2}):
        pd.testing.assert_frame_equal(quarlo.mine(GROCERIES, support), constant, obj=repr(support))


def test_empty_results_keep_their_columns_and_types():
    want_types = {"itemsets": object, "support": np.float64, "count": np.int64,
                  "length": np.int64, "parents": object}
    cases = [
        (GROCERIES, {"support": 26}),
        (GROCERIES, {"support": 1, "min_len": 20}),
        ([], {"support": 1}),
        ([[], ["-1"]], {"support": 0.5}),
        (pd.DataFrame({"a": [False, False]}), {"support": 1}),
    ]
    for transactions, kwargs in cases:
        frame = quarlo.mine(transactions, parents=True, **kwargs)
        assert len(frame) == 0
        assert dict(frame.dtypes) == want_types, kwargs


# ---------------------------------------------------------------------------
# Errors

def test_bad_arguments_raise_the_documented_exceptions(tmp_path):
    (tmp_path / "ok.txt").write_text("a b\nb c\n")
    (tmp_path / "split.txt").write_text("a b\nb -1 c\n")
    (tmp_path / "zero.supp").write_text("1 5\n0 3\n")
    (tmp_path / "no1.supp").write_text("2 5\n")
    ok = tmp_path / "ok.txt"
    cases = [
        # transactions
        ((5, 1), TypeError, "transactions must be"),
        ((b"a b", 1), TypeError, "transactions must be"),
        (([["a"], "bc"], 1), TypeError, "transaction 1 must be an iterable"),
        (([["a"], 7], 1), TypeError, "transaction 1 must be an iterable"),
        (([["a", ["b"]]], 1), TypeError, "unhashable"),
        (([["a b"]], 1), ValueError, "white space"),
        (([["a", ""]], 1), ValueError, "empty"),
        (([["a", "-1", "b"]], 1), ValueError, "-1 between two items"),
        ((tmp_path / "split.txt", 1), ValueError, "line 2 holds -1"),
        ((pd.DataFrame({"a": [1, 2]}), 1), ValueError, "booleans or 0/1"),
        ((pd.DataFrame({"a": [1.0, np.nan]}), 1), ValueError, "booleans or 0/1"),
        ((pd.DataFrame({"a": ["1", "0"]}), 1), ValueError, "booleans or 0/1"),
        ((pd.DataFrame([[1, 0]], columns=[1, "1"]), 1), ValueError, "differ"),
        ((pd.DataFrame({"a b": [1]}), 1), ValueError, "white space"),
        # support
        ((ok, True), TypeError, "support must be"),
        ((ok, None), TypeError, "support must be"),
        ((ok, Fraction(1, 2)), TypeError, "support must be"),
        ((ok, 0), ValueError, "count must be"),
        ((ok, -3), ValueError, "count must be"),
        ((ok, 2**32), ValueError, "count must be"),
        ((ok, 0.0), ValueError, "fraction must be"),
        ((ok, 1.5), ValueError, "give an int"),
        ((ok, float("nan")), ValueError, "fraction must be"),
        ((ok, {2: 0.5}), ValueError, "length 1"),
        ((ok, {}), ValueError, "length 1"),
        ((ok, {0: 0.5, 1: 0.5}), ValueError, "lengths must be from 1"),
        ((ok, {"1": 0.5}), TypeError, "lengths must be ints"),
        ((ok, {1: 0.5, 2: 1}), ValueError, "all fractions .* or all counts"),
        ((ok, {1: "0.5"}), TypeError, "values must be floats or ints"),
        ((ok, tmp_path / "zero.supp"), ValueError, "Invalid length 0"),
        ((ok, tmp_path / "no1.supp"), ValueError, "length=1 must be given"),
    ]
    for args, error, message in cases:
        with pytest.raises(error, match=message):
            quarlo.mine(*args)
    for kwargs, error in [({"min_len": 0}, ValueError), ({"max_len": 0}, ValueError),
                          ({"min_len": 3, "max_len": 2}, ValueError), ({"min_len": 1.0}, TypeError),
                          ({"threads": 0}, ValueError), ({"threads": "2"}, TypeError),
                          ({"maximal": "yes"}, TypeError), ({"parents": 1}, TypeError)]:
        with pytest.raises(error):
            quarlo.mine(ok, 1, **kwargs)


def test_unreadable_files_raise_os_errors_with_errno_and_name(tmp_path):
    ok = tmp_path / "ok.txt"
    ok.write_text("a b\n")
    absent = tmp_path / "absent.txt"
    for args in [(absent, 1), (ok, absent)]:
        with pytest.raises(FileNotFoundError) as caught:
            quarlo.mine(*args)
        assert caught.value.errno == errno.ENOENT
        assert caught.value.filename == str(absent)
    with pytest.raises(IsADirectoryError) as caught:
        quarlo.mine(tmp_path, 1)
    assert caught.value.errno == errno.EISDIR
    if os.geteuid() != 0:  # root reads any file
        locked = tmp_path / "locked.txt"
        locked.write_text("a\n")
        locked.chmod(0)
        with pytest.raises(PermissionError):
            quarlo.mine(locked, 1)


# ---------------------------------------------------------------------------
# Threads

CONCURRENT_JOBS = [
    (GROCERIES, GROCERIES_TABLE, {"parents": True}),
    (GROCERIES, 0.08, {"maximal": True, "threads": 2}),
    (ROOT / "tests/data/conversion/labels-noise.txt", 0.02, {}),
    (ROOT / "tests/data/conversion/numbers-noise.txt", {1: 0.05, 3: 0.01}, {"threads": 3}),
    (file_tokens(ROOT / "tests/data/conversion/labels-noise.txt"), 5, {"parents": True}),
]


def test_calls_from_several_threads_at_once_give_the_serial_frames():
    want = [quarlo.mine(t, s, **kw) for t, s, kw in CONCURRENT_JOBS]
    jobs = CONCURRENT_JOBS * 8
    with ThreadPoolExecutor(max_workers=8) as pool:
        got = list(pool.map(lambda job: quarlo.mine(job[0], job[1], **job[2]), jobs))
    for i, frame in enumerate(got):
        pd.testing.assert_frame_equal(frame, want[i % len(want)])


def test_the_gil_is_free_while_mining(tmp_path):
    # Dense transactions that take a while to mine and give no itemset of 16
    # items: while the call mines, this thread must keep running.
    import random
    rng = random.Random(7)
    data = tmp_path / "dense.txt"
    data.write_text("".join(" ".join(map(str, rng.sample(range(40), 28))) + "\n" for _ in range(1000)))
    done = threading.Event()
    worker = threading.Thread(target=lambda: (quarlo.mine(data, 0.1, min_len=16), done.set()))
    start = time.perf_counter()
    worker.start()
    last, longest = start, 0.0
    while not done.is_set():
        now = time.perf_counter()
        longest, last = max(longest, now - last), now
    worker.join()
    took = time.perf_counter() - start
    assert longest < took / 2, f"this thread stood still {longest:.3f} s of {took:.3f} s"


def test_dask_workers_mine_side_by_side():
    distributed = pytest.importorskip("distributed")
    want = [quarlo.mine(t, s, **kw) for t, s, kw in CONCURRENT_JOBS]
    with distributed.Client(processes=False, n_workers=1, threads_per_worker=4,
                            dashboard_address=None) as client:
        futures = [client.submit(quarlo.mine, t, s, pure=False, **kw) for t, s, kw in CONCURRENT_JOBS]
        got = client.gather(futures)
    for frame, expected in zip(got, want):
        pd.testing.assert_frame_equal(frame, expected)


# ---------------------------------------------------------------------------
# Documentation

def test_help_shows_the_arguments_columns_and_a_working_example():
    text = quarlo.mine.__doc__
    for word in ("transactions", "support", "min_len", "max_len", "maximal", "parents", "threads",
                 "itemsets", "count", "length", "FileNotFoundError", "MemoryError", ">>> "):
        assert word in text
    result = doctest.testmod(quarlo, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert result.attempted > 0 and result.failed == 0
