// The public API over the engine: numbers the labels as the program does,
// loads the transactions into a run's buffer without writing any file, mines
// through a collecting or visiting sink, and computes parents and maximal
// itemsets in memory. Every failure becomes a quarlo::Error.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>

#include "base/io.h"
#include "base/tokens.h"
#include "convert/label_table.h"
#include "convert/records.h"
#include "engine/engine.h"
#include "engine/parts.h"
#include "post/parents.h"
#include "post/rules_internal.h"
#include "quarlo/quarlo.h"

namespace quarlo {

using namespace detail;

// ---------------------------------------------------------------------------
// Options and inputs

// The engine's form of the support, and the decimal fractions by length
// that become counts once the transactions are counted (kCount takes the
// first, kCountPairs all of them).
struct Support::Spec {
  SupportSpec engine;
  std::vector<std::pair<long, std::string>> fraction_pairs;
};

Support::Support() : spec_(std::make_shared<Spec>()) {}
Support::Support(std::shared_ptr<const Spec> spec) : spec_(std::move(spec)) {}
Support::~Support() = default;
Support::Support(const Support&) = default;
Support& Support::operator=(const Support&) = default;

namespace {

void check_count(uint32_t count) {
  if (count == 0) throw Error(Error::Kind::kInvalidArgument, "a support count must be at least 1");
}

}  // namespace

Support Support::percent(double percent) {
  Spec spec;
  spec.engine.percent = percent;
  return Support(std::make_shared<Spec>(std::move(spec)));
}

Support Support::count(uint32_t count) {
  check_count(count);
  Spec spec;
  spec.engine.kind = SupportSpec::kCount;
  spec.engine.count = count;
  return Support(std::make_shared<Spec>(std::move(spec)));
}

Support Support::table(std::vector<std::pair<uint32_t, double>> percent_by_length) {
  Spec spec;
  spec.engine.kind = SupportSpec::kPercentPairs;
  spec.engine.percent_pairs.assign(percent_by_length.begin(), percent_by_length.end());
  return Support(std::make_shared<Spec>(std::move(spec)));
}

Support Support::count_table(std::vector<std::pair<uint32_t, uint32_t>> count_by_length) {
  Spec spec;
  spec.engine.kind = SupportSpec::kCountPairs;
  for (const auto& [len, count] : count_by_length) check_count(count);
  spec.engine.count_pairs.assign(count_by_length.begin(), count_by_length.end());
  return Support(std::make_shared<Spec>(std::move(spec)));
}

Support Support::table_file(std::string path) {
  Spec spec;
  spec.engine.kind = SupportSpec::kTableFile;
  spec.engine.table_file = std::move(path);
  return Support(std::make_shared<Spec>(std::move(spec)));
}

namespace {

// A decimal as written: value = digits * 10^exponent, digits without leading
// or trailing zeros ("" for zero).
struct Decimal {
  std::string digits;
  int64_t exponent = 0;
};

// Reads the exponent after an "e": an optional sign and digits, within a
// million either way. False on other text.
bool parse_exponent(const std::string& text, int64_t* exponent) {
  const size_t sign = text.empty() || (text[0] != '+' && text[0] != '-') ? 0 : 1;
  if (text.size() == sign || text.size() > sign + 7) return false;
  if (text.find_first_not_of("0123456789", sign) != std::string::npos) return false;
  const int64_t value = std::stoll(text.substr(sign));
  *exponent = text[0] == '-' ? -value : value;
  return true;
}

// Reads "D", "D.D", ".D" or "D." with an optional "e[+-]N". False on other text.
bool parse_decimal(const std::string& text, Decimal* d) {
  const size_t end = text.find_first_of("eE");
  const std::string mantissa = text.substr(0, end);
  const size_t point = mantissa.find('.');
  std::string digits = mantissa;
  int64_t exponent = 0;
  if (point != std::string::npos) {
    digits.erase(point, 1);
    exponent = -static_cast<int64_t>(mantissa.size() - point - 1);
  }
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return false;
  int64_t shift = 0;
  if (end != std::string::npos && !parse_exponent(text.substr(end + 1), &shift)) return false;
  exponent += shift;
  const size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) {
    digits.clear();
  } else {
    const size_t last = digits.find_last_not_of('0');
    exponent += static_cast<int64_t>(digits.size() - 1 - last);
    digits = digits.substr(first, last - first + 1);
  }
  d->digits = std::move(digits);
  d->exponent = exponent;
  return true;
}

// The decimal fraction `text` in (0, 1], or kInvalidArgument.
Decimal fraction_of(const std::string& text) {
  Decimal d;
  if (!parse_decimal(text, &d)) {
    throw Error(Error::Kind::kInvalidArgument, "\"" + text + "\" is not a decimal fraction");
  }
  // With digits d1..dk the value lies in [10^(k+e-1), 10^(k+e)): it is at
  // most 1 when k + e <= 0, or when it is exactly 1.
  const int64_t magnitude = static_cast<int64_t>(d.digits.size()) + d.exponent;
  const bool one = d.digits == "1" && d.exponent == 0;
  if (d.digits.empty() || (magnitude > 0 && !one)) {
    throw Error(Error::Kind::kInvalidArgument,
                "a support fraction must be above 0 and at most 1, not " + text);
  }
  return d;
}

// The ceiling of ntrans * d (d in (0, 1]), at least 1, in integers: the
// digits times ntrans by long multiplication, then the point put back.
uint32_t fraction_to_count(const Decimal& d, uint32_t ntrans) {
  if (d.exponent >= 0) return std::max<uint32_t>(ntrans, 1);  // the fraction is 1
  // ntrans has at most 10 digits, so the product has at most 10 more.
  std::string product(d.digits.size() + 10, '0');
  uint64_t carry = 0;
  for (size_t i = 1; i <= product.size(); ++i) {
    const size_t at = d.digits.size() >= i ? d.digits.size() - i : std::string::npos;
    const uint64_t v =
        (at == std::string::npos ? 0 : d.digits[at] - '0') * uint64_t{ntrans} + carry;
    product[product.size() - i] = static_cast<char>('0' + v % 10);
    carry = v / 10;
  }
  const size_t scale = static_cast<size_t>(-d.exponent);
  const size_t whole_digits = product.size() > scale ? product.size() - scale : 0;
  uint64_t count = 0;
  for (size_t i = 0; i < whole_digits; ++i) count = count * 10 + (product[i] - '0');
  if (product.find_first_not_of('0', whole_digits) != std::string::npos) ++count;
  return static_cast<uint32_t>(std::max<uint64_t>(count, 1));
}

}  // namespace

