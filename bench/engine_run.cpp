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
#include "ttoqr.h"
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
      if (end == p) { ++p; continue; }
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

}  // namespace

int main(int argc, char** argv) {
  parse(argc, argv, 0);
  long top = convert(get_input_file(), get_qr_file());
  if (top < 0) {
    fprintf(stderr, "engine_run: cannot convert %s\n", get_input_file());
    return 2;
  }
  item_count = static_cast<uint32_t>(top);
  int status = find_frequent_patterns();
  remove(get_qr_file());
  return status == 0 ? 0 : 2;
}
