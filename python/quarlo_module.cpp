// quarlo._quarlo: the library's mine() for the Python package. The package
// (quarlo/__init__.py) sorts the user's arguments into the tagged forms below;
// this module turns them into the library's containers while it holds the
// GIL, mines without it, and hands the result back as columns of Python
// objects. Labels cross the boundary as UTF-8 with "surrogateescape", so
// the bytes of any label in a file come back unchanged and can be given
// back in memory.
//
//   mine(source_kind, source, support_kind, support,
//        min_len, max_len, maximal, parents, threads, closed=False, canonical=False) -> dict
//
//   source_kind  "file"   source: the path, as bytes
//                "labels" source: an iterable of iterables of labels
//                "matrix" source: (2-D uint8 array, column labels); a
//                         non-zero cell puts the column's label in the row
//   support_kind "count" (int), "fraction" (decimal str), "counts" /
//                "fractions" (list of (length, value)), "table_file" (bytes)
//
// The dict holds "itemsets" (list of frozenset of str), "count" and
// "length" (int64 arrays), "parents" (list of lists of row positions, or
// None) and "transactions" (the number counted). With canonical=True the
// rows are in the library's canonical order (sort_canonical) instead of
// FILE.fp's.
//
//   rules(source_kind, source, support_kind, support, min_len, max_len,
//         threads, metric, min_threshold, max_consequent, same_types) -> dict
//
// metric is one of "support", "confidence", "lift", "leverage",
// "conviction", "zhangs_metric"; with same_types, labels of an iterable
// source must all be of one Python type. The dict holds "antecedents" and
// "consequents" (lists of frozenset of str), the measures under the frame's
// column names (float64 arrays), "count", "antecedent count" and
// "consequent count" (int64 arrays) and "transactions".
//
// Mining in parts, for quarlo.dask (arrays are numpy arrays):
//
//   scan(source_kind, source) -> (labels, supports uint32, codes uint32, ends uint64)
//   lowest_count(support_kind, support, min_len, max_len,
//                labels, supports, transactions) -> int
//   plan(labels, partitions, total_labels, total_supports, transactions,
//        support_kind, support, min_len, max_len, groups) -> (record, parts, work)
//   mine_part(part) -> bytes
//   merge(record, mined, maximal, parents) -> dict as mine() returns
//
// scan() reads one partition ("file" or "labels"); lowest_count() and plan()
// take the totals of all partitions as every label with its support and the
// number of non-empty transactions. plan()'s partitions are (codes, ends)
// pairs whose codes index `labels`, taken in order as one run's transactions.
//
// Mining in shards, for quarlo.dask's default path:
//
//   mine_shard(labels, codes uint32, ends uint64, total_labels, total_supports,
//              transactions, first, last, support_kind, support, min_len,
//              max_len) -> (lengths uint32, items uint32, counts uint32)
//   combine(labels, lengths, items, counts, transactions, maximal, parents)
//       -> dict as mine() returns
//
//   rank(codes uint32, ends uint64, rank_of_code uint32, nitems)
//       -> (ranks uint32, ends uint64, weights float64, longest)
//   prefixes(ranks uint32, ends uint64, bounds, wide_items, wide_lengths)
//       -> [(group, transactions, items bytes, lengths bytes), ...]
//
// rank() recodes a partition's transactions to ranks (rank_of_code[code];
// 2^32 - 1 drops the item, and a transaction left empty goes), sorts each
// transaction's ranks, and weighs each rank: the lengths of the prefixes
// that end at it, summed. prefixes() cuts the ranked transactions for the
// groups [bounds[g], bounds[g + 1]): for each group with any, the prefix of
// every transaction up to its last rank in the group, ranks and lengths in
// two bytes each (four with wide_items / wide_lengths), host byte order.
// mine_shard() mines the shard of the items labels[first:last] over the
// transactions codes/ends (codes index `labels`) and returns its itemsets
// laid end to end, each item as its index in `labels`. combine() takes the
// itemsets of every shard, items as indexes into `labels` (which must be in
// the library's order of labels), and returns the run's frame columns in
// the canonical order.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quarlo/quarlo.h"
#include "quarlo/rules.h"

namespace py = pybind11;

