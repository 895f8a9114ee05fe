#include "engine/parts.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "engine/engine_tables.h"

namespace quarlo::detail {

namespace {

constexpr uint32_t kPartMagic = 0x31505251;  // "QRP1"
constexpr uint32_t kMostItems = 1u << 28;    // more distinct items than any part holds

class WordSink : public PatternSink {
 public:
  void put(const Pattern& p) override { append_pattern(to, p); }
  std::vector<uint32_t>* to = nullptr;
};

// Reads words from a byte string, checking every length against what is left.
class WordReader {
 public:
  explicit WordReader(const std::string& bytes)
      : at_(reinterpret_cast<const unsigned char*>(bytes.data())),
        left_(bytes.size() / 4),
        ok_(bytes.size() % 4 == 0) {}
  bool ok() const { return ok_; }
  size_t left() const { return left_; }
  uint32_t next() {
    if (left_ == 0) {
      ok_ = false;
      return 0;
    }
    uint32_t w;
    memcpy(&w, at_, 4);
    at_ += 4;
    --left_;
    return w;
  }
  // n words into `to`, or false.
  bool take(size_t n, void* to) {
    if (!ok_ || n > left_) return ok_ = false;
    if (n > 0) memcpy(to, at_, 4 * n);
    at_ += 4 * n;
    left_ -= n;
    return true;
  }