Support Support::fraction(std::string decimal) {
  fraction_of(decimal);
  Spec spec;
  spec.engine.kind = SupportSpec::kCount;
  spec.fraction_pairs.emplace_back(1, std::move(decimal));
  return Support(std::make_shared<Spec>(std::move(spec)));
}

Support Support::fraction_table(std::vector<std::pair<uint32_t, std::string>> fraction_by_length) {
  Spec spec;
  spec.engine.kind = SupportSpec::kCountPairs;
  for (auto& [len, decimal] : fraction_by_length) {
    fraction_of(decimal);
    spec.fraction_pairs.emplace_back(len, std::move(decimal));
  }
  return Support(std::make_shared<Spec>(std::move(spec)));
}

struct Transactions::Data {
  enum Kind { kFile, kLabels, kNumbers, kCodes } kind = kLabels;
  std::string path;
  std::vector<std::vector<std::string>> labels;
  std::vector<std::vector<uint32_t>> numbers;
  std::vector<std::string> code_labels;  // kCodes
  std::vector<uint32_t> codes;
  std::vector<uint64_t> ends;
};

Transactions::Transactions() : data_(std::make_unique<Data>()) {}
Transactions::~Transactions() = default;
Transactions::Transactions(Transactions&&) noexcept = default;
Transactions& Transactions::operator=(Transactions&&) noexcept = default;

Transactions Transactions::from_file(std::string path) {
  Transactions t;
  t.data_->kind = Data::kFile;
  t.data_->path = std::move(path);
  return t;
}

Transactions Transactions::from_labels(std::vector<std::vector<std::string>> transactions) {
  Transactions t;
  t.data_->kind = Data::kLabels;
  t.data_->labels = std::move(transactions);
  return t;
}

Transactions Transactions::from_numbers(std::vector<std::vector<uint32_t>> transactions) {
  Transactions t;
  t.data_->kind = Data::kNumbers;
  t.data_->numbers = std::move(transactions);
  return t;
}

Transactions Transactions::from_codes(std::vector<std::string> labels, std::vector<uint32_t> codes,
                                      std::vector<uint64_t> ends) {
  uint64_t last = 0;
  for (uint64_t end : ends) {
    if (end < last || end > codes.size()) {
      throw Error(Error::Kind::kInvalidArgument,
                  "transaction ends must rise up to the number of codes");
    }
    last = end;
  }
  for (uint32_t c : codes) {
    if (c >= labels.size()) throw Error(Error::Kind::kInvalidArgument, "a code names no label");
  }
  Transactions t;
  t.data_->kind = Data::kCodes;
  t.data_->code_labels = std::move(labels);
  t.data_->codes = std::move(codes);
  t.data_->ends = std::move(ends);
  return t;
}

const char* version() { return QUARLO_VERSION; }

