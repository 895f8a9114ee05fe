#include "support/support_table.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/sites.h"
#include "base/tokens.h"

namespace quarlo::detail {

namespace {

const uint32_t kUnset = 4294967295u;  // length 1 not yet given while a table is read
const size_t kMaxWord = 19;           // longest word accepted in a support-table file

// Reads one blank-separated word like fscanf("%s"); false at end of file.
bool read_word(FILE* in, std::string* word) {
  int c;
  do {
    c = getc(in);
  } while (c != EOF && is_white_space(static_cast<char>(c)));
  if (c == EOF) return false;
  word->clear();
  while (c != EOF && !is_white_space(static_cast<char>(c))) {
    word->push_back(static_cast<char>(c));
    c = getc(in);
  }
  return true;
}

// Reads the "LEN F(LEN)" pairs up to the first length outside 0 .. nitems.
// Returns false after a report on a word that is too long.
bool read_pairs(FILE* in, const char* file, uint32_t ntrans, uint32_t nitems, LengthCounts* pairs,
                Reporter* rep) {
  std::string first;
  std::string second;  // keeps the previous value when a last word has no partner
  while (read_word(in, &first)) {
    read_word(in, &second);
    if (first.size() > kMaxWord || second.size() > kMaxWord) {
      rep->printf("%s(%u) Word too long (over %zu characters) in \"%s\"", sites::kTableWord.module,
                  sites::kTableWord.line, kMaxWord, file);
      return false;
    }
    const long len = strtol(first.c_str(), nullptr, 10);
    if (len < 0 || static_cast<unsigned long>(len) > nitems) break;
    pairs->emplace_back(len,
                        len == 0 ? 0 : percent_to_count(strtod(second.c_str(), nullptr), ntrans));
    if (len == 0) break;
  }
  return true;
}

}  // namespace

uint32_t percent_to_count(double percent, uint32_t ntrans) {
  // 80-bit extended precision, with the two products in this order: the
  // result is the ceiling of ntrans * percent / 100 as extended precision sees it.
  const long double n = ntrans;
  const long double f = percent;
  const long double q = truncl((n * f) / 100.0L);
  long double count;
  if (q < n * (f / 100.0L)) {
    count = q + 1.0L;
  } else if (percent == 0.0) {
    count = 1.0L;
  } else {
    count = q;
  }
  if (!(count >= 1.0L)) return 1;  // negative percentages demand what 0 % does
  if (count >= 4294967295.0L) return 4294967295u;
  return static_cast<uint32_t>(count);
}

// Binary search over the per-length counts as the engine expects it: index 0
// is never examined and the last index is taken to qualify without a test.
uint32_t SupportTable::search_length(int32_t support) const {
  int64_t lo = 0;
  int64_t hi = static_cast<int64_t>(nlengths_) - 1;
  while (hi - lo > 1) {
    int64_t mid = (lo + hi) / 2;
    if (static_cast<int32_t>(bound_[mid]) > support) {
      lo = mid;
    } else {
      hi = mid;
    }
  }
  return static_cast<uint32_t>(hi + 1);
}

// Lengths 1 .. min_size-1 get a count no pattern can reach (ntrans + 1).
void SupportTable::block_short_lengths(uint32_t ntrans, uint32_t min_size) {
  uint32_t last = min_size > 1 ? min_size - 1 : 0;
  if (last > nlengths_) last = nlengths_;
  for (uint32_t len = 1; len <= last; ++len) minsup_[len - 1] = ntrans + 1;
}

Status SupportTable::load_file(const char* file, uint32_t ntrans, uint32_t nitems,
                               uint32_t min_size, Reporter* rep) {
  FILE* in = fopen(file, "r");
  if (in == nullptr) {
    const int err = errno;
    rep->perror("%s(%u) fopen(%s, \"r\")", sites::kTableOpen.module, sites::kTableOpen.line, file);
    return Status::io(err, file);
  }
  LengthCounts pairs;
  const bool read = read_pairs(in, file, ntrans, nitems, &pairs, rep);
  fclose(in);
  if (!read) return Status::invalid_argument();
  return set_pairs(pairs, file, ntrans, nitems, min_size, rep);
}

Status SupportTable::set_pairs(const LengthCounts& pairs, const char* name, uint32_t ntrans,
                               uint32_t nitems, uint32_t min_size, Reporter* rep) {
  // One entry even without items, so that length 1 is always asked for.
  minsup_.assign(nitems > 0 ? nitems : 1, 0);
  nlengths_ = nitems;
  minsup_[0] = kUnset;
  for (const auto& [len, count] : pairs) {
    if (len < 0 || static_cast<unsigned long>(len) > nitems) break;
    if (len == 0) {
      rep->printf("%s(%u) Invalid length 0 in \"%s\"", sites::kTableLength0.module,
                  sites::kTableLength0.line, name);
      return Status::invalid_argument();
    }
    minsup_[static_cast<size_t>(len) - 1] = count;
  }
  if (minsup_[0] == kUnset) {
    rep->printf("%s(%u) Support value for length=1 must be given in \"%s\"",
                sites::kTableLength1.module, sites::kTableLength1.line, name);
    return Status::invalid_argument();
  }
  for (uint32_t i = 1; i < nitems; ++i) {
    if (minsup_[i] == 0) minsup_[i] = minsup_[i - 1];
  }
  block_short_lengths(ntrans, min_size);
  make_bound();
  lowest_ = bound_[nitems > 0 ? nitems - 1 : 0];
  for (int32_t s = 0; s < kCacheSize; ++s) shortest_[s] = search_length(s);
  make_direct();
  return Status();
}

void SupportTable::set_constant(uint32_t count, uint32_t ntrans, uint32_t nitems,
                                uint32_t min_size) {
  minsup_.assign(nitems > 0 ? nitems : 1, count);
  nlengths_ = nitems;
  lowest_ = count;
  for (int32_t s = 0; s < kCacheSize; ++s) shortest_[s] = min_size == 0 ? 1 : min_size;
  block_short_lengths(ntrans, min_size);
  make_bound();
  make_direct();
}

void SupportTable::make_bound() {
  bound_ = minsup_;
  for (size_t i = 1; i < bound_.size(); ++i) bound_[i] = std::min(bound_[i], bound_[i - 1]);
}

// The search compares the support with bound_[1 .. n-2] as signed counts: a
// support at or above all of them always moves down and ends at length 2
// (with two lengths or fewer it never compares and answers n). Below that
// point, and below kMostDirect, every answer is stored.
void SupportTable::make_direct() {
  const int64_t n = nlengths_;
  int32_t top = 0;
  for (int64_t i = 1; i <= n - 2; ++i) top = std::max(top, static_cast<int32_t>(bound_[i]));
  same_from_ = top;
  same_length_ = search_length(top);
  const uint32_t size = std::max<uint32_t>(kCacheSize, std::min<uint32_t>(top, kMostDirect));
  direct_.resize(size);
  std::copy(shortest_, shortest_ + kCacheSize, direct_.begin());
  for (uint32_t s = kCacheSize; s < size; ++s) direct_[s] = search_length(static_cast<int32_t>(s));
}

std::vector<uint32_t> SupportTable::save() const {
  std::vector<uint32_t> w = {nlengths_, lowest_, static_cast<uint32_t>(minsup_.size())};
  w.insert(w.end(), shortest_, shortest_ + kCacheSize);
  w.insert(w.end(), minsup_.begin(), minsup_.end());
  w.insert(w.end(), bound_.begin(), bound_.end());
  return w;
}

bool SupportTable::restore(const uint32_t* words, size_t n) {
  if (n < 3 + kCacheSize) return false;
  const size_t size = words[2];
  // One entry per length (one at least), as the builders make them.
  if (size == 0 || n != 3 + kCacheSize + 2 * size || words[0] > size ||
      size > std::max(words[0], 1u)) {
    return false;
  }
  nlengths_ = words[0];
  lowest_ = words[1];
  std::copy(words + 3, words + 3 + kCacheSize, shortest_);
  const uint32_t* table = words + 3 + kCacheSize;
  minsup_.assign(table, table + size);
  bound_.assign(table + size, table + 2 * size);
  make_direct();
  return true;
}

}  // namespace quarlo::detail
