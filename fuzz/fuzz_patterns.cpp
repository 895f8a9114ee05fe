// Numbered pattern files ("L-N support percent items"): the parent-children
// search by hash indexes against the plain search it must match byte for
// byte, and the regrouping of the lines by pattern length.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_files.h"
#include "support/parents_reference.h"
#include "cli/pattern_file.h"
#include "cli/pc_list.h"
#include "base/report.h"
#include "base/tokens.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

// The lines of `text`, each with a newline, sorted: equal for any reordering.
std::vector<std::string> sorted_lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t eol = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, eol - at) + "\n");
    at = eol + 1;
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

// At most eight items a line: the reference walks every non-frequent subset.
bool short_patterns(std::string_view text) {
  for (std::string_view line : sorted_lines(std::string(text))) {
    int tokens = 0;
    while (!next_token(&line).empty()) ++tokens;
    if (tokens > 3 + 8) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch patterns("in.fp_conv"), hashed("hashed.pc");
  const std::string text(reinterpret_cast<const char*>(data), size);
  write_file(patterns, text);

  if (size <= 2048 && short_patterns(text)) {
    CollectingReporter rep;
    FUZZ_CHECK(generate_lattice(patterns.c_str(), hashed.c_str(), &rep).ok());
    FUZZ_CHECK(rep.lines().empty());
    FUZZ_CHECK(read_file(hashed) == quarlo_test::reference_pc_list(text));
  }

  // Regrouping moves whole lines, and regrouping grouped lines changes nothing.
  std::vector<LengthCount> counts, again;
  FUZZ_CHECK(sort_by_length(patterns.c_str(), &counts));
  const std::string grouped = read_file(patterns);
  FUZZ_CHECK(sorted_lines(grouped) == sorted_lines(text));
  FUZZ_CHECK(grouped.empty() || grouped.back() == '\n');
  FUZZ_CHECK(sort_by_length(patterns.c_str(), &again));
  FUZZ_CHECK(read_file(patterns) == grouped);
  FUZZ_CHECK(again.size() == counts.size());
  uint64_t counted = 0;
  for (size_t i = 0; i < counts.size(); ++i) {
    FUZZ_CHECK(again[i].length == counts[i].length && again[i].count == counts[i].count);
    FUZZ_CHECK(counts[i].count > 0);
    counted += counts[i].count;
  }
  FUZZ_CHECK(counted <= sorted_lines(text).size());
  return 0;
}