namespace {

[[noreturn]] void fail(Error::Kind kind, const std::string& message) { throw Error(kind, message); }

[[noreturn]] void fail_errno(const std::string& path, int err) {
  if (err == ENOMEM) fail(Error::Kind::kOutOfMemory, path + ": " + strerror(err));
  throw Error(Error::Kind::kIo, path + ": " + strerror(err), err, path);
}

// A file the library is about to read: it must open, and be a regular file.
void check_readable(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) fail_errno(path, errno);
  struct stat st {};
  const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  close(fd);
  if (S_ISDIR(st.st_mode)) throw Error(Error::Kind::kIo, path + ": is a directory", EISDIR, path);
  if (!regular) throw Error(Error::Kind::kIo, path + ": is not a regular file", 0, path);
}

// ---------------------------------------------------------------------------
// Loading: the label table and the records of a run

// The records of one input in a run's buffer, with their item count.
struct Loaded {
  LabelTable labels;
  std::vector<std::string> label_text;  // label of every item number
  uint32_t nitems = 0;
};

// Appends one transaction of item numbers (any order, repeats allowed).
void add_record(Engine* e, TranBuf* db, std::vector<uint32_t>* items, uint32_t* nitems) {
  normalize_record(items);
  if (items->empty()) return;
  if (!insert_tran_to_trandb(&e->pool(), db, items->data(), static_cast<uint32_t>(items->size()), 1)
           .ok()) {
    throw std::bad_alloc();
  }
  // Signed as the binary file's writer compares, so results agree.
  const uint32_t last = items->back();
  if (static_cast<int32_t>(last + 1) > static_cast<int32_t>(*nitems)) *nitems = last + 1;
}

// The records of a transaction file, read as the program converts it:
// numbered text first, then records from its lines.
void load_file(const std::string& path, Engine* e, TranBuf* db, Loaded* in) {
  check_readable(path);
  in->labels.add_reserved_token("-1");
  in->labels.load_labels(path.c_str());
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) fail_errno(path, errno);
  LineReader reader(fd);
  LinePieces pieces;
  std::string conv;
  std::vector<uint32_t> items;
  std::string_view line;
  uint64_t number = 0;
  while (reader.next(&line)) {
    ++number;
    // The converted text ends every line with a newline, the last one too.
    in->labels.convert_line(line, &conv);
    const bool ok = pieces.each(conv, true, [&](std::string_view part) {
      if (!collect_items(part, &items)) return false;
      add_record(e, db, &items, &in->nitems);
      return true;
    });
    if (!ok) {
      close(fd);
      fail(Error::Kind::kInvalidArgument,
           path + ": line " + std::to_string(number) + " holds -1 between two items");
    }
  }
  close(fd);
}

void check_label(const std::string& label) {
  if (label.empty()) fail(Error::Kind::kInvalidArgument, "a label must not be empty");
  if (std::any_of(label.begin(), label.end(), is_white_space)) {
    fail(Error::Kind::kInvalidArgument, "label \"" + label + "\" holds white space");
  }
}

// Records of transactions of labels, by the same rules as lines of a file.
// Item numbers of transaction r, given as n labels through label(i) and
// their numbers through number(i): "-1" at either end is no item, between
// two items it is refused.
template <class Label, class Number>
void labelled_record(size_t r, size_t n, const Label& label, const Number& number,
                     std::vector<uint32_t>* items) {
  items->clear();
  bool after_break = false;
  for (size_t i = 0; i < n; ++i) {
    if (label(i) == "-1") {
      after_break = !items->empty();
      continue;
    }
    if (after_break) {
      fail(Error::Kind::kInvalidArgument,
           "transaction " + std::to_string(r) + " holds -1 between two items");
    }
    items->push_back(number(i));
  }
}

void load_labels(const std::vector<std::vector<std::string>>& data, Engine* e, TranBuf* db,
                 Loaded* in) {
  in->labels.add_reserved_token("-1");
  for (const auto& t : data) {
    for (const std::string& label : t) {
      check_label(label);
      if (label != "-1") in->labels.register_token(label);
    }
  }
  in->labels.assign_item_numbers();
  std::vector<uint32_t> items;
  for (size_t r = 0; r < data.size(); ++r) {
    const std::vector<std::string>& t = data[r];
    labelled_record(
        r, t.size(), [&](size_t i) -> const std::string& { return t[i]; },
        [&](size_t i) { return in->labels.item_number_of(t[i]); }, &items);
    add_record(e, db, &items, &in->nitems);
  }
}

// Records of coded transactions: only labels that some code names are items.
void load_codes(const Transactions::Data& data, Engine* e, TranBuf* db, Loaded* in) {
  in->labels.add_reserved_token("-1");
  const std::vector<std::string>& labels = data.code_labels;
  std::vector<char> named(labels.size(), 0);
  for (uint32_t c : data.codes) named[c] = 1;
  for (size_t i = 0; i < labels.size(); ++i) {
    if (!named[i]) continue;
    check_label(labels[i]);
    if (labels[i] != "-1") in->labels.register_token(labels[i]);
  }
  in->labels.assign_item_numbers();
  std::vector<uint32_t> number(labels.size(), 0);
  for (size_t i = 0; i < labels.size(); ++i) {
    if (named[i] && labels[i] != "-1") number[i] = in->labels.item_number_of(labels[i]);
  }
  std::vector<uint32_t> items;
  uint64_t begin = 0;
  for (size_t r = 0; r < data.ends.size(); ++r) {
    const uint32_t* codes = data.codes.data() + begin;
    labelled_record(
        r, data.ends[r] - begin, [&](size_t i) -> const std::string& { return labels[codes[i]]; },
        [&](size_t i) { return number[codes[i]]; }, &items);
    add_record(e, db, &items, &in->nitems);
    begin = data.ends[r];
  }
}

