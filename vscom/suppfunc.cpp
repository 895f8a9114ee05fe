#include "suppfunc.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "log.h"
#include "vscmdl.h"

namespace {

const char kSrc[] = "../vscom/suppfunc";
const uint32_t kUnset = 4294967295u;  // length 1 not yet given while a file is read
const int32_t kCacheSize = 100;       // counts below this are answered from the cache
const size_t kMaxWord = 19;           // longest word accepted in a support-table file

uint32_t* g_minsup = nullptr;        // entry L-1: minimum support count of length L
uint32_t g_nlengths = 0;             // number of lengths in g_minsup
uint32_t g_lowest = 0;               // smallest minimum support of all lengths
uint32_t* g_shortest = nullptr;      // entry s: shortest length for count s < 100

// Binary search over the per-length counts as the engine expects it: index 0
// is never examined and the last index is taken to qualify without a test.
uint32_t search_length(int32_t support) {
  int64_t lo = 0;
  int64_t hi = static_cast<int64_t>(g_nlengths) - 1;
  while (hi - lo > 1) {
    int64_t mid = (lo + hi) / 2;
    if (static_cast<int32_t>(g_minsup[mid]) > support) {
      lo = mid;
    } else {
      hi = mid;
    }
  }
  return static_cast<uint32_t>(hi + 1);
}

// Reads one blank-separated word like fscanf("%s"); false at end of file.
bool read_word(FILE* in, std::string* word) {
  int c;
  do {
    c = getc(in);
  } while (c != EOF && isspace(c));
  if (c == EOF) return false;
  word->clear();
  while (c != EOF && !isspace(c)) {
    word->push_back(static_cast<char>(c));
    c = getc(in);
  }
  return true;
}

// Lengths 1 .. min_size-1 get a count no pattern can reach (ntrans + 1).
void block_short_lengths(uint32_t ntrans, uint32_t nitems) {
  uint32_t m = get_min_size();
  uint32_t last = m > 1 ? m - 1 : 0;
  if (last > nitems) last = nitems;
  for (uint32_t len = 1; len <= last; ++len) g_minsup[len - 1] = ntrans + 1;
}

uint32_t* alloc_counts(uint32_t n, unsigned line) {
  uint32_t* p = static_cast<uint32_t*>(calloc(n > 0 ? n : 1, sizeof(uint32_t)));
  if (p == nullptr) log_perror("%s(%u) calloc(%u, %u)", kSrc, line, n, 4u);
  return p;
}

// Reads the "LEN F(LEN)" pairs into g_minsup. Returns 0, or 1 after a report.
int read_table(FILE* in, const char* file, uint32_t ntrans, uint32_t nitems) {
  g_minsup[0] = kUnset;
  std::string first;
  std::string second;  // keeps the previous value when a last word has no partner
  while (read_word(in, &first)) {
    read_word(in, &second);
    if (first.size() > kMaxWord || second.size() > kMaxWord) {
      log_printf("%s(%u) Word too long (over %zu characters) in \"%s\"", kSrc, __LINE__,
                 kMaxWord, file);
      return 1;
    }
    long len = strtol(first.c_str(), nullptr, 10);
    if (len < 0 || static_cast<unsigned long>(len) > nitems) break;
    if (len == 0) {
      log_printf("%s(%u) Invalid length 0 in \"%s\"", kSrc, __LINE__, file);
      return 1;
    }
    g_minsup[len - 1] = percent_to_count(strtod(second.c_str(), nullptr), ntrans);
  }
  return 0;
}

int fill_cache_by_search() {
  g_shortest = alloc_counts(kCacheSize, __LINE__);
  if (g_shortest == nullptr) return 1;
  for (int32_t s = 0; s < kCacheSize; ++s) g_shortest[s] = search_length(s);
  return 0;
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

int init_freq_tbl(const char* file, uint32_t ntrans, uint32_t nitems) {
  free_freq_tbl();
  FILE* in = fopen(file, "r");
  if (in == nullptr) {
    log_perror("%s(%u) fopen(%s, \"r\")", kSrc, __LINE__, file);
    return 1;
  }
  g_minsup = alloc_counts(nitems, __LINE__);
  if (g_minsup == nullptr || read_table(in, file, ntrans, nitems) != 0) {
    fclose(in);
    return 1;
  }
  if (g_minsup[0] == kUnset) {
    log_printf("%s(%u) Support value for length=1 must be given in \"%s\"", kSrc, __LINE__, file);
    fclose(in);
    return 1;
  }
  for (uint32_t i = 1; i < nitems; ++i) {
    if (g_minsup[i] == 0) g_minsup[i] = g_minsup[i - 1];
  }
  block_short_lengths(ntrans, nitems);
  fclose(in);
  g_nlengths = nitems;
  g_lowest = g_minsup[nitems > 0 ? nitems - 1 : 0];
  return fill_cache_by_search();
}

int init_freq_tbl_with_minsup(double percent, uint32_t ntrans, uint32_t nitems) {
  free_freq_tbl();
  g_minsup = alloc_counts(nitems, __LINE__);
  if (g_minsup == nullptr) return 1;
  const uint32_t count = percent_to_count(percent, ntrans);
  for (uint32_t i = 0; i < nitems; ++i) g_minsup[i] = count;
  g_nlengths = nitems;
  g_lowest = count;
  g_shortest = alloc_counts(kCacheSize, __LINE__);
  if (g_shortest == nullptr) return 1;
  const uint32_t m = get_min_size();
  for (int32_t s = 0; s < kCacheSize; ++s) g_shortest[s] = m == 0 ? 1 : m;
  block_short_lengths(ntrans, nitems);
  return 0;
}

uint32_t minsup_of_length(uint32_t len) { return g_minsup[len - 1]; }

uint32_t min_length_of_support(int32_t support) {
  if (support >= 0 && support < kCacheSize) return g_shortest[support];
  return search_length(support);
}

uint32_t lowest_minsup() { return g_lowest; }

void free_freq_tbl() {
  free(g_minsup);
  free(g_shortest);
  g_minsup = nullptr;
  g_shortest = nullptr;
  g_nlengths = 0;
}
