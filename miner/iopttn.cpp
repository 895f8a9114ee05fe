#include "iopttn.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "util.h"
#include "vscmdl.h"

namespace {

const char kSrc[] = "iopttn";

// Lines are assembled by hand in this buffer and written in large slices; a
// flush happens whenever less than kSlack bytes are left, which covers the
// longest single field.
constexpr size_t kOutBytes = 1 << 20;
constexpr size_t kSlack = 64;

FILE* g_out = nullptr;
char* g_buf = nullptr;
size_t g_used = 0;
int g_write_errno = 0;  // errno of the first failed write since the open, or 0
uint32_t g_ntrans = 0;
uint32_t g_min_size = 1;
uint32_t g_max_size = 0xffffffffu;
uint32_t* g_per_length = nullptr;  // written patterns per length, index L - 1
uint32_t g_lengths = 0;            // entries of g_per_length
uint32_t* g_scratch = nullptr;     // the items of one pattern, sorted
uint32_t g_total = 0;

// Percentage text by support: entry s holds the "%.3f" text of s * 100 / ntrans
// (first byte its length, 0 while not yet formatted). A percentage never
// exceeds "100.000", so 7 characters suffice for every support <= ntrans.
constexpr size_t kPctSlot = 8;
char* g_pct = nullptr;

void flush_out() {
  if (g_used > 0 && fwrite(g_buf, 1, g_used, g_out) != g_used && g_write_errno == 0) {
    g_write_errno = errno != 0 ? errno : EIO;
  }
  g_used = 0;
}

char* put_percent(char* out, int32_t support) {
  if (support >= 0 && static_cast<uint32_t>(support) <= g_ntrans) {
    char* slot = g_pct + kPctSlot * static_cast<size_t>(support);
    if (slot[0] == 0) {
      char text[32];
      int n = snprintf(text, sizeof text, "%.3f", support * 100.0 / g_ntrans);
      if (n > 0 && n < static_cast<int>(kPctSlot)) {
        slot[0] = static_cast<char>(n);
        memcpy(slot + 1, text, static_cast<size_t>(n));
      }
    }
    if (slot[0] != 0) {
      memcpy(out, slot + 1, static_cast<size_t>(slot[0]));
      return out + slot[0];
    }
  }
  return out + snprintf(out, kSlack, "%.3f", support * 100.0 / g_ntrans);
}

void sort_items(uint32_t* a, uint32_t n) {
  if (n > 16) {
    std::sort(a, a + n);
    return;
  }
  for (uint32_t i = 1; i < n; ++i) {
    const uint32_t v = a[i];
    uint32_t j = i;
    for (; j > 0 && a[j - 1] > v; --j) a[j] = a[j - 1];
    a[j] = v;
  }
}

// Makes g_per_length at least `len` entries long; false when memory is short.
bool reserve_lengths(uint32_t len) {
  if (len <= g_lengths) return true;
  uint32_t grown = std::max<uint32_t>(len, 2 * g_lengths);
  void* p = realloc(g_per_length, sizeof(uint32_t) * grown);
  if (p == nullptr) return false;
  g_per_length = static_cast<uint32_t*>(p);
  std::fill(g_per_length + g_lengths, g_per_length + grown, 0u);
  g_lengths = grown;
  return true;
}

}  // namespace

int open_pattern_file(const char* path, uint32_t ntrans, uint32_t nitems) {
  FILE* f = fopen(path, "w");
  if (f == nullptr) {
    log_perror("%s(%u) fopen(%s)", kSrc, 26u, path);
    return -1;
  }
  g_write_errno = 0;
  free(g_per_length);
  free(g_scratch);
  free(g_pct);
  if (g_buf == nullptr) g_buf = static_cast<char*>(malloc(kOutBytes));
  g_per_length = nullptr;
  g_lengths = 0;
  g_scratch = static_cast<uint32_t*>(malloc(sizeof(uint32_t) * (nitems + 1)));
  g_pct = static_cast<char*>(calloc(static_cast<size_t>(ntrans) + 1, kPctSlot));
  if (g_buf == nullptr || g_scratch == nullptr || g_pct == nullptr || !reserve_lengths(16)) {
    log_printf("%s(%u) new(%u) failed", kSrc, 37u, 0u);
    fclose(f);
    return -1;
  }
  g_out = f;
  g_used = 0;
  g_ntrans = ntrans;
  g_min_size = get_min_size();
  g_max_size = get_max_size();
  return 0;
}

void write_freqpattern(const Pattern& p) {
  const uint32_t len = p.length;
  if (g_out == nullptr || len > g_max_size || len < g_min_size) return;
  if (!reserve_lengths(len)) return;
  if (kOutBytes - g_used < kSlack) flush_out();
  char* out = g_buf + g_used;
  out = put_decimal(out, len - 1);
  *out++ = '-';
  out = put_decimal(out, g_per_length[len - 1]++);
  *out++ = ' ';
  out = put_decimal(out, static_cast<uint32_t>(p.support));
  *out++ = ' ';
  out = put_percent(out, p.support);
  memcpy(g_scratch, p.items, sizeof(uint32_t) * len);
  sort_items(g_scratch, len);
  for (uint32_t i = 0; i < len; ++i) {
    g_used = static_cast<size_t>(out - g_buf);
    if (kOutBytes - g_used < kSlack) {
      flush_out();
      out = g_buf;
    }
    *out++ = ' ';
    out = put_decimal(out, g_scratch[i]);
  }
  *out++ = '\n';
  g_used = static_cast<size_t>(out - g_buf);
  ++g_total;
}

int close_pattern_file() {
  flush_out();
  FILE* f = g_out;
  g_out = nullptr;
  // A write that failed on the way (a full disk) fails the close as well, so a
  // truncated pattern file never passes for a complete one.
  const int write_errno = g_write_errno;
  g_write_errno = 0;
  if (f == nullptr || fclose(f) != 0 || write_errno != 0) {
    if (write_errno != 0) errno = write_errno;
    log_perror("%s(%u) fclose() failed", kSrc, 47u);
    return -1;
  }
  free(g_per_length);
  g_per_length = nullptr;
  g_lengths = 0;
  return 0;
}

uint32_t pattern_count() { return g_total; }