// Records of transactions of integer labels: numbers sort by value, so an
// item's number is the rank of its value.
void load_numbers(const std::vector<std::vector<uint32_t>>& data, Engine* e, TranBuf* db,
                  Loaded* in) {
  std::vector<uint32_t> values;
  for (const auto& t : data) values.insert(values.end(), t.begin(), t.end());
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
  std::vector<uint32_t> items;
  for (const auto& t : data) {
    items.clear();
    for (uint32_t v : t) {
      items.push_back(static_cast<uint32_t>(std::lower_bound(values.begin(), values.end(), v) -
                                            values.begin()));
    }
    add_record(e, db, &items, &in->nitems);
  }
  for (uint32_t v : values) in->label_text.push_back(std::to_string(v));
}

// Loads any input into `db` (made by init_buf on e->pool()).
void load(const Transactions::Data& data, Engine* e, TranBuf* db, Loaded* in) {
  switch (data.kind) {
    case Transactions::Data::kFile:
      load_file(data.path, e, db, in);
      break;
    case Transactions::Data::kLabels:
      load_labels(data.labels, e, db, in);
      break;
    case Transactions::Data::kCodes:
      load_codes(data, e, db, in);
      break;
    case Transactions::Data::kNumbers:
      load_numbers(data.numbers, e, db, in);
      return;
  }
  for (unsigned i = 0; i < in->labels.label_count(); ++i) {
    in->label_text.push_back(in->labels.label_of(i));
  }
}

// ---------------------------------------------------------------------------
// Mining

// The engine's form of `s` for a run of `ntrans` transactions.
SupportSpec spec_of(const Support::Spec& s, uint32_t ntrans) {
  SupportSpec spec = s.engine;
  for (const auto& [len, decimal] : s.fraction_pairs) {
    spec.count_pairs.emplace_back(len, fraction_to_count(fraction_of(decimal), ntrans));
  }
  if (spec.kind == SupportSpec::kCount && !s.fraction_pairs.empty()) {
    spec.count = spec.count_pairs[0].second;
  }
  return spec;
}

// Keeps every pattern, grouped by length in the order found.
class Collector : public PatternSink {
 public:
  void put(const Pattern& p) override {
    if (p.length >= items_.size()) {
      items_.resize(p.length + 1);
      supports_.resize(p.length + 1);
    }
    std::vector<uint32_t>& flat = items_[p.length];
    const size_t at = flat.size();
    flat.insert(flat.end(), p.items, p.items + p.length);
    sort_items(flat.data() + at, p.length);
    supports_[p.length].push_back(static_cast<uint32_t>(p.support));
  }
  const std::vector<std::vector<uint32_t>>& items() const { return items_; }
  const std::vector<std::vector<uint32_t>>& supports() const { return supports_; }

 private:
  std::vector<std::vector<uint32_t>> items_;     // index: length; flat items
  std::vector<std::vector<uint32_t>> supports_;  // index: length
};

// Hands every pattern to a callback with its labels.
class Visitor : public PatternSink {
 public:
  Visitor(const std::function<void(const PatternView&)>& visit, const Loaded& in)
      : visit_(visit), in_(in) {}
  void put(const Pattern& p) override {
    items_.assign(p.items, p.items + p.length);
    sort_items(items_.data(), p.length);
    labels_.clear();
    for (uint32_t item : items_) labels_.push_back(&in_.label_text[item]);
    if (p.length >= ordinals_.size()) ordinals_.resize(p.length + 1, 0);
    visit_(PatternView{p.length, static_cast<uint32_t>(p.support), ordinals_[p.length]++,
                       items_.data(), labels_.data()});
  }

 private:
  const std::function<void(const PatternView&)>& visit_;
  const Loaded& in_;
  std::vector<uint32_t> items_;
  std::vector<const std::string*> labels_;
  std::vector<uint32_t> ordinals_;
};

class Client : public EngineClient {
 public:
  explicit Client(PatternSink* sink) : sink_(sink) {}
  void counted(const Engine& e, uint32_t ntrans) override {
    stats.transactions = ntrans;
    stats.items = e.setup().nitems;
    stats.max_items = e.stats().max_items;
    stats.avg_items = e.stats().avg_items;
  }
  PatternSink* open_sink(Engine*, uint32_t) override { return sink_; }
  const char* sink_name() const override { return "memory"; }
  Status close_sink(Engine*, bool) override { return Status(); }
  Stats stats;

