"""Frequent itemsets under a length-decreasing minimum support, as pandas DataFrames.

quarlo finds every itemset whose support reaches the minimum support of its
own length; the minimum may fall as itemsets grow, so long itemsets count as
frequent at a lower support than short ones. ``quarlo.mine`` runs the same
engine as the ``quarlo`` program and returns its FILE.fp as a DataFrame;
``quarlo.rules`` returns the association rules of those itemsets, with
mlxtend's columns and exact supports for every side of every rule.
"""

from __future__ import annotations

import decimal
import numbers
import os
from collections.abc import Hashable, Iterable, Mapping
from typing import NamedTuple, Union

import numpy as np
import pandas as pd

from . import _quarlo

__all__ = ["mine", "rules", "METRICS", "__version__"]
__version__: str = _quarlo.version()

_MAX_U32 = 4294967295

Label = Hashable
Transactions = Union[str, "os.PathLike[str]", Iterable[Iterable[Label]], pd.DataFrame]
SupportValue = Union[float, int]
Support = Union[SupportValue, Mapping[int, SupportValue], str, "os.PathLike[str]"]


def mine(
    transactions: Transactions,
    support: Support,
    *,
    min_len: int = 1,
    max_len: int | None = None,
    maximal: bool = False,
    parents: bool = False,
    threads: int = 1,
    closed: bool = False,
    order: str = "fp",
) -> pd.DataFrame:
    """Return the frequent itemsets of ``transactions`` as a DataFrame.

    Parameters
    ----------
    transactions
        One of:

        * a path (str or os.PathLike) to a file in the quarlo program's
          format: one transaction a line, labels separated by white space;
        * an iterable of transactions, each an iterable of labels. A label
          is a str, an int, or any hashable whose str() is the label; it
          must be non-empty and hold no white space. "-1" is reserved as in
          files: it is ignored first or last in a transaction;
        * a pandas DataFrame of booleans or 0/1 values (sparse columns too),
          one column per item (the label is str(column name)) and one row
          per transaction; a true cell puts the item in the transaction.

        Transactions without items do not count, as empty lines of a file.
        Labels read from a file that are not UTF-8 come back with their
        bytes as surrogate escapes and read the same when given back.
    support
        The minimum support, one of:

        * a float in (0, 1]: a fraction of the transactions, for every
          length. Its count is ceil(n * fraction), computed exactly on the
          decimal the float prints as (0.002 of 20,000 transactions is 40);
        * an int >= 1: an absolute count of transactions, for every length;
        * a mapping {length: value}: a support table. Length 1 must be
          given; a length's value holds for the longer lengths up to the
          next one given. The values are all fractions or all counts;
        * a path (str or os.PathLike) to a support-table file as the
          program's -S reads it: lines "LEN PERCENT". Percentages follow the
          program's rule, which can demand one transaction more than the
          fraction rule for the same value (0.2 % of 20,000 demands 41).
    min_len, max_len
        Report only itemsets of at least ``min_len`` and at most ``max_len``
        items (default: all lengths).
    maximal
        Keep only the maximal itemsets: those that are no frequent itemset's
        parent (the program's -x).
    parents
        Add the column ``parents``.
    closed
        Keep only the closed itemsets: those that no frequent itemset one
        item longer holds with the same support. Under a support that never
        rises with the length, a superset of equal support is frequent
        whenever the itemset is, so these are the itemsets with no proper
        superset of the same support at all (within ``max_len``); under a
        table that only rises, those with no frequent such superset. With
        ``maximal`` as well, both tests apply; with ``parents``, parents that
        were dropped are left out.
    threads
        Threads that mine; the result is the same for any number. The GIL
        is released while mining, so calls from several Python threads run
        at the same time.
    order
        The order of the rows: ``"fp"`` (the default), the program's FILE.fp
        order, by length and then in the order the search finds them; or
        ``"canonical"``, by length and then by the items compared one after
        the other in the program's order of labels (numbers by value first,
        then text labels byte by byte), each row's parents listed by row
        position. The canonical order does not depend on how a run is split,
        so ``quarlo.dask.mine`` gives the same frame.

    Returns
    -------
    pandas.DataFrame
        One row per itemset, in the order chosen by ``order``, with the
        columns

        * ``itemsets``: frozenset of the labels (str);
        * ``support``: the fraction of the transactions that hold it (float);
        * ``count``: the number of transactions that hold it (int);
        * ``length``: its number of items (int);
        * ``parents`` (with ``parents=True``): the list of the row positions
          of its parents, the frequent itemsets reached by dropping items
          through itemsets that are not frequent (in the order of FILE.pc).

        With no frequent itemset the frame is empty, with the same columns
        and types.

    Raises
    ------
    TypeError
        An argument of a type not listed above.
    ValueError
        A value out of range, a bad label, a cell other than 0/1, a bad
        support table, or -1 between two items.
    FileNotFoundError, OSError
        A file that cannot be read (with its errno and file name).
    MemoryError
        Memory ran short while mining.

    Examples
    --------
    >>> import quarlo
    >>> baskets = [["bread", "milk"], ["bread", "butter"],
    ...            ["bread", "milk", "butter"], ["milk"]]
    >>> frame = quarlo.mine(baskets, {1: 0.5, 2: 0.25}, parents=True)
    >>> for row in frame.itertuples():
    ...     print(sorted(row.itemsets), row.support, row.count, row.parents)
    ['butter'] 0.5 2 []
    ['milk'] 0.75 3 []
    ['bread'] 0.75 3 []
    ['bread', 'butter'] 0.5 2 [0, 2]
    ['butter', 'milk'] 0.25 1 [1, 0]
    ['bread', 'milk'] 0.5 2 [1, 2]
    ['bread', 'butter', 'milk'] 0.25 1 [4, 5, 3]
    >>> quarlo.mine(baskets, 2, min_len=2, maximal=True)["itemsets"].map(sorted).tolist()
    [['bread', 'butter'], ['bread', 'milk']]
    >>> quarlo.mine(baskets, 1, closed=True)["itemsets"].map(sorted).tolist()
    [['milk'], ['bread'], ['bread', 'butter'], ['bread', 'milk'], ['bread', 'butter', 'milk']]
    """
    source_kind, source = _source(transactions)
    o = _options(support, min_len, max_len, maximal, parents, threads, closed)
    columns = _quarlo.mine(source_kind, source, o.support_kind, o.support, o.min_len, o.max_len,
                           o.maximal, o.parents, o.threads, o.closed, _order(order))
    return _frame(columns)