namespace {

// The UTF-8 bytes of a label: a str as it is, anything else through str().
std::string label_text(py::handle label) {
  py::object text = py::reinterpret_borrow<py::object>(label);
  if (!PyUnicode_Check(label.ptr())) {
    if (PyObject_Hash(label.ptr()) == -1) throw py::error_already_set();
    text = py::str(label);
  }
  PyObject* bytes = PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape");
  if (bytes == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::bytes>(bytes).cast<std::string>();
}

std::string type_name(py::handle h) { return Py_TYPE(h.ptr())->tp_name; }

// With `same_types`, every label must be of the first label's type.
std::vector<std::vector<std::string>> labels_of_iterable(py::handle source,
                                                         bool same_types = false) {
  std::vector<std::vector<std::string>> out;
  PyTypeObject* first_type = nullptr;
  for (py::handle transaction : py::iter(source)) {
    if (PyUnicode_Check(transaction.ptr()) || PyBytes_Check(transaction.ptr()) ||
        !py::isinstance<py::iterable>(transaction)) {
      throw py::type_error("transaction " + std::to_string(out.size()) +
                           " must be an iterable of labels, not " + type_name(transaction));
    }
    out.emplace_back();
    for (py::handle label : py::iter(transaction)) {
      if (same_types && first_type != Py_TYPE(label.ptr())) {
        if (first_type != nullptr) {
          throw py::type_error(std::string("labels of mixed types (") + first_type->tp_name +
                               " and " + type_name(label) + ") in transaction " +
                               std::to_string(out.size() - 1) +
                               "; give every label as one type, for instance all str");
        }
        first_type = Py_TYPE(label.ptr());
      }
      out.back().push_back(label_text(label));
    }
  }
  return out;
}

std::vector<std::vector<std::string>> labels_of_matrix(py::handle source) {
  const auto [cells, names] =
      source.cast<std::pair<py::array_t<uint8_t, py::array::c_style>, py::list>>();
  if (cells.ndim() != 2 || static_cast<size_t>(cells.shape(1)) != names.size()) {
    throw py::value_error("the matrix must have one column per label");
  }
  std::vector<std::string> labels;
  for (py::handle name : names) labels.push_back(label_text(name));
  const auto view = cells.unchecked<2>();
  std::vector<std::vector<std::string>> out(static_cast<size_t>(view.shape(0)));
  for (py::ssize_t r = 0; r < view.shape(0); ++r) {
    for (py::ssize_t c = 0; c < view.shape(1); ++c) {
      if (view(r, c) != 0) out[static_cast<size_t>(r)].push_back(labels[static_cast<size_t>(c)]);
    }
  }
  return out;
}

quarlo::Transactions transactions_of(const std::string& kind, py::handle source,
                                     bool same_types = false) {
  if (kind == "file") return quarlo::Transactions::from_file(source.cast<std::string>());
  if (kind == "labels")
    return quarlo::Transactions::from_labels(labels_of_iterable(source, same_types));
  if (kind == "matrix") return quarlo::Transactions::from_labels(labels_of_matrix(source));
  throw py::value_error("unknown source kind " + kind);
}

quarlo::Support support_of(const std::string& kind, py::handle value) {
  if (kind == "count") return quarlo::Support::count(value.cast<uint32_t>());
  if (kind == "fraction") return quarlo::Support::fraction(value.cast<std::string>());
  if (kind == "counts") {
    return quarlo::Support::count_table(value.cast<std::vector<std::pair<uint32_t, uint32_t>>>());
  }
  if (kind == "fractions") {
    return quarlo::Support::fraction_table(
        value.cast<std::vector<std::pair<uint32_t, std::string>>>());
  }
  if (kind == "table_file") return quarlo::Support::table_file(value.cast<std::string>());
  throw py::value_error("unknown support kind " + kind);
}

// An OSError for a file the library could not read: with the errno and the
// file the error carries, Python picks the matching subclass
// (FileNotFoundError, PermissionError, IsADirectoryError, ...).
[[noreturn]] void raise_os_error(const quarlo::Error& e) {
  if (e.error_number() != 0) {
    PyErr_SetObject(PyExc_OSError,
                    py::make_tuple(e.error_number(), strerror(e.error_number()), e.path()).ptr());
  } else {
    PyErr_SetString(PyExc_OSError, e.what());
  }
  throw py::error_already_set();
}

[[noreturn]] void raise_error(const quarlo::Error& e) {
  switch (e.kind()) {
    case quarlo::Error::Kind::kIo:
      raise_os_error(e);
    case quarlo::Error::Kind::kOutOfMemory:
      PyErr_SetString(PyExc_MemoryError, e.what());
      throw py::error_already_set();
    case quarlo::Error::Kind::kInvalidArgument:
      break;
  }
  throw py::value_error(e.what());
}

// A label's bytes as str, undoing label_text's encoding.
py::object label_object(const std::string& label) {
  PyObject* s =
      PyUnicode_DecodeUTF8(label.data(), static_cast<Py_ssize_t>(label.size()), "surrogateescape");
  if (s == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(s);
}

py::list itemsets_of(const quarlo::Result& r) {
  std::vector<py::object> labels;
  labels.reserve(r.labels.size());
  for (const std::string& label : r.labels) labels.push_back(label_object(label));
  py::list out(r.itemsets.size());
  for (size_t i = 0; i < r.itemsets.size(); ++i) {
    py::object set = py::reinterpret_steal<py::object>(PyFrozenSet_New(nullptr));
    if (!set) throw py::error_already_set();
    // A frozenset no one else has seen yet may still be filled.
    for (uint32_t item : r.itemsets[i].items) {
      if (PySet_Add(set.ptr(), labels[item].ptr()) != 0) throw py::error_already_set();
    }
    // A frozenset of str can never be part of a cycle: the collector need
    // not walk millions of them (Python drops tuples of atoms the same way).
    PyObject_GC_UnTrack(set.ptr());
    out[i] = std::move(set);
  }
  return out;
}

// Holds the cyclic garbage collector off while a result becomes millions of
// frozensets and lists: they hold only str and int, so no cycle can form,
// and the collections their allocations would set off cost more than
// building them (3.2 million itemsets: 3.7 s of 5.8).
class GcPause {
 public:
  GcPause() : was_enabled_(PyGC_Disable() == 1) {}
  ~GcPause() {
    if (was_enabled_) PyGC_Enable();
  }
  GcPause(const GcPause&) = delete;
  GcPause& operator=(const GcPause&) = delete;

 private:
  bool was_enabled_;
};

py::dict columns_of(const quarlo::Result& r, bool parents) {
  GcPause pause;
  const py::ssize_t n = static_cast<py::ssize_t>(r.itemsets.size());
  py::array_t<int64_t> count(n);
  py::array_t<int64_t> length(n);
  auto c = count.mutable_unchecked<1>();
  auto l = length.mutable_unchecked<1>();
  for (py::ssize_t i = 0; i < n; ++i) {
    c(i) = r.itemsets[static_cast<size_t>(i)].support;
    l(i) = static_cast<int64_t>(r.itemsets[static_cast<size_t>(i)].items.size());
  }
  py::dict out;
  out["itemsets"] = itemsets_of(r);
  out["count"] = count;
  out["length"] = length;
  out["parents"] = parents ? py::cast(r.parents) : py::none();
  out["transactions"] = r.stats.transactions;
  return out;
}

py::dict mine(const std::string& source_kind, py::handle source, const std::string& support_kind,
              py::handle support, uint32_t min_len, uint32_t max_len, bool maximal, bool parents,
              uint32_t threads, bool closed, bool canonical) {
  try {
    quarlo::Options options;
    options.support = support_of(support_kind, support);
    options.min_size = min_len;
    options.max_size = max_len;
    options.maximal = maximal;
    options.parents = parents;
    options.threads = threads;
    options.closed = closed;
    const quarlo::Transactions transactions = transactions_of(source_kind, source);
    quarlo::Result r;
    {
      py::gil_scoped_release release;
      r = quarlo::mine(transactions, options);
      if (canonical) quarlo::sort_canonical(&r);
    }
    return columns_of(r, parents);
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

quarlo::RuleMetric metric_of(const std::string& name) {
  if (name == "support") return quarlo::RuleMetric::kSupport;
  if (name == "confidence") return quarlo::RuleMetric::kConfidence;
  if (name == "lift") return quarlo::RuleMetric::kLift;
  if (name == "leverage") return quarlo::RuleMetric::kLeverage;
  if (name == "conviction") return quarlo::RuleMetric::kConviction;
  if (name == "zhangs_metric") return quarlo::RuleMetric::kZhang;
  throw py::value_error("unknown metric " + name);
}

// The rules as columns: both sides as frozensets of str, the measures and
// the counts.
py::dict rule_columns(const quarlo::RuleSet& rs) {
  GcPause pause;
  std::vector<py::object> labels;
  labels.reserve(rs.labels.size());
  for (const std::string& label : rs.labels) labels.push_back(label_object(label));
  // Sides repeat across rules (the same X with each of its consequents):
  // one frozenset per distinct side, shared by the rows that hold it.
  struct SideHash {
    size_t operator()(std::span<const uint32_t> side) const {
      uint64_t h = side.size();
      for (uint32_t item : side) h = (h ^ item) * 0x9e3779b97f4a7c15ull;
      return static_cast<size_t>(h ^ (h >> 29));
    }
  };
  struct SideEqual {
    bool operator()(std::span<const uint32_t> a, std::span<const uint32_t> b) const {
      return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }
  };
  std::unordered_map<std::span<const uint32_t>, py::object, SideHash, SideEqual> sides;
  auto frozenset_of = [&](std::span<const uint32_t> items) {
    py::object& known = sides[items];
    if (known) return known;
    py::object set = py::reinterpret_steal<py::object>(PyFrozenSet_New(nullptr));
    if (!set) throw py::error_already_set();
    for (uint32_t item : items) {
      if (PySet_Add(set.ptr(), labels[item].ptr()) != 0) throw py::error_already_set();
    }
    PyObject_GC_UnTrack(set.ptr());  // as in itemsets_of: no cycle can pass through it
    known = set;
    return set;
  };
  const size_t n = rs.rules.size();
  py::list antecedents(n), consequents(n);
  static const char* const kMeasures[] = {
      "antecedent support", "consequent support", "support",      "confidence", "lift",
      "leverage",           "conviction",         "zhangs_metric"};
  std::vector<py::array_t<double>> measures;
  for (size_t k = 0; k < 8; ++k) measures.emplace_back(static_cast<py::ssize_t>(n));
  py::array_t<int64_t> count(static_cast<py::ssize_t>(n)),
      antecedent_count(static_cast<py::ssize_t>(n)), consequent_count(static_cast<py::ssize_t>(n));
  std::vector<double*> m;
  for (auto& a : measures) m.push_back(a.mutable_data());
  int64_t* c = count.mutable_data();
  int64_t* ac = antecedent_count.mutable_data();
  int64_t* cc = consequent_count.mutable_data();
  for (size_t i = 0; i < n; ++i) {
    const quarlo::Rule& r = rs.rules[i];
    antecedents[i] = frozenset_of(rs.antecedent(r));
    consequents[i] = frozenset_of(rs.consequent(r));
    const quarlo::RuleMeasures v = quarlo::measure(r, rs.transactions);
    const double values[] = {
        v.antecedent_support, v.consequent_support, v.support, v.confidence, v.lift,
        v.leverage,           v.conviction,         v.zhang};
    for (size_t k = 0; k < 8; ++k) m[k][i] = values[k];
    c[i] = r.count;
    ac[i] = r.antecedent_count;
    cc[i] = r.consequent_count;
  }
  py::dict out;
  out["antecedents"] = antecedents;
  out["consequents"] = consequents;
  for (size_t k = 0; k < 8; ++k) out[kMeasures[k]] = measures[k];
  out["count"] = count;
  out["antecedent count"] = antecedent_count;
  out["consequent count"] = consequent_count;
  out["transactions"] = rs.transactions;
  return out;
}

py::dict rules(const std::string& source_kind, py::handle source, const std::string& support_kind,
               py::handle support, uint32_t min_len, uint32_t max_len, uint32_t threads,
               const std::string& metric, double min_threshold, uint32_t max_consequent,
               bool same_types) {
  try {
    quarlo::Options options;
    options.support = support_of(support_kind, support);
    options.min_size = min_len;
    options.max_size = max_len;
    options.threads = threads;
    quarlo::RuleOptions rule_options;
    rule_options.metric = metric_of(metric);
    rule_options.min_threshold = min_threshold;
    rule_options.max_consequent = max_consequent;
    const quarlo::Transactions transactions = transactions_of(source_kind, source, same_types);
    quarlo::RuleSet rs;
    {
      py::gil_scoped_release release;
      rs = quarlo::rules(transactions, options, rule_options);
    }
    return rule_columns(rs);
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

// A vector handed to numpy without a copy: the array owns it.
template <typename T>
py::array_t<T> array_of(std::vector<T>&& values) {
  auto* owned = new std::vector<T>(std::move(values));
  py::capsule owner(owned, [](void* p) { delete static_cast<std::vector<T>*>(p); });
  return py::array_t<T>(static_cast<py::ssize_t>(owned->size()), owned->data(), owner);
}

template <typename T>
using Array = py::array_t<T, py::array::c_style | py::array::forcecast>;

py::tuple scan(const std::string& source_kind, py::handle source) {
  try {
    const quarlo::Transactions transactions = transactions_of(source_kind, source);
    quarlo::Scan s;
    {
      py::gil_scoped_release release;
      s = quarlo::scan(transactions);
    }
    py::list labels(s.labels.size());
    for (size_t i = 0; i < s.labels.size(); ++i) labels[i] = label_object(s.labels[i]);
    return py::make_tuple(labels, array_of(std::move(s.supports)), array_of(std::move(s.codes)),
                          array_of(std::move(s.ends)));
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

quarlo::Totals totals_of(py::handle labels, const Array<uint32_t>& supports,
                         uint32_t transactions) {
  const auto count = supports.unchecked<1>();
  if (static_cast<size_t>(count.shape(0)) != py::len(labels)) {
    throw py::value_error("the totals need one support per label");
  }
  quarlo::Totals totals;
  totals.transactions = transactions;
  totals.item_supports.reserve(py::len(labels));
  py::ssize_t i = 0;
  for (py::handle label : labels) totals.item_supports.emplace_back(label_text(label), count(i++));
  return totals;
}

quarlo::Options options_of(const std::string& support_kind, py::handle support, uint32_t min_len,
                           uint32_t max_len) {
  quarlo::Options options;
  options.support = support_of(support_kind, support);
  options.min_size = min_len;
  options.max_size = max_len;
  return options;
}

uint32_t lowest_count(const std::string& support_kind, py::handle support, uint32_t min_len,
                      uint32_t max_len, py::handle labels, const Array<uint32_t>& supports,
                      uint32_t transactions) {
  try {
    return quarlo::lowest_count(options_of(support_kind, support, min_len, max_len),
                                totals_of(labels, supports, transactions));
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

// The partitions' coded transactions laid end to end, as from_codes takes them.
void concatenate(py::handle partitions, std::vector<uint32_t>* codes, std::vector<uint64_t>* ends) {
  std::vector<std::pair<Array<uint32_t>, Array<uint64_t>>> parts;
  size_t ncodes = 0, nends = 0;
  for (py::handle p : partitions) {
    parts.push_back(p.cast<std::pair<Array<uint32_t>, Array<uint64_t>>>());
    ncodes += static_cast<size_t>(parts.back().first.size());
    nends += static_cast<size_t>(parts.back().second.size());
  }
  codes->reserve(ncodes);
  ends->reserve(nends);
  for (const auto& [c, e] : parts) {
    const uint64_t base = codes->size();
    const uint32_t* first = c.data();
    codes->insert(codes->end(), first, first + c.size());
    for (py::ssize_t i = 0; i < e.size(); ++i) {
      if (e.data()[i] > static_cast<uint64_t>(c.size())) {
        throw py::value_error("transaction ends must rise up to the number of codes");
      }
      ends->push_back(base + e.data()[i]);
    }
  }
}

py::tuple plan(py::handle labels, py::handle partitions, py::handle total_labels,
               const Array<uint32_t>& total_supports, uint32_t transactions,
               const std::string& support_kind, py::handle support, uint32_t min_len,
               uint32_t max_len, uint32_t groups) {
  try {
    const quarlo::Options options = options_of(support_kind, support, min_len, max_len);
    const quarlo::Totals totals = totals_of(total_labels, total_supports, transactions);
    std::vector<std::string> code_labels;
    code_labels.reserve(py::len(labels));
    for (py::handle label : labels) code_labels.push_back(label_text(label));
    std::vector<uint32_t> codes;
    std::vector<uint64_t> ends;
    concatenate(partitions, &codes, &ends);
    quarlo::Plan p;
    {
      py::gil_scoped_release release;
      p = quarlo::plan(quarlo::Transactions::from_codes(std::move(code_labels), std::move(codes),
                                                        std::move(ends)),
                       options, groups, &totals);
    }
    py::list parts(p.parts.size());
    for (size_t i = 0; i < p.parts.size(); ++i) {
      parts[i] = py::bytes(p.parts[i]);
      std::string().swap(p.parts[i]);  // parts can be gigabytes: one copy at a time
    }
    return py::make_tuple(py::bytes(p.record), parts, py::cast(p.work));
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

py::bytes mine_part(const py::bytes& part) {
  try {
    const std::string in = part;
    std::string out;
    {
      py::gil_scoped_release release;
      out = quarlo::mine_part(in);
    }
    return py::bytes(out);
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

py::dict merge(const py::bytes& record, const std::vector<std::string>& mined, bool maximal,
               bool parents) {
  try {
    const std::string plan_record = record;
    quarlo::Options options;
    options.maximal = maximal;
    options.parents = parents;
    quarlo::Result r;
    {
      py::gil_scoped_release release;
      r = quarlo::merge(plan_record, mined, options);
    }
    return columns_of(r, parents);
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

py::tuple rank(const Array<uint32_t>& codes, const Array<uint64_t>& ends,
               const Array<uint32_t>& rank_of_code, uint32_t nitems) {
  const uint32_t* code = codes.data();
  const uint64_t* end = ends.data();
  const uint32_t* map = rank_of_code.data();
  const size_t ncodes = static_cast<size_t>(codes.size());
  const size_t nmap = static_cast<size_t>(rank_of_code.size());
  std::vector<uint32_t> ranks;
  std::vector<uint64_t> kept_ends;
  std::vector<double> weights(nitems, 0.0);
  uint64_t longest = 0;
  {
    py::gil_scoped_release release;
    ranks.reserve(ncodes);
    kept_ends.reserve(static_cast<size_t>(ends.size()));
    uint64_t begin = 0;
    for (py::ssize_t t = 0; t < ends.size(); ++t) {
      const uint64_t stop = std::min<uint64_t>(end[t], ncodes);
      const size_t first = ranks.size();
      for (uint64_t i = begin; i < stop; ++i) {
        const uint32_t r = code[i] < nmap ? map[code[i]] : 0xffffffffu;
        if (r < nitems) ranks.push_back(r);
      }
      begin = std::max(begin, stop);
      if (ranks.size() == first) continue;
      std::sort(ranks.begin() + static_cast<std::ptrdiff_t>(first), ranks.end());
      for (size_t i = first; i < ranks.size(); ++i) weights[ranks[i]] += static_cast<double>(i - first + 1);
      longest = std::max<uint64_t>(longest, ranks.size() - first);
      kept_ends.push_back(ranks.size());
    }
  }
  return py::make_tuple(array_of(std::move(ranks)), array_of(std::move(kept_ends)),
                        array_of(std::move(weights)), longest);
}

template <typename Word>
void put_words(std::string* to, const uint32_t* from, size_t n) {
  const size_t at = to->size();
  to->resize(at + n * sizeof(Word));
  char* out = to->data() + at;
  for (size_t i = 0; i < n; ++i) {
    const Word w = static_cast<Word>(from[i]);
    memcpy(out + i * sizeof(Word), &w, sizeof(Word));
  }
}

py::list prefixes(const Array<uint32_t>& ranks, const Array<uint64_t>& ends,
                  const std::vector<uint32_t>& bounds, bool wide_items, bool wide_lengths) {
  if (bounds.size() < 2) throw py::value_error("the groups need at least two bounds");
  const size_t ngroups = bounds.size() - 1;
  const uint32_t* rank = ranks.data();
  const uint64_t* end = ends.data();
  const size_t nranks = static_cast<size_t>(ranks.size());
  std::vector<std::string> items(ngroups), lengths(ngroups);
  std::vector<uint64_t> count(ngroups, 0);
  {
    py::gil_scoped_release release;
    std::vector<uint32_t> group_of(bounds.back(), 0);
    for (size_t g = 0; g < ngroups; ++g) {
      for (uint32_t r = bounds[g]; r < bounds[g + 1] && r < group_of.size(); ++r) {
        group_of[r] = static_cast<uint32_t>(g);
      }
    }
    uint64_t begin = 0;
    for (py::ssize_t t = 0; t < ends.size(); ++t) {
      const uint64_t stop = std::min<uint64_t>(end[t], nranks);
      // Ranks ascend, so groups do: each run of one group ends a prefix.
      for (uint64_t i = begin; i < stop; ++i) {
        if (rank[i] >= group_of.size()) continue;
        const uint32_t g = group_of[rank[i]];
        if (i + 1 < stop && rank[i + 1] < group_of.size() && group_of[rank[i + 1]] == g) continue;
        const size_t n = static_cast<size_t>(i + 1 - begin);
        const uint32_t length = static_cast<uint32_t>(n);
        if (wide_items) {
          put_words<uint32_t>(&items[g], rank + begin, n);
        } else {
          put_words<uint16_t>(&items[g], rank + begin, n);
        }
        if (wide_lengths) {
          put_words<uint32_t>(&lengths[g], &length, 1);
        } else {
          put_words<uint16_t>(&lengths[g], &length, 1);
        }
        ++count[g];
      }
      begin = std::max(begin, stop);
    }
  }
  py::list out;
  for (size_t g = 0; g < ngroups; ++g) {
    if (count[g] == 0) continue;
    out.append(py::make_tuple(g, count[g], py::bytes(items[g]), py::bytes(lengths[g])));
    std::string().swap(items[g]);
    std::string().swap(lengths[g]);
  }
  return out;
}

std::vector<std::string> label_texts(py::handle labels) {
  std::vector<std::string> out;
  out.reserve(py::len(labels));
  for (py::handle label : labels) out.push_back(label_text(label));
  return out;
}

py::tuple mine_shard(py::handle labels, const Array<uint32_t>& codes, const Array<uint64_t>& ends,
                     py::handle total_labels, const Array<uint32_t>& total_supports,
                     uint32_t transactions, size_t first, size_t last,
                     const std::string& support_kind, py::handle support, uint32_t min_len,
                     uint32_t max_len) {
  try {
    const quarlo::Options options = options_of(support_kind, support, min_len, max_len);
    const quarlo::Totals totals = totals_of(total_labels, total_supports, transactions);
    std::vector<std::string> code_labels = label_texts(labels);
    if (first > last || last > code_labels.size()) {
      throw py::value_error("the shard's items must be a range of the labels");
    }
    quarlo::Shard shard;
    shard.transactions = transactions;
    shard.item_supports = totals.item_supports;
    shard.items.assign(code_labels.begin() + static_cast<std::ptrdiff_t>(first),
                       code_labels.begin() + static_cast<std::ptrdiff_t>(last));
    std::vector<uint32_t> lengths, items, counts;
    {
      py::gil_scoped_release release;
      std::unordered_map<std::string, uint32_t> code_of;
      code_of.reserve(code_labels.size());
      for (size_t i = 0; i < code_labels.size(); ++i) {
        code_of.emplace(code_labels[i], static_cast<uint32_t>(i));
      }
      const quarlo::Result r = quarlo::mine_shard(
          quarlo::Transactions::from_codes(std::move(code_labels),
                                           std::vector<uint32_t>(codes.data(), codes.data() + codes.size()),
                                           std::vector<uint64_t>(ends.data(), ends.data() + ends.size())),
          shard, options);
      // The result numbers items over all the labels; the caller knows them by code.
      std::vector<uint32_t> code_of_item(r.labels.size(), 0);
      for (size_t i = 0; i < r.labels.size(); ++i) {
        auto it = code_of.find(r.labels[i]);
        if (it != code_of.end()) code_of_item[i] = it->second;
      }
      lengths.reserve(r.itemsets.size());
      counts.reserve(r.itemsets.size());
      for (const quarlo::Itemset& s : r.itemsets) {
        lengths.push_back(static_cast<uint32_t>(s.items.size()));
        counts.push_back(s.support);
        for (uint32_t item : s.items) items.push_back(code_of_item[item]);
      }
    }
    return py::make_tuple(array_of(std::move(lengths)), array_of(std::move(items)),
                          array_of(std::move(counts)));
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

py::dict combine(py::handle labels, const Array<uint32_t>& lengths, const Array<uint32_t>& items,
                 const Array<uint32_t>& counts, uint32_t transactions, bool maximal, bool parents) {
  try {
    if (lengths.size() != counts.size()) throw py::value_error("one count per itemset is needed");
    std::vector<quarlo::Itemset> itemsets(static_cast<size_t>(lengths.size()));
    size_t at = 0;
    for (size_t i = 0; i < itemsets.size(); ++i) {
      const size_t n = lengths.data()[i];
      if (n > static_cast<size_t>(items.size()) - at) throw py::value_error("the lengths overrun the items");
      itemsets[i].items.assign(items.data() + at, items.data() + at + n);
      itemsets[i].support = counts.data()[i];
      at += n;
    }
    if (at != static_cast<size_t>(items.size())) throw py::value_error("the lengths leave items over");
    std::vector<std::string> texts = label_texts(labels);
    quarlo::Options options;
    options.maximal = maximal;
    options.parents = parents;
    quarlo::Result r;
    {
      py::gil_scoped_release release;
      r = quarlo::combine(std::move(itemsets), std::move(texts), transactions, options);
    }
    return columns_of(r, parents);
  } catch (const quarlo::Error& e) {
    raise_error(e);
  }
}

}  // namespace

PYBIND11_MODULE(_quarlo, m) {
  m.doc() =
      "The quarlo library's mining calls; use quarlo.mine, quarlo.rules and quarlo.dask.mine "
      "instead.";
  m.def("mine", &mine, py::arg("source_kind"), py::arg("source"), py::arg("support_kind"),
        py::arg("support"), py::arg("min_len"), py::arg("max_len"), py::arg("maximal"),
        py::arg("parents"), py::arg("threads"), py::arg("closed") = false,
        py::arg("canonical") = false);
  m.def("rules", &rules, py::arg("source_kind"), py::arg("source"), py::arg("support_kind"),
        py::arg("support"), py::arg("min_len"), py::arg("max_len"), py::arg("threads"),
        py::arg("metric"), py::arg("min_threshold"), py::arg("max_consequent"),
        py::arg("same_types"));
  m.def("scan", &scan, py::arg("source_kind"), py::arg("source"));
  m.def("lowest_count", &lowest_count, py::arg("support_kind"), py::arg("support"),
        py::arg("min_len"), py::arg("max_len"), py::arg("labels"), py::arg("supports"),
        py::arg("transactions"));
  m.def("plan", &plan, py::arg("labels"), py::arg("partitions"), py::arg("total_labels"),
        py::arg("total_supports"), py::arg("transactions"), py::arg("support_kind"),
        py::arg("support"), py::arg("min_len"), py::arg("max_len"), py::arg("groups"));
  m.def("mine_part", &mine_part, py::arg("part"));
  m.def("merge", &merge, py::arg("record"), py::arg("mined"), py::arg("maximal"),
        py::arg("parents"));
  m.def("mine_shard", &mine_shard, py::arg("labels"), py::arg("codes"), py::arg("ends"),
        py::arg("total_labels"), py::arg("total_supports"), py::arg("transactions"),
        py::arg("first"), py::arg("last"), py::arg("support_kind"), py::arg("support"),
        py::arg("min_len"), py::arg("max_len"));
  m.def("rank", &rank, py::arg("codes"), py::arg("ends"), py::arg("rank_of_code"), py::arg("nitems"));
  m.def("prefixes", &prefixes, py::arg("ranks"), py::arg("ends"), py::arg("bounds"),
        py::arg("wide_items"), py::arg("wide_lengths"));
  m.def("combine", &combine, py::arg("labels"), py::arg("lengths"), py::arg("items"),
        py::arg("counts"), py::arg("transactions"), py::arg("maximal"), py::arg("parents"));
  m.def("version", &quarlo::version);
}