 private:
  PatternSink* sink_;
};

// Turns a failure of the engine, whose words went to `rep`, into the error
// to throw.
[[noreturn]] void engine_failure(const Status& s, const CollectingReporter& rep) {
  const std::string text = rep.summary();
  switch (s.code()) {
    case Status::Code::kOutOfMemory:
    case Status::Code::kOutOfTreeNodes:
      fail(Error::Kind::kOutOfMemory, "out of memory while mining: " + text);
    case Status::Code::kIo:
      fail(Error::Kind::kIo, text);
    default:
      fail(Error::Kind::kInvalidArgument, text);
  }
}

void check_options(const Options& options) {
  const SupportSpec& support = options.support.spec().engine;
  if (support.kind == SupportSpec::kTableFile) check_readable(support.table_file);
}

double now() { return wall_seconds(); }

// One whole run: load, mine into `sink`, statistics into *stats.
// With `split`, the top level of the search goes to it (one thread).
void run(const Transactions& transactions, const Options& options, const Precounted* pre,
         const std::vector<char>* wanted, Loaded* in, PatternSink* sink, Stats* stats,
         const std::function<void(Loaded*, Engine*, TranBuf*)>& loader,
         TopLevelSplit* split = nullptr) {
  check_options(options);
  CollectingReporter rep;
  Engine e(&rep);
  const double start = now();
  TranBuf db = {};
  if (!init_buf_pool(&e.pool(), 0).ok() || !init_buf(&e.pool(), &db).ok()) throw std::bad_alloc();
  try {
    if (loader) {
      loader(in, &e, &db);
    } else {
      load(transactions.data(), &e, &db, in);
    }
  } catch (...) {
    free_buf(&e.pool(), &db);
    throw;
  }
  EngineSetup setup;
  setup.nitems = pre != nullptr ? static_cast<uint32_t>(in->label_text.size()) : in->nitems;
  setup.min_size = options.min_size;
  setup.max_size = options.max_size;
  setup.threads = split == nullptr ? options.threads : 1;
  setup.split = split;
  setup.wanted = wanted;
  e.configure(setup);
  if (!init_buf_pool(&e.pool(), setup.nitems).ok()) throw std::bad_alloc();
  const double loaded = now();
  Client client(sink);
  const uint32_t ntrans = pre != nullptr ? pre->ntrans : count_tran(&e.pool(), &db);
  if (Status s = mine_database(&e, &db, spec_of(options.support.spec(), ntrans), pre, &client);
      !s.ok()) {
    engine_failure(s, rep);
  }
  *stats = client.stats;
  stats->seconds_load = loaded - start;
  stats->seconds_mine = now() - loaded;
}

// Fills the parents of every itemset and the set of those that are some
// itemset's parent. `offset[k]` is the index of the first itemset of length k.
void find_all_parents(const Collector& c, const std::vector<size_t>& offset,
                      std::vector<std::vector<size_t>>* parents, std::vector<char>* is_parent) {
  parents->assign(offset.back(), {});
  is_parent->assign(offset.back(), 0);
  find_parents(c.items(), [&](uint32_t len, uint32_t ordinal,
                              const std::vector<std::pair<uint32_t, uint32_t>>& found) {
    std::vector<size_t>& list = (*parents)[offset[len] + ordinal];
    for (const auto& [plen, pord] : found) {
      list.push_back(offset[plen] + pord);
      (*is_parent)[offset[plen] + pord] = 1;
    }
  });
}

// Builds the Result of a collected run, with parents and maximal pruning.
void assemble(const Collector& c, const Options& options, Result* r) {
  const double start = now();
  const auto& items = c.items();
  std::vector<size_t> offset(items.size() + 1, 0);
  for (size_t len = 1; len < items.size(); ++len) {
    offset[len + 1] = offset[len] + c.supports()[len].size();
  }
  if (items.empty()) offset.assign(1, 0);
  std::vector<std::vector<size_t>> parents;
  std::vector<char> is_parent;
  if (options.parents || options.maximal) find_all_parents(c, offset, &parents, &is_parent);
  std::vector<char> unclosed;
  if (options.closed) {
    unclosed.assign(offset.back(), 0);
    detail::mark_unclosed(items, c.supports(), offset, &unclosed);
  }
  std::vector<size_t> new_index(offset.back(), SIZE_MAX);
  for (size_t len = 1; len < items.size(); ++len) {
    for (uint32_t n = 0; n < c.supports()[len].size(); ++n) {
      const size_t index = offset[len] + n;
      if (options.maximal && is_parent[index]) continue;
      if (options.closed && unclosed[index]) continue;
      new_index[index] = r->itemsets.size();
      const uint32_t* first = items[len].data() + size_t{n} * len;
      r->itemsets.push_back(
          Itemset{std::vector<uint32_t>(first, first + len), c.supports()[len][n], n});
      if (r->count_by_length.size() < len) r->count_by_length.resize(len, 0);
      ++r->count_by_length[len - 1];
    }
  }
  r->stats.frequent = static_cast<uint32_t>(offset.back());
  if (options.parents) {
    for (size_t index = 0; index < parents.size(); ++index) {
      if (new_index[index] == SIZE_MAX) continue;
      std::vector<size_t> kept;
      for (size_t p : parents[index]) {
        if (new_index[p] != SIZE_MAX) kept.push_back(new_index[p]);
      }
      r->parents.push_back(std::move(kept));
    }
  }
  r->stats.seconds_post = now() - start;
}