def _order(order) -> bool:
    """Whether ``order`` asks for the canonical order."""
    if not isinstance(order, str):
        raise TypeError(f"order must be a str, not {type(order).__name__}")
    if order not in ("fp", "canonical"):
        raise ValueError(f'order must be "fp" or "canonical", not {order!r}')
    return order == "canonical"


METRICS = ("support", "confidence", "lift", "leverage", "conviction", "zhangs_metric")
"""The measures ``quarlo.rules`` can select rules by."""

_RULE_COLUMNS = ["antecedents", "consequents", "antecedent support", "consequent support", "support",
                 "confidence", "lift", "leverage", "conviction", "zhangs_metric", "count",
                 "antecedent count", "consequent count"]


def rules(
    transactions: Transactions,
    support: Support,
    *,
    metric: str = "confidence",
    min_threshold: float = 0.8,
    max_len: int | None = None,
    max_consequent_len: int | None = None,
    threads: int = 1,
) -> pd.DataFrame:
    """Return the association rules of the frequent itemsets of ``transactions``.

    One call mines the frequent itemsets as ``quarlo.mine(transactions,
    support, max_len=max_len)`` does and forms every rule X -> Y with X and
    Y non-empty and disjoint, X | Y a frequent itemset, and ``metric`` at
    least ``min_threshold``. It takes the transactions rather than a mined
    frame because a rule needs the supports of X and Y, and under a support
    that falls with the length they are often not frequent at their own
    length, so not in any frame: quarlo counts them in the transactions, in
    one pass for all of them together, and every value is exact.

    Parameters
    ----------
    transactions, support, max_len, threads
        As for ``quarlo.mine``; ``max_len`` bounds the items of X | Y. The
        labels of transactions given in memory must all be of one type.
    metric
        The measure a rule must reach, one of ``quarlo.METRICS``: "support",
        "confidence", "lift", "leverage", "conviction" or "zhangs_metric".
        Under "confidence", rules are formed consequent by consequent,
        growing a consequent only while the smaller ones pass (confidence
        falls as the consequent grows); under the others, every split of
        every frequent itemset is measured.
    min_threshold
        The least value of ``metric``: from 0 to 1 for support and
        confidence, at least 0 for lift and conviction, from -1 to 1 for
        leverage and zhangs_metric. Support and confidence compare exactly
        on the decimal the float prints as (0.8 is 4/5), as support
        fractions are made counts; the others compare the float values of
        the columns below.
    max_consequent_len
        The most items of Y (default: any number; 1 gives single-item
        consequents).

    Returns
    -------
    pandas.DataFrame
        One row per rule, the rules of each frequent itemset together (in
        the order of ``quarlo.mine``'s rows) by consequent size, with
        mlxtend's columns and the counts. With n transactions and the counts
        z of X | Y, a of X and c of Y:

        * ``antecedents``, ``consequents``: frozensets of the labels (str);
        * ``antecedent support`` = a/n, ``consequent support`` = c/n,
          ``support`` = z/n;
        * ``confidence`` = z/a;
        * ``lift`` = confidence / consequent support;
        * ``leverage`` = support - antecedent support * consequent support;
        * ``conviction`` = (1 - consequent support) / (1 - confidence), and
          ``inf`` where the confidence is 1;
        * ``zhangs_metric`` = leverage / max(support * (1 - antecedent
          support), antecedent support * (consequent support - support)),
          and 0 where that maximum is 0;
        * ``count`` = z, ``antecedent count`` = a, ``consequent count`` = c.

    Raises
    ------
    TypeError
        An argument of the wrong type, or labels of mixed types.
    ValueError
        What ``quarlo.mine`` refuses, an unknown metric, a threshold out of
        range, or a support that leaves no frequent itemset of two or more
        items (there is no rule to form).
    FileNotFoundError, OSError, MemoryError
        As for ``quarlo.mine``.

    Examples
    --------
    Butter is in 2 of 4 baskets, below the 75 % single items need here, so
    no frame of frequent itemsets holds it; its counts come from the data:

    >>> import quarlo
    >>> baskets = [["bread", "milk"], ["bread", "butter"],
    ...            ["bread", "milk", "butter"], ["milk"]]
    >>> frame = quarlo.rules(baskets, {1: 0.75, 2: 0.25}, min_threshold=0.6)
    >>> for r in frame.to_dict("records"):
    ...     print(sorted(r["antecedents"]), "->", sorted(r["consequents"]), r["count"],
    ...           r["antecedent count"], r["consequent count"], round(r["confidence"], 3))
    ['butter'] -> ['bread'] 2 2 3 1.0
    ['bread'] -> ['butter'] 2 3 2 0.667
    ['milk'] -> ['bread'] 2 3 3 0.667
    ['bread'] -> ['milk'] 2 3 3 0.667
    ['butter', 'milk'] -> ['bread'] 1 1 3 1.0
    >>> frame["conviction"].round(3).tolist()
    [inf, 1.5, 0.75, 0.75, inf]
    """
    if isinstance(transactions, pd.DataFrame):
        _same_types(transactions.columns)
    source_kind, source = _source(transactions)
    o = _options(support, 1, max_len, False, False, threads)
    metric = _metric(metric)
    threshold = _threshold(min_threshold)
    if max_consequent_len is None:
        max_consequent = _MAX_U32
    else:
        max_consequent = _int_at_least("max_consequent_len", max_consequent_len, 1)
    columns = _quarlo.rules(source_kind, source, o.support_kind, o.support, o.min_len, o.max_len,
                            o.threads, metric, threshold, max_consequent, True)
    return _rule_frame(columns)


