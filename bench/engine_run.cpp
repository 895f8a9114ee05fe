// Runs the mining engine alone on a numeric transaction file (one transaction
// a line, items as non-negative integers): writes FILE.qr with the raw item
// numbers, sets item_count and calls find_frequent_patterns with the same
// options as quarlo (-s, -S, -m, -M). The patterns land in FILE.fp_conv.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "qr.h"
#include "suppfunc.h"
#include "ttoqr.h"
#include "util.h"
#include "vscmdl.h"

namespace {

// Converts a text file of numbers into the binary transaction file: per line
// a count word and the distinct items ascending. Returns item_count, or -1.
long convert(const char* in, const char* out) {
  FILE* f = fopen(in, "r");
  FILE* g = fopen(out, "wb");
  if (f == nullptr || g == nullptr) return -1;
  uint32_t top = 0;
  std::vector<uint32_t> line;
  char* text = nullptr;
  size_t cap = 0;
  while (getline(&text, &cap, f) > 0) {
    line.clear();
    for (char* p = text; *p != '\0';) {
      char* end = nullptr;
      unsigned long v = strtoul(p, &end, 10);
      if (end == p) {
        ++p;
        continue;
      }
      line.push_back(static_cast<uint32_t>(v));
      p = end;
    }
    std::set<uint32_t> uniq(line.begin(), line.end());
    if (uniq.empty()) continue;
    line.assign(uniq.begin(), uniq.end());
    uint32_t n = static_cast<uint32_t>(line.size());
    fwrite(&n, 4, 1, g);
    fwrite(line.data(), 4, n, g);
    if (line.back() + 1 > top) top = line.back() + 1;
  }
  free(text);
  fclose(f);
  fclose(g);
  return top;
}

// With --table first, prints "LEN COUNT" for every length instead of mining:
// the minimum support counts that the options give on this input.
int print_table() {
  uint32_t ntrans = 0;
  FILE* f = fopen(get_qr_file(), "rb");
  for (uint32_t n; f != nullptr && fread(&n, 4, 1, f) == 1; ++ntrans) fseek(f, 4L * n, SEEK_CUR);
  if (f != nullptr) fclose(f);
  const char* table = get_supp_table_file();
  int status = table != nullptr ? init_freq_tbl(table, ntrans, item_count)
                                : init_freq_tbl_with_minsup(get_min_support(), ntrans, item_count);
  if (status != 0) return 2;
  for (uint32_t len = 1; len <= item_count; ++len) printf("%u %u\n", len, minsup_of_length(len));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const bool table_only = argc > 1 && strcmp(argv[1], "--table") == 0;
  if (table_only) {
    argv[1] = argv[0];
    ++argv;
    --argc;
  }
  parse(argc, argv, 0);
  long top = convert(get_input_file(), get_qr_file());
  if (top < 0) {
    fprintf(stderr, "engine_run: cannot convert %s\n", get_input_file());
    return 2;
  }
  item_count = static_cast<uint32_t>(top);
  if (table_only) {
    const int status = print_table();
    remove(get_qr_file());
    return status;
  }
  const double start = wall_seconds();
  const int status = find_frequent_patterns();
  fprintf(stderr, "engine seconds: %.3f\n", wall_seconds() - start);
  remove(get_qr_file());
  return status == 0 ? 0 : 2;
}