Result collect(const Transactions& transactions, const Options& options, const Precounted* pre,
               const std::vector<char>* wanted,
               const std::function<void(Loaded*, Engine*, TranBuf*)>& loader) {
  try {
    Loaded in;
    Collector collector;
    Result r;
    run(transactions, options, pre, wanted, &in, &collector, &r.stats, loader);
    const Stats stats = r.stats;
    assemble(collector, options, &r);
    r.stats.transactions = stats.transactions;
    r.labels = std::move(in.label_text);
    return r;
  } catch (const std::bad_alloc&) {
    fail(Error::Kind::kOutOfMemory, "out of memory");
  }
}

}  // namespace

Result mine(const Transactions& transactions, const Options& options) {
  return collect(transactions, options, nullptr, nullptr, nullptr);
}

namespace detail {

Result mine_keeping_transactions(const Transactions& transactions, const Options& options,
                                 std::vector<uint32_t>* items, std::vector<uint64_t>* ends) {
  auto loader = [&](Loaded* in, Engine* e, TranBuf* db) {
    load(transactions.data(), e, db, in);
    const uint32_t nitems =
        std::max<uint32_t>(in->nitems, static_cast<uint32_t>(in->label_text.size()));
    if (!init_buf_pool(&e->pool(), nitems).ok()) throw std::bad_alloc();
    const uint32_t end = db->position;
    items->reserve(end / sizeof(int32_t));  // a record is its length and its items
    db->position = 0;
    CurTran* tran = nullptr;
    while (read_tran(&e->pool(), db, &tran) != 0) {
      for (int32_t i = 0; i < tran->n; ++i) items->push_back(tran->slot[i].item);
      ends->push_back(items->size());
    }
    db->position = end;
  };
  return collect(transactions, options, nullptr, nullptr, loader);
}

}  // namespace detail

Stats mine(const Transactions& transactions, const Options& options,
           const std::function<void(const PatternView&)>& visit) {
  if (options.maximal || options.parents || options.closed) {
    fail(Error::Kind::kInvalidArgument, "maximal, closed and parents need the collected result");
  }
  try {
    Loaded in;
    Visitor visitor(visit, in);
    Stats stats;
    run(transactions, options, nullptr, nullptr, &in, &visitor, &stats, nullptr);
    return stats;
  } catch (const std::bad_alloc&) {
    fail(Error::Kind::kOutOfMemory, "out of memory");
  }
}

namespace {

// The items of a shard, numbered over the whole run's labels: their global
// supports and which of them the shard produces.
struct ShardItems {
  std::unordered_map<std::string, uint32_t> number;
  std::vector<uint32_t> supports;
  std::vector<char> wanted;

  uint32_t of(const std::string& label) const {
    auto it = number.find(label);
    if (it == number.end())
      fail(Error::Kind::kInvalidArgument, "label \"" + label + "\" has no support");
    return it->second;
  }
};

// Numbers every label of the run, as a whole run would, and the shard's items.
void number_shard(const Shard& shard, Loaded* in, ShardItems* items) {
  in->labels.add_reserved_token("-1");
  for (const auto& [label, count] : shard.item_supports) {
    check_label(label);
    in->labels.register_token(label);
  }
  in->labels.assign_item_numbers();
  for (unsigned i = 0; i < in->labels.label_count(); ++i) {
    in->label_text.push_back(in->labels.label_of(i));
    items->number.emplace(in->labels.label_of(i), i);
  }
  items->supports.assign(in->label_text.size(), 0);
  for (const auto& [label, count] : shard.item_supports) items->supports[items->of(label)] = count;
  items->wanted.assign(in->label_text.size(), 0);
  for (const std::string& label : shard.items) items->wanted[items->of(label)] = 1;
}

// The shard's transactions in the run's item numbers.
void load_shard(const Transactions::Data& data, const ShardItems& numbering, Engine* e, TranBuf* db,
                Loaded* in) {
  std::vector<uint32_t> items;
  if (data.kind == Transactions::Data::kCodes) {
    std::vector<uint32_t> number(data.code_labels.size(), 0);
    std::vector<char> named(data.code_labels.size(), 0);
    for (uint32_t c : data.codes) named[c] = 1;
    for (size_t i = 0; i < number.size(); ++i) {
      if (named[i]) number[i] = numbering.of(data.code_labels[i]);
    }
    uint64_t begin = 0;
    for (uint64_t end : data.ends) {
      items.clear();
      for (uint64_t k = begin; k < end; ++k) items.push_back(number[data.codes[k]]);
      add_record(e, db, &items, &in->nitems);
      begin = end;
    }
    return;
  }
  const size_t n =
      data.kind == Transactions::Data::kLabels ? data.labels.size() : data.numbers.size();
  for (size_t r = 0; r < n; ++r) {
    items.clear();
    if (data.kind == Transactions::Data::kLabels) {
      for (const std::string& label : data.labels[r]) items.push_back(numbering.of(label));
    } else {
      for (uint32_t v : data.numbers[r]) items.push_back(numbering.of(std::to_string(v)));
    }
    add_record(e, db, &items, &in->nitems);
  }
}

}  // namespace