class _Options(NamedTuple):
    """mine()'s arguments past the transactions, checked, in the tagged forms
    of the extension module (quarlo.dask takes the same ones)."""
    support_kind: str
    support: object
    min_len: int
    max_len: int
    maximal: bool
    parents: bool
    threads: int
    closed: bool


def _options(support, min_len, max_len, maximal, parents, threads, closed=False) -> _Options:
    support_kind, support_value = _support(support)
    min_len = _length("min_len", min_len)
    max_len = _MAX_U32 if max_len is None else _length("max_len", max_len)
    if max_len < min_len:
        raise ValueError(f"max_len ({max_len}) is below min_len ({min_len})")
    return _Options(support_kind, support_value, min_len, max_len, _flag("maximal", maximal),
                    _flag("parents", parents), _int_at_least("threads", threads, 1),
                    _flag("closed", closed))


def _source(transactions):
    """The tagged form of ``transactions`` for the extension module."""
    if isinstance(transactions, (str, os.PathLike)):
        return "file", os.fsencode(transactions)
    if isinstance(transactions, pd.DataFrame):
        return "matrix", _matrix(transactions)
    if isinstance(transactions, np.ndarray) and transactions.dtype == bool:
        # Its rows would read as transactions of the labels "True" and "False".
        raise TypeError("a boolean array has no item labels: give a DataFrame with one column per item")
    if isinstance(transactions, (bytes, bytearray)) or not isinstance(transactions, Iterable):
        raise TypeError(
            "transactions must be a path, an iterable of iterables of labels or a "
            f"DataFrame, not {type(transactions).__name__}")
    return "labels", transactions


def _matrix(frame: pd.DataFrame):
    """A DataFrame of 0/1 cells as (uint8 cells, column labels)."""
    names = [str(c) for c in frame.columns]
    if len(set(names)) != len(names):
        raise ValueError("the DataFrame's column names must differ from each other as str")
    cells = frame.to_numpy()
    if cells.dtype == bool:
        return np.ascontiguousarray(cells, dtype=np.uint8), names
    if cells.dtype == object:
        ok = all(isinstance(v, (bool, np.bool_, numbers.Number)) and (v == 0 or v == 1)
                 for v in cells.flat)
    else:
        ok = np.issubdtype(cells.dtype, np.number) and bool(((cells == 0) | (cells == 1)).all())
    if not ok:
        raise ValueError("the DataFrame's cells must be booleans or 0/1")
    return np.ascontiguousarray(cells != 0, dtype=np.uint8), names


