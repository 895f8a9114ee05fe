"""quarlo.rules and quarlo.mine(closed=True) against a brute force that counts
every itemset of small random databases: every rule, count and measure must
match exactly under constant, falling and rising supports; against the
general miner fpgrowth on the benchmark data when it is built; and the
documented errors."""

import itertools
import math
import os
import random
import shutil
import subprocess
from fractions import Fraction
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

import quarlo

ROOT = Path(__file__).resolve().parents[2]
SHARED_DATA = Path(os.environ.get("QUARLO_DATA", ROOT.parent / "shared/data"))
FPGROWTH = os.environ.get("QUARLO_FPGROWTH") or shutil.which("fpgrowth")

RULE_COLUMNS = ["antecedents", "consequents", "antecedent support", "consequent support", "support",
                "confidence", "lift", "leverage", "conviction", "zhangs_metric", "count",
                "antecedent count", "consequent count"]


class BruteForce:
    """Every itemset of a small database with its count, and the frequent
    ones under a support table {length: count}, read as quarlo reads one."""

    def __init__(self, transactions, table, max_len=None):
        self.n = len(transactions)
        self.sets = [frozenset(t) for t in transactions]
        items = sorted(set().union(*self.sets))
        self.count = {}
        for k in range(1, len(items) + 1):
            for combo in itertools.combinations(items, k):
                c = sum(1 for t in self.sets if t.issuperset(combo))
                if c:
                    self.count[frozenset(combo)] = c
        lengths = sorted(table)
        self.frequent = {s: c for s, c in self.count.items()
                         if c >= table[max(k for k in lengths if k <= len(s))]
                         and (max_len is None or len(s) <= max_len)}

    def measures(self, x, y):
        """The frame's columns of the rule x -> y, by the documented formulas."""
        n, z, a, c = self.n, self.count[x | y], self.count[x], self.count[y]
        s, sa, sc = z / n, a / n, c / n
        confidence = z / a
        leverage = s - sa * sc
        scale = max(s * (1 - sa), sa * (sc - s))
        return {"antecedent support": sa, "consequent support": sc, "support": s,
                "confidence": confidence, "lift": confidence / sc, "leverage": leverage,
                "conviction": math.inf if z == a else (1 - sc) / (1 - confidence),
                "zhangs_metric": 0.0 if scale == 0 else leverage / scale,
                "count": z, "antecedent count": a, "consequent count": c}

    def rules(self, metric, threshold, max_consequent=None):
        out = {}
        for z in self.frequent:
            for k in range(1, len(z)):
                if max_consequent is not None and k > max_consequent:
                    continue
                for y in map(frozenset, itertools.combinations(sorted(z), k)):
                    x = z - y
                    m = self.measures(x, y)
                    if metric in ("support", "confidence"):
                        # Exactly on the decimal the threshold prints as.
                        part, whole = (m["count"], self.n) if metric == "support" else \
                            (m["count"], m["antecedent count"])
                        ok = Fraction(part, whole) >= Fraction(str(threshold))
                    else:
                        ok = m[metric] >= threshold
                    if ok:
                        out[(x, y)] = m
        return out

    def closed(self):
        return {s: c for s, c in self.frequent.items()
                if not any(s < t and c == d for t, d in self.count.items())}


def random_database(rng, items, transactions):
    labels = [f"i{k}" for k in range(items)]
    weights = [rng.random() for _ in labels]
    return [[x for x, w in zip(labels, weights) if rng.random() < w] or [labels[0]]
            for _ in range(transactions)]