Result mine_shard(const Transactions& transactions, const Shard& shard, const Options& options) {
  if (options.maximal || options.parents || options.closed) {
    fail(Error::Kind::kInvalidArgument,
         "a shard cannot prune maximal or unclosed itemsets or find parents");
  }
  if (transactions.data().kind == Transactions::Data::kFile) {
    fail(Error::Kind::kInvalidArgument, "a shard mines transactions in memory");
  }
  ShardItems numbering;
  Precounted pre;
  pre.ntrans = shard.transactions;
  auto loader = [&](Loaded* in, Engine* e, TranBuf* db) {
    number_shard(shard, in, &numbering);
    load_shard(transactions.data(), numbering, e, db, in);
    pre.supports = numbering.supports.data();
  };
  return collect(transactions, options, &pre, &numbering.wanted, loader);
}

}  // namespace quarlo

// ---------------------------------------------------------------------------
// Mining in parts

namespace quarlo {

using namespace detail;

namespace {

constexpr uint32_t kRecordMagic = 0x31525251;  // "QRR1"

void put_word(std::string* to, uint32_t w) { to->append(reinterpret_cast<const char*>(&w), 4); }

void put_double(std::string* to, double d) { to->append(reinterpret_cast<const char*>(&d), 8); }

// The byte string of merge()'s record: statistics, labels, the run's record.
std::string write_record(const Stats& stats, const std::vector<std::string>& labels,
                         const std::vector<uint32_t>& record) {
  std::string out;
  put_word(&out, kRecordMagic);
  for (uint32_t w : {stats.transactions, stats.items, stats.max_items}) put_word(&out, w);
  for (double d : {stats.avg_items, stats.seconds_load, stats.seconds_mine}) put_double(&out, d);
  put_word(&out, static_cast<uint32_t>(labels.size()));
  for (const std::string& label : labels) {
    put_word(&out, static_cast<uint32_t>(label.size()));
    out += label;
    out.append((4 - label.size() % 4) % 4, '\0');
  }
  put_word(&out, static_cast<uint32_t>(record.size()));
  out.append(reinterpret_cast<const char*>(record.data()), 4 * record.size());
  return out;
}

// Reads merge()'s record back; throws kInvalidArgument when it is not one.
class RecordReader {
 public:
  explicit RecordReader(const std::string& bytes) : bytes_(bytes) {}
  void read(Stats* stats, std::vector<std::string>* labels, std::vector<uint32_t>* record) {
    if (word() != kRecordMagic) bad();
    stats->transactions = word();
    stats->items = word();
    stats->max_items = word();
    stats->avg_items = real();
    stats->seconds_load = real();
    stats->seconds_mine = real();
    for (uint32_t n = word(); n > 0; --n) {
      const uint32_t size = word();
      labels->push_back(std::string(take(size), size));
      take((4 - size % 4) % 4);
    }
    const uint32_t n = word();
    const char* words = take(4 * size_t{n});  // before anything is sized by n
    record->resize(n);
    if (n > 0) memcpy(record->data(), words, 4 * size_t{n});
    if (at_ != bytes_.size()) bad();
  }

