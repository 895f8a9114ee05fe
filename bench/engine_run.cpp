// Runs the mining engine alone on a numeric transaction file (one transaction
// a line, items as non-negative integers): writes FILE.qr with the raw item
// numbers, takes item_count as the largest plus one and calls
// find_frequent_patterns with the same options as quarlo (-s, -S, -m, -M).
// The patterns land in FILE.fp_conv.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "cli/pattern_file.h"
#include "cli/binary_file.h"
#include "engine/engine.h"
#include "cli/driver.h"
#include "base/report.h"
#include "support/support_table.h"
#include "base/io.h"
#include "cli/log.h"
#include "cli/options.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

// Converts a text file of numbers into the binary transaction file: per line
// a count word and the distinct items ascending. Returns item_count, or -1.
long convert(const char* in, const char* out) {
  FILE* f = fopen(in, "r");
  FILE* g = fopen(out, "wb");
  if (f == nullptr || g == nullptr) {
    if (f != nullptr) fclose(f);
    if (g != nullptr) fclose(g);
    return -1;
  }
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
  return fclose(g) == 0 ? static_cast<long>(top) : -1;
}

// The patterns go to FILE.fp_conv, as in a quarlo run, without the report blocks.
class FileClient : public EngineClient {
 public:
  explicit FileClient(const Options& o) : o_(o) {}
  void counted(const Engine&, uint32_t) override {}
  PatternSink* open_sink(Engine* e, uint32_t ntrans) override {
    return writer_.open(sink_name(), ntrans, e->setup().nitems, e->rep).ok() ? &writer_ : nullptr;
  }
  const char* sink_name() const override { return o_.names.fp_conv.c_str(); }
  Status close_sink(Engine*, bool complete) override {
    if (complete) return writer_.close();
    writer_.abandon();
    return Status();
  }

 private:
  const Options& o_;
  PatternFileWriter writer_;
};

// With --table first, prints "LEN COUNT" for every length instead of mining:
// the minimum support counts that the options give on this input.
int print_table(const Options& o, uint32_t nitems, Reporter* rep) {
  uint32_t ntrans = 0;
  FILE* f = fopen(o.names.qr.c_str(), "rb");
  for (uint32_t n; f != nullptr && fread(&n, 4, 1, f) == 1; ++ntrans) fseek(f, 4L * n, SEEK_CUR);
  if (f != nullptr) fclose(f);
  SupportTable table;
  const char* file = o.supp_table_file;
  if (file == nullptr) {
    table.set_constant(percent_to_count(o.min_support, ntrans), ntrans, nitems, o.min_size);
  } else if (!table.load_file(file, ntrans, nitems, o.min_size, rep).ok()) {
    return 2;
  }
  for (uint32_t len = 1; len <= nitems; ++len) printf("%u %u\n", len, table.minsup_of_length(len));
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
  Options o;
  Console console;
  if (!parse(argc, argv, 0, &o, &console)) return 1;
  const long top = convert(o.input_file.c_str(), o.names.qr.c_str());
  if (top < 0) {
    fprintf(stderr, "engine_run: cannot convert %s\n", o.input_file.c_str());
    return 2;
  }
  CollectingReporter rep;
  int status = 0;
  if (table_only) {
    status = print_table(o, static_cast<uint32_t>(top), &rep);
  } else {
    EngineSetup setup;
    setup.nitems = static_cast<uint32_t>(top);
    setup.min_size = o.min_size;
    setup.max_size = o.max_size;
    Engine engine(&rep);
    engine.configure(setup);
    FileClient client(o);
    const double start = wall_seconds();
    status = find_frequent_patterns(&engine, o.names.qr.c_str(), support_of(o), &client).ok() ? 0 : 1;
    fprintf(stderr, "engine seconds: %.3f\n", wall_seconds() - start);
  }
  remove(o.names.qr.c_str());
  if (status != 0) {
    fprintf(stderr, "engine_run: %s\n", rep.summary().c_str());
    return 2;
  }
  return 0;
}