def table_of(rng, shape, n):
    """A support table {length: count} that is constant, falls or rises."""
    if shape == "constant":
        return {1: rng.randint(2, max(2, n // 3))}
    steps = [2] + sorted(rng.sample(range(3, 7), 2))
    counts = [rng.randint(n // 3, n // 2) if shape == "falling" else rng.randint(1, 4)]
    for _ in steps:
        step = rng.randint(1, max(2, n // 6))
        counts.append(max(1, counts[-1] - step) if shape == "falling" else counts[-1] + step)
    return dict(zip([1] + steps, counts))


def rule_dict(frame):
    out = {}
    for r in frame.to_dict("records"):
        key = (r["antecedents"], r["consequents"])
        assert key not in out, f"rule {key} twice"
        out[key] = {k: v for k, v in r.items() if k not in ("antecedents", "consequents")}
    return out


CASES = [(shape, seed) for shape in ("constant", "falling", "rising") for seed in range(6)]


@pytest.mark.parametrize("shape,seed", CASES, ids=[f"{s}-{n}" for s, n in CASES])
def test_rules_and_closed_sets_match_a_brute_force(shape, seed):
    rng = random.Random(seed * 31 + len(shape))
    max_len = rng.choice([None, None, 3])
    for _ in range(50):
        transactions = random_database(rng, rng.randint(5, 8), rng.randint(15, 40))
        table = table_of(rng, shape, len(transactions))
        brute = BruteForce(transactions, table, max_len)
        rules = brute.rules("confidence", 0.0)
        # Under a falling table, the point is sides of rules that are not frequent.
        if rules and (shape != "falling" or any(x not in brute.frequent or y not in brute.frequent
                                                for x, y in rules)):
            break
    else:
        pytest.fail("no table gives the case its point")
    settings = [("confidence", 0.8, None), ("confidence", 0.5, 1), ("confidence", 0.0, None),
                ("confidence", 1.0, 2), ("support", 0.1, None), ("lift", 1.1, None),
                ("leverage", -0.02, 1), ("conviction", 1.2, None), ("zhangs_metric", 0.3, None)]
    for metric, threshold, max_consequent in settings:
        frame = quarlo.rules(transactions, table, metric=metric, min_threshold=threshold,
                             max_len=max_len, max_consequent_len=max_consequent)
        assert list(frame.columns) == RULE_COLUMNS
        assert rule_dict(frame) == brute.rules(metric, threshold, max_consequent), (metric, threshold)
        # Rules of one itemset stand together, smaller consequents first.
        unions = [a | c for a, c in zip(frame["antecedents"], frame["consequents"])]
        firsts = {}
        for i, u in enumerate(unions):
            firsts.setdefault(u, i)
        assert all(unions[i] == u for u, i in firsts.items() for i in range(i, i + unions.count(u)))
        for u in firsts:
            sizes = [len(c) for c, v in zip(frame["consequents"], unions) if v == u]
            assert sizes == sorted(sizes)
    closed = quarlo.mine(transactions, table, max_len=max_len, closed=True)
    got = dict(zip(closed["itemsets"], closed["count"]))
    if shape == "rising":  # a superset of equal support may be too rare to be frequent
        want = {s: c for s, c in brute.frequent.items()
                if not any(s < t and c == d for t, d in brute.frequent.items())}
    else:
        want = {s: c for s, c in brute.closed().items() if max_len is None or len(s) < max_len} | \
            {s: c for s, c in brute.frequent.items() if max_len is not None and len(s) == max_len}
    assert got == want


def test_rules_take_every_form_of_input_and_support():
    baskets = random_database(random.Random(3), 7, 60)
    want = quarlo.rules(baskets, {1: 0.2, 2: 0.1, 3: 0.05}, min_threshold=0.6)
    assert len(want) >= 10
    labels = sorted({x for t in baskets for x in t})
    one_hot = pd.DataFrame([[x in t for x in labels] for t in baskets], columns=labels)
    for transactions in (one_hot, [tuple(t) for t in baskets], (set(t) for t in baskets)):
        pd.testing.assert_frame_equal(quarlo.rules(transactions, {1: 0.2, 2: 0.1, 3: 0.05},
                                                   min_threshold=0.6), want)
    pd.testing.assert_frame_equal(quarlo.rules(baskets, {1: 12, 2: 6, 3: 3}, min_threshold=0.6), want)


def test_confidence_counts_the_missing_sides_in_the_data(tmp_path):
    # "a" alone is in 4 of 10 transactions, below the 5 single items need,
    # so a -> b needs a count that mining never produced.
    path = tmp_path / "t.txt"
    path.write_text("a b\n" * 4 + "b c\n" * 4 + "c\n" * 2)
    frame = quarlo.rules(path, {1: 5, 2: 4}, min_threshold=0.5)
    got = {(tuple(sorted(r["antecedents"])), tuple(sorted(r["consequents"]))):
           (r["count"], r["antecedent count"], r["consequent count"]) for r in frame.to_dict("records")}
    assert got == {(("a",), ("b",)): (4, 4, 8), (("b",), ("a",)): (4, 8, 4),
                   (("b",), ("c",)): (4, 8, 6), (("c",), ("b",)): (4, 6, 8)}
    assert frame.loc[frame["antecedents"] == {"a"}, "conviction"].tolist() == [math.inf]


def test_an_empty_result_keeps_its_columns_and_types():
    frame = quarlo.rules([["a", "b"], ["a"], ["b"]], 1, min_threshold=1.0)
    assert len(frame) == 0 and list(frame.columns) == RULE_COLUMNS
    assert [str(t) for t in frame.dtypes] == ["object"] * 2 + ["float64"] * 8 + ["int64"] * 3


def test_bad_rule_requests_raise_clear_errors():
    baskets = [["a", "b"], ["a", "b", "c"], ["b", "c"]]
    cases = [
        ({"min_threshold": 1.5}, ValueError, "confidence threshold must be from 0 to 1, not 1.5"),
        ({"min_threshold": -0.1}, ValueError, "from 0 to 1"),
        ({"min_threshold": float("nan")}, ValueError, "not nan"),
        ({"metric": "lift", "min_threshold": -1.0}, ValueError, "lift threshold must be from 0 to infinity"),
        ({"metric": "zhangs_metric", "min_threshold": 2}, ValueError, "from -1 to 1"),
        ({"metric": "support", "min_threshold": 1.01}, ValueError, "support threshold"),
        ({"metric": "jaccard"}, ValueError, "unknown metric 'jaccard': give one of support, confidence"),
        ({"metric": 1}, TypeError, "metric must be a str"),
        ({"min_threshold": "0.8"}, TypeError, "min_threshold must be a number"),
        ({"min_threshold": True}, TypeError, "min_threshold must be a number"),
        ({"max_consequent_len": 0}, ValueError, "max_consequent_len"),
        ({"max_len": 1}, ValueError, "two or more items, but the length limit is 1"),
    ]
    for kwargs, error, message in cases:
        with pytest.raises(error, match=message):
            quarlo.rules(baskets, 1, **kwargs)
    with pytest.raises(ValueError, match="leaves no frequent itemset of 2 or more items"):
        quarlo.rules(baskets, {1: 1, 2: 3})
    with pytest.raises(ValueError, match="leaves no frequent itemset"):
        quarlo.rules([], 1)
    with pytest.raises(TypeError, match=r"labels of mixed types \(str and int\) in transaction 1"):
        quarlo.rules([["a", "b"], ["a", 1]], 1)
    with pytest.raises(TypeError, match=r"labels of mixed types \(int and str\) in the DataFrame"):
        quarlo.rules(pd.DataFrame([[True, True]], columns=[1, "1"]), 1)
    assert len(quarlo.rules([[1, 2], [1, 2, 3]], 1)) > 0  # one type, not str, is fine


# ---------------------------------------------------------------------------
# Against fpgrowth on the benchmark data (set QUARLO_FPGROWTH to the program)

def fpgrowth(data, tmp_path, *args):
    out = tmp_path / "fpgrowth.out"
    subprocess.run([FPGROWTH, *args, str(data), str(out)], check=True, capture_output=True)
    return out.read_text().splitlines()


needs_peer = pytest.mark.skipif(not FPGROWTH or not (SHARED_DATA / "retail.dat").is_file(),
                                reason="no fpgrowth (QUARLO_FPGROWTH) or no benchmark data")


@needs_peer
@pytest.mark.parametrize("name,count", [("retail", 20), ("T10I4D100K", 100)])
def test_single_item_consequents_are_fpgrowths_rules(tmp_path, name, count):
    data = SHARED_DATA / f"{name}.dat"
    # -o: a rule's support is that of all its items (X | Y frequent); -m2: X not empty.
    lines = fpgrowth(data, tmp_path, "-tr", "-o", "-m2", "-S101", f"-s-{count}", "-c80", "-v %a %b")
    want = set()
    for line in lines:
        head, body = line.split(" <- ")
        words = body.split()
        want.add((frozenset(words[:-2]), frozenset([head]), int(words[-2]), int(words[-1])))
    frame = quarlo.rules(data, count, min_threshold=0.8, max_consequent_len=1)
    got = set(zip(frame["antecedents"], frame["consequents"], frame["count"], frame["antecedent count"]))
    assert len(got) == len(frame) == len(want) > 10000
    assert got == want


CLOSED_SETTINGS = [("chess", 2000), ("mushroom", 812), ("retail", 20), ("T10I4D100K", 100)]


@needs_peer
@pytest.mark.parametrize("name,count", CLOSED_SETTINGS, ids=[n for n, _ in CLOSED_SETTINGS])
def test_closed_itemsets_are_fpgrowths(tmp_path, name, count):
    lines = fpgrowth(SHARED_DATA / f"{name}.dat", tmp_path, "-tc", "-S101", f"-s-{count}", "-v %a")
    want = {(frozenset(line.split()[:-1]), int(line.split()[-1])) for line in lines}
    frame = quarlo.mine(SHARED_DATA / f"{name}.dat", count, closed=True)
    assert len(frame) == len(want) > 1000
    assert set(zip(frame["itemsets"], frame["count"])) == want