 private:
  [[noreturn]] static void bad() {
    fail(Error::Kind::kInvalidArgument, "not the record of a plan");
  }
  const char* take(size_t n) {
    if (n > bytes_.size() - at_) bad();
    const char* p = bytes_.data() + at_;
    at_ += n;
    return p;
  }
  uint32_t word() {
    uint32_t w;
    memcpy(&w, take(4), 4);
    return w;
  }
  double real() {
    double d;
    memcpy(&d, take(8), 8);
    return d;
  }
  const std::string& bytes_;
  size_t at_ = 0;
};

// Loads transactions cut down to the frequent items, numbered over all labels.
void load_with_totals(const Transactions::Data& data, const Totals& totals, Loaded* in, Engine* e,
                      TranBuf* db, ShardItems* numbering) {
  Shard shard;
  shard.transactions = totals.transactions;
  shard.item_supports = totals.item_supports;
  number_shard(shard, in, numbering);
  load_shard(data, *numbering, e, db, in);
}

}  // namespace

Scan scan(const Transactions& transactions) {
  try {
    CollectingReporter rep;
    Engine e(&rep);
    Loaded in;
    TranBuf db = {};
    if (!init_buf_pool(&e.pool(), 0).ok() || !init_buf(&e.pool(), &db).ok()) throw std::bad_alloc();
    try {
      load(transactions.data(), &e, &db, &in);
    } catch (...) {
      free_buf(&e.pool(), &db);
      throw;
    }
    Scan out;
    out.labels = std::move(in.label_text);
    out.supports.assign(out.labels.size(), 0);
    if (!init_buf_pool(&e.pool(), static_cast<uint32_t>(out.labels.size())).ok()) {
      free_buf(&e.pool(), &db);
      throw std::bad_alloc();
    }
    CurTran* tran = nullptr;
    db.position = 0;
    while (read_tran(&e.pool(), &db, &tran) != 0) {
      for (int32_t i = 0; i < tran->n; ++i) {
        out.codes.push_back(tran->slot[i].item);
        ++out.supports[tran->slot[i].item];
      }
      out.ends.push_back(out.codes.size());
    }
    free_buf(&e.pool(), &db);
    return out;
  } catch (const std::bad_alloc&) {
    fail(Error::Kind::kOutOfMemory, "out of memory");
  }
}

uint32_t lowest_count(const Options& options, const Totals& totals) {
  check_options(options);
  CollectingReporter rep;
  Engine e(&rep);
  EngineSetup setup;
  setup.nitems = static_cast<uint32_t>(totals.item_supports.size());
  setup.min_size = options.min_size;
  e.configure(setup);
  const uint32_t ntrans = totals.transactions;
  if (!build_support_table(&e, spec_of(options.support.spec(), ntrans), ntrans).ok()) {
    fail(Error::Kind::kInvalidArgument, rep.summary());
  }
  return e.lowest_count();
}

Plan plan(const Transactions& transactions, const Options& options, uint32_t groups,
          const Totals* totals) {
  if (groups == 0) fail(Error::Kind::kInvalidArgument, "a plan needs at least one group");
  if (totals != nullptr && transactions.data().kind == Transactions::Data::kFile) {
    fail(Error::Kind::kInvalidArgument, "transactions counted apart must be in memory");
  }
  Options top = options;
  top.maximal = top.parents = false;
  try {
    Loaded in;
    Planner planner(groups);
    Stats stats;
    ShardItems numbering;
    Precounted pre;
    std::function<void(Loaded*, Engine*, TranBuf*)> loader;
    if (totals != nullptr) {
      pre.ntrans = totals->transactions;
      loader = [&](Loaded* in_, Engine* e, TranBuf* db) {
        load_with_totals(transactions.data(), *totals, in_, e, db, &numbering);
        pre.supports = numbering.supports.data();
      };
    }
    run(transactions, top, totals != nullptr ? &pre : nullptr, nullptr, &in, &planner, &stats,
        loader, &planner);
    Plan p;
    std::vector<uint32_t> record;
    planner.finish(&p.parts, &p.work, &record);
    p.record = write_record(stats, in.label_text, record);
    return p;
  } catch (const std::bad_alloc&) {
    fail(Error::Kind::kOutOfMemory, "out of memory");
  }
}

std::string mine_part(const std::string& part) {
  std::vector<uint32_t> words;
  if (Status s = mine_part_words(part, &words); !s.ok()) {
    fail(s.is_out_of_memory() ? Error::Kind::kOutOfMemory : Error::Kind::kInvalidArgument,
         s.message());
  }
  return std::string(reinterpret_cast<const char*>(words.data()), 4 * words.size());
}

Result merge(const std::string& record, const std::vector<std::string>& mined,
             const Options& options) {
  try {
    Result r;
    std::vector<uint32_t> words;
    RecordReader(record).read(&r.stats, &r.labels, &words);
    std::vector<std::vector<uint32_t>> parts(mined.size());
    for (size_t i = 0; i < mined.size(); ++i) {
      if (mined[i].size() % 4 != 0) fail(Error::Kind::kInvalidArgument, "not the result of a part");
      parts[i].resize(mined[i].size() / 4);
      if (!mined[i].empty()) memcpy(parts[i].data(), mined[i].data(), mined[i].size());
    }
    Collector collector;
    std::string error;
    const uint32_t nitems = static_cast<uint32_t>(r.labels.size());
    if (!replay_parts(words, parts, nitems, &collector, &error))
      fail(Error::Kind::kInvalidArgument, error);
    const Stats stats = r.stats;
    assemble(collector, options, &r);
    r.stats.transactions = stats.transactions;
    return r;
  } catch (const std::bad_alloc&) {
    fail(Error::Kind::kOutOfMemory, "out of memory");
  }
}

}  // namespace quarlo