def _is_int(value) -> bool:
    return isinstance(value, numbers.Integral) and not isinstance(value, (bool, np.bool_))


def _is_fraction(value) -> bool:
    return isinstance(value, (float, np.floating, decimal.Decimal))


def _count(value) -> int:
    if not 1 <= value <= _MAX_U32:
        raise ValueError(f"a support count must be from 1 to {_MAX_U32}, not {value}")
    return int(value)


def _fraction(value) -> str:
    """The decimal a fraction prints as, which is the value the user wrote."""
    if not (value > 0 and value <= 1):  # also false for NaN
        raise ValueError(
            f"a support fraction must be above 0 and at most 1, not {value} "
            "(give an int for a count of transactions)")
    return str(value)


def _support(support):
    """The tagged form of ``support`` for the extension module."""
    if isinstance(support, (str, os.PathLike)):
        return "table_file", os.fsencode(support)
    if _is_int(support):
        return "count", _count(support)
    if _is_fraction(support):
        return "fraction", _fraction(support)
    if isinstance(support, Mapping):
        return _support_table(support)
    raise TypeError(
        "support must be a fraction (float), a count (int), a mapping {length: value} "
        f"or the path of a support-table file, not {type(support).__name__}")


def _support_table(table: Mapping):
    pairs = []
    for length, value in table.items():
        if not _is_int(length):
            raise TypeError(f"support-table lengths must be ints, not {type(length).__name__}")
        if not 1 <= length <= _MAX_U32:
            raise ValueError(f"support-table lengths must be from 1 to {_MAX_U32}, not {length}")
        pairs.append((int(length), value))
    pairs.sort(key=lambda pair: pair[0])
    if not pairs or pairs[0][0] != 1:
        raise ValueError("a support table must give length 1")
    if all(_is_int(v) for _, v in pairs):
        return "counts", [(n, _count(v)) for n, v in pairs]
    if all(_is_fraction(v) for _, v in pairs):
        return "fractions", [(n, _fraction(v)) for n, v in pairs]
    if all(_is_int(v) or _is_fraction(v) for _, v in pairs):
        raise ValueError("a support table's values must be all fractions (float) or all counts (int)")
    bad = next(v for _, v in pairs if not (_is_int(v) or _is_fraction(v)))
    raise TypeError(f"support-table values must be floats or ints, not {type(bad).__name__}")


def _int_at_least(name: str, value, least: int) -> int:
    if not _is_int(value):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    if not least <= value <= _MAX_U32:
        raise ValueError(f"{name} must be from {least} to {_MAX_U32}, not {value}")
    return int(value)


def _length(name: str, value) -> int:
    return _int_at_least(name, value, 1)


def _flag(name: str, value) -> bool:
    if not isinstance(value, (bool, np.bool_)):
        raise TypeError(f"{name} must be a bool, not {type(value).__name__}")
    return bool(value)


def _frame(columns: dict) -> pd.DataFrame:
    """The DataFrame of the extension module's columns."""
    count = columns["count"]
    ntrans = columns["transactions"]
    data = {
        "itemsets": pd.Series(columns["itemsets"], dtype=object),
        "support": count / ntrans if ntrans else count.astype(np.float64),
        "count": count,
        "length": columns["length"],
    }
    if columns["parents"] is not None:
        data["parents"] = pd.Series(columns["parents"], dtype=object)
    return pd.DataFrame(data)


def _metric(metric) -> str:
    if not isinstance(metric, str):
        raise TypeError(f"metric must be a str, not {type(metric).__name__}")
    if metric not in METRICS:
        raise ValueError(f"unknown metric {metric!r}: give one of {', '.join(METRICS)}")
    return metric


def _threshold(value) -> float:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, numbers.Real) and \
            not isinstance(value, decimal.Decimal):
        raise TypeError(f"min_threshold must be a number, not {type(value).__name__}")
    return float(value)


def _same_types(labels) -> None:
    kinds = sorted({type(label).__name__ for label in labels})
    if len(kinds) > 1:
        raise TypeError(f"labels of mixed types ({' and '.join(kinds)}) in the DataFrame's columns; "
                        "give every label as one type, for instance all str")


def _rule_frame(columns: dict) -> pd.DataFrame:
    """The DataFrame of the extension module's rule columns."""
    data = {name: columns[name] for name in _RULE_COLUMNS}
    for name in ("antecedents", "consequents"):
        data[name] = pd.Series(data[name], dtype=object)
    return pd.DataFrame(data)