 private:
  const unsigned char* at_;
  size_t left_;
  bool ok_;
};

void append_words(std::string* to, const uint32_t* w, size_t n) {
  to->append(reinterpret_cast<const char*>(w), 4 * n);
}

// A part's engine: the run's support table and limits, and scratch of its
// own. False when the head is not one of a part; out of memory is thrown.
bool prepare_engine(WordReader* in, Engine* e) {
  EngineSetup setup;
  setup.nitems = in->next();
  setup.min_size = in->next();
  setup.max_size = in->next();
  e->configure(setup);
  const uint32_t n = in->next();
  if (in->ok() && n == 0 && e->setup().nitems == 0)
    return in->left() == 0;  // a run with nothing below its top
  if (!in->ok() || e->setup().nitems > kMostItems) return false;
  std::vector<uint32_t> table(in->ok() && n <= in->left() ? n : 0);
  if (!in->take(n, table.data()) || !tables(*e).support.restore(table.data(), n) ||
      tables(*e).support.lengths() != e->setup().nitems) {
    return false;
  }
  if (!prepare_scratch(e).ok()) throw std::bad_alloc();
  return true;
}

// True when `w` holds n words of records ("n items" or "-weight n items",
// n > 0, distinct items below nitems, weights adding up to at most the
// item's support) ending with the end word. `seen` has
// nitems entries, all 0, and is left so.
bool well_formed(const int32_t* w, uint32_t n, uint32_t nitems, int32_t support,
                 std::vector<char>* seen) {
  size_t i = 0;
  bool ok = support > 0;
  int64_t weight =
      0;  // the records are some of the item's nodes: their counts add up to at most its support
  while (ok && i < n && w[i] != 0) {
    size_t count = static_cast<uint32_t>(w[i]);
    size_t first = i + 1;
    weight += w[i] < 0 ? -static_cast<int64_t>(w[i]) : 1;
    if (weight > support) return false;
    if (w[i] < 0) {
      if (i + 1 >= n || w[i + 1] <= 0) return false;
      count = static_cast<uint32_t>(w[i + 1]);
      first = i + 2;
    }
    if (count > n - first || count > nitems) return false;
    size_t k = first;
    for (; ok && k < first + count; ++k) {
      ok = w[k] >= 0 && static_cast<uint32_t>(w[k]) < nitems && !(*seen)[w[k]];
      if (ok) (*seen)[w[k]] = 1;
    }
    for (size_t j = first; j < k; ++j) {
      if (w[j] >= 0 && static_cast<uint32_t>(w[j]) < nitems) (*seen)[w[j]] = 0;
    }
    i = first + count;
  }
  return ok && i == n - 1;
}

// Mines the next item of a part into `out`. False when the part is cut short
// or holds an item outside the run; *mined tells how mining went.
bool mine_next_item(WordReader* in, Engine* e, WordSink* sink, Status* mined) {
  const uint32_t index = in->next();
  const uint32_t item = in->next();
  const int32_t support = static_cast<int32_t>(in->next());
  const uint32_t n = in->next();
  if (!in->ok() || item >= e->setup().nitems || n == 0 || n > in->left()) return false;
  TranBuf cdb = {4 * n, 0, static_cast<int32_t*>(malloc(4 * size_t{n}))};
  if (cdb.data == nullptr) throw std::bad_alloc();
  in->take(n, cdb.data);
  std::vector<char>& seen = tables(*e).tree.seen;
  if (seen.size() < e->setup().nitems) seen.assign(e->setup().nitems, 0);
  if (!well_formed(cdb.data, n, e->setup().nitems, support, &seen)) {
    free(cdb.data);
    return false;
  }
  std::vector<uint32_t>& out = *sink->to;
  out.push_back(index);
  const size_t count_at = out.size();
  out.push_back(0);
  *mined = mine_top_database(*e, item, support, &cdb);
  out[count_at] = static_cast<uint32_t>(out.size() - count_at - 1);
  return true;
}

}  // namespace

void Planner::put(const Pattern& p) {
  record_.push_back(0);
  append_pattern(&record_, p);
}

Status Planner::conditional(Engine& e, uint32_t item, int32_t support, NodeId chain) {
  TranBuf cdb;
  if (Status s = collect_top_item(e, tree_, support, chain, &cdb); !s.ok()) return s;
  const size_t n = cdb.position / 4 + 1;  // the records and the end word
  try {
    const uint32_t g =
        static_cast<uint32_t>(std::min_element(work_.begin(), work_.end()) - work_.begin());
    const uint32_t k = static_cast<uint32_t>(owner_.size());
    const uint32_t words[] = {k, item, static_cast<uint32_t>(support), static_cast<uint32_t>(n)};
    append_words(&parts_[g], words, 4);
    append_words(&parts_[g], reinterpret_cast<const uint32_t*>(cdb.data), n);
    work_[g] += n;
    owner_.push_back(g);
    record_.push_back(1);
    record_.push_back(k);
  } catch (const std::bad_alloc&) {
    free_buf(&tables(e).pool, &cdb);
    e.rep->trace_errno("malloc");
    return Status::out_of_memory();
  }
  free_buf(&tables(e).pool, &cdb);
  return Status();
}

void Planner::start_parts(const std::vector<uint32_t>& run) {
  for (std::string& part : parts_) {
    append_words(&part, &kPartMagic, 1);
    append_words(&part, run.data(), run.size());
  }
  started_ = true;
}

Status Planner::begin_item(Engine& e, uint32_t) {
  if (started_) return Status();
  try {
    std::vector<uint32_t> run = {e.setup().nitems, e.setup().min_size, e.setup().max_size};
    const std::vector<uint32_t> table = tables(e).support.save();
    run.push_back(static_cast<uint32_t>(table.size()));
    run.insert(run.end(), table.begin(), table.end());
    start_parts(run);
  } catch (const std::bad_alloc&) {
    e.rep->trace_errno("malloc");
    return Status::out_of_memory();
  }
  return Status();
}

void Planner::finish(std::vector<std::string>* parts, std::vector<uint64_t>* work,
                     std::vector<uint32_t>* record) {
  if (!started_) start_parts({0, 0, 0, 0});
  *parts = std::move(parts_);
  *work = std::move(work_);
  *record = std::move(record_);
  record->push_back(2);  // the owners follow
  record->insert(record->end(), owner_.begin(), owner_.end());
}

Status mine_part_words(const std::string& part, std::vector<uint32_t>* out) {
  WordReader in(part);
  CollectingReporter rep;
  Engine e(&rep);
  WordSink sink;
  sink.to = out;
  tables(e).sink = &sink;
  try {
    if (in.next() != kPartMagic || !prepare_engine(&in, &e)) {
      return Status::invalid_argument("not a part of a planned run");
    }
    while (in.ok() && in.left() > 0) {
      Status mined;
      if (!mine_next_item(&in, &e, &sink, &mined)) {
        return Status::invalid_argument("a part cut short or not of this run");
      }
      if (!mined.ok()) {
        return Status(mined.is_out_of_memory()
                          ? Status::out_of_memory("mining a part failed: " + rep.summary())
                          : Status::invalid_argument("mining a part failed: " + rep.summary()));
      }
    }
  } catch (const std::bad_alloc&) {
    return Status::out_of_memory("out of memory while mining a part");
  }
  return Status();
}

namespace {

// Where the owners start in a record (one past the end marker), or 0.
size_t owners_of(const std::vector<uint32_t>& record) {
  for (size_t i = 0; i < record.size();) {
    if (record[i] == 2) return i + 1;
    const size_t step = record[i] == 0 && i + 1 < record.size() ? 3 + size_t{record[i + 1]} : 2;
    if (record[i] > 2) return 0;
    i += step;
  }
  return 0;
}

}  // namespace

bool replay_parts(const std::vector<uint32_t>& record,
                  const std::vector<std::vector<uint32_t>>& mined, uint32_t nitems,
                  PatternSink* sink, std::string* error) {
  *error = "the parts' results do not fit the plan";
  const size_t owners = owners_of(record);
  if (owners == 0) return false;
  std::vector<size_t> cursor(mined.size(), 0);
  for (size_t i = 0; i + 1 < owners;) {
    if (record[i] == 0) {
      const size_t end = i + 3 + record[i + 1];
      if (end >= owners || !replay_patterns(record.data() + i + 1, end - i - 1, nitems, sink))
        return false;
      i = end;
      continue;
    }
    const uint32_t k = record[i + 1];
    if (owners + k >= record.size() || record[owners + k] >= mined.size()) return false;
    const std::vector<uint32_t>& w = mined[record[owners + k]];
    size_t& c = cursor[record[owners + k]];
    if (w.size() - c < 2 || w[c] != k || w[c + 1] > w.size() - c - 2) return false;
    if (!replay_patterns(w.data() + c + 2, w[c + 1], nitems, sink)) return false;
    c += 2 + w[c + 1];
    i += 2;
  }
  for (size_t p = 0; p < mined.size(); ++p) {
    if (cursor[p] != mined[p].size()) return false;
  }
  error->clear();
  return true;
}

}  // namespace quarlo::detail
