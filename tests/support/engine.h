// Helpers for the tests of the mining engine, whose state lives in
// process-wide tables: options set as a command line would set them, binary
// transaction files, filled transaction buffers, support tables, a run of the
// engine with its report captured and a pattern file read back.
#ifndef QUARLO_TESTS_SUPPORT_ENGINE_H_
#define QUARLO_TESTS_SUPPORT_ENGINE_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "qr.h"
#include "qrdb.h"
#include "suppfunc.h"
#include "support/harness.h"
#include "ttoqr.h"
#include "vscmdl.h"

namespace quarlo_test {

using Items = std::vector<uint32_t>;

struct Record {
  Items items;
  uint32_t weight = 1;
};

// Parses "quarlo ARGS... FILE"; the options point into strings kept until the next call.
inline void set_options(std::vector<std::string> args, const std::string& file = "db") {
  static std::vector<std::string> kept;
  kept = std::move(args);
  kept.insert(kept.begin(), "quarlo");
  kept.push_back(file);
  std::vector<char*> argv;
  for (std::string& a : kept) argv.push_back(a.data());
  argv.push_back(nullptr);
  parse(static_cast<int>(kept.size()), argv.data(), 0);
}

// Writes `records` as a binary transaction file and sets item_count to one
// more than the largest item.
inline void write_qr(const std::string& path, const std::vector<Items>& records) {
  std::string bytes;
  item_count = 0;
  for (const Items& r : records) {
    const uint32_t n = static_cast<uint32_t>(r.size());
    bytes.append(reinterpret_cast<const char*>(&n), 4);
    bytes.append(reinterpret_cast<const char*>(r.data()), 4 * r.size());
    for (uint32_t x : r) item_count = std::max(item_count, x + 1);
  }
  write_file(path, bytes);
}

inline void fill(TranBuf* buf, const std::vector<Record>& records) {
  for (const Record& r : records) {
    const uint32_t n = static_cast<uint32_t>(r.items.size());
    ASSERT_EQ(insert_tran_to_trandb(buf, r.items.data(), n, r.weight), 0);
  }
}

// Builds the support table of `ntrans` transactions from `table`: "LEN F"
// lines written to `file`, or one constant percentage when it holds no newline.
inline int set_support(const std::string& table, uint32_t ntrans, uint32_t nitems,
                       const std::string& file) {
  if (table.find('\n') == std::string::npos) {
    return init_freq_tbl_with_minsup(std::stod(table), ntrans, nitems);
  }
  write_file(file, table);
  return init_freq_tbl(file.c_str(), ntrans, nitems);
}

// Runs the engine on the current options; `out` gets its report.
inline RunResult run_engine() {
  RunResult r;
  StdoutCapture capture;
  r.status = find_frequent_patterns();
  r.out = capture.release();
  return r;
}

// Lines of a pattern file; none when there is no such file.
inline std::vector<std::string> read_lines(const std::string& path) {
  return file_exists(path) ? split_lines(read_file(path)) : std::vector<std::string>{};
}

}  // namespace quarlo_test

#endif  // QUARLO_TESTS_SUPPORT_ENGINE_H_
