// Parent-children lists and maximal-pattern pruning: the ids read from a list
// and the records dropped from a pattern file, against a plain set of ids.
// The input is the list, a NUL byte and the pattern file; without a NUL byte
// the same text serves as both.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "fuzz_files.h"
#include "cli/maximal_file.h"
#include "base/report.h"
#include "base/tokens.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

// Calls f(line) for each line of `text` as the list reader cuts them.
template <class F>
void each_line(std::string_view text, F f) {
  while (!text.empty()) {
    const size_t eol = std::min(text.find('\n'), text.size());
    f(text.substr(0, eol));
    text.remove_prefix(std::min(eol + 1, text.size()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch list("in.pc"), records("in.fp_conv");
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t nul = input.find('\0');
  const std::string_view pc = input.substr(0, nul);
  const std::string_view fp = nul == std::string_view::npos ? input : input.substr(nul + 1);
  write_file(list, pc.data(), pc.size());
  write_file(records, fp.data(), fp.size());

  std::set<std::string, std::less<>> parents;
  each_line(pc, [&](std::string_view line) {
    if (!line.empty() && line[0] == '#') return;
    next_token(&line);
    for (std::string_view id = next_token(&line); !id.empty(); id = next_token(&line)) {
      parents.emplace(id);
    }
  });
  std::string expected;
  uint32_t expected_kept = 0;
  each_line(fp, [&](std::string_view line) {
    const bool comment = !line.empty() && line[0] == '#';
    std::string_view rest = line;
    if (!comment && parents.count(next_token(&rest)) != 0) return;
    expected += std::string(line) + "\n";
    expected_kept += !comment;
  });

  std::unique_ptr<IdSet> ids;
  CollectingReporter rep;
  FUZZ_CHECK(create_unmaximal_set(&ids, &rep).ok());
  load_unmaximal_ids(ids.get(), list.c_str());
  FUZZ_CHECK(ids->size() == parents.size());
  for (const std::string& id : parents) FUZZ_CHECK(ids->contains(id));
  uint32_t kept = 0;
  FUZZ_CHECK(remove_unmaximal_records(*ids, records.c_str(), true, &kept, &rep).ok());
  FUZZ_CHECK(kept == expected_kept);
  FUZZ_CHECK(rep.lines().empty());
  FUZZ_CHECK(read_file(records) == expected);
  return 0;
}
