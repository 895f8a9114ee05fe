// Transaction files: label numbering and conversion, the way back from item
// numbers to labels, the binary file written from the converted text, and the
// library's whole path from a file on small inputs.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cli/label_files.h"
#include "convert/label_table.h"
#include "fuzz_files.h"
#include "quarlo/quarlo.h"
#include "base/tokens.h"
#include "cli/binary_file.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

// The lines of `text` as the readers cut them (no empty line after a last newline).
std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t eol = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, eol));
    text.remove_prefix(std::min(eol + 1, text.size()));
  }
  return lines;
}

// Itemsets of one to four items that the lines hold, summed: a bound on what
// mining at support 2 up to size 4 can report.
uint64_t small_subsets(const std::vector<std::string_view>& lines) {
  uint64_t total = 0;
  for (std::string_view line : lines) {
    uint64_t n = 0;
    while (!next_token(&line).empty()) ++n;
    total += n + n * (n - 1) / 2 + n * (n - 1) * (n - 2) / 6 + n * (n - 1) * (n - 2) * (n - 3) / 24;
  }
  return total;
}

// The records of a binary transaction file as written: a count, then that
// many ascending items below item_count. Aborts on anything else.
std::vector<std::vector<uint32_t>> written_records(const std::string& bytes, uint32_t item_count) {
  FUZZ_CHECK(bytes.size() % 4 == 0);
  std::vector<uint32_t> words(bytes.size() / 4);
  if (!words.empty()) std::memcpy(words.data(), bytes.data(), bytes.size());
  std::vector<std::vector<uint32_t>> records;
  for (size_t at = 0; at < words.size();) {
    const uint32_t n = words[at++];
    FUZZ_CHECK(n >= 1 && n <= words.size() - at);
    records.emplace_back(words.begin() + at, words.begin() + at + n);
    at += n;
    const std::vector<uint32_t>& r = records.back();
    FUZZ_CHECK(std::adjacent_find(r.begin(), r.end(), std::greater_equal<uint32_t>()) == r.end());
    FUZZ_CHECK(r.back() < item_count);
  }
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch input("in.txt"), conv("in.conv"), numbered("in.fp_conv"), back("in.fp"),
      binary("in.qr");
  write_file(input, data, size);
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string_view> lines = lines_of(text);

  LabelTable labels;
  labels.add_reserved_token("-1");
  labels.load_labels(input.c_str());
  FUZZ_CHECK(convert_file(&labels, input.c_str(), conv.c_str()).ok());

  // Every converted line as a numbered pattern line turns back into the labels.
  std::string pattern_file, expected;
  const std::string conv_text = read_file(conv);
  const std::vector<std::string_view> conv_lines = lines_of(conv_text);
  FUZZ_CHECK(conv_lines.size() == lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string id = "0-" + std::to_string(i) + " 1 1.000 ";
    pattern_file += id + std::string(conv_lines[i]) + "\n";
    expected += id;
    std::string_view rest = lines[i];
    for (std::string_view t = next_token(&rest); !t.empty(); t = next_token(&rest)) {
      expected += std::string(t) + " ";
    }
    expected += "\n";
  }
  write_file(numbered, pattern_file);
  FUZZ_CHECK(r_convert(labels, numbered.c_str(), back.c_str(), 3).ok());
  FUZZ_CHECK(read_file(back) == expected);

  uint32_t item_count = 0;
  CollectingReporter rep;
  const bool binary_ok = ttoqr(conv.c_str(), binary.c_str(), &item_count, &rep).ok();
  FUZZ_CHECK(binary_ok == rep.lines().empty());
  FUZZ_CHECK(item_count <= labels.label_count());
  const auto records = binary_ok ? written_records(read_file(binary), item_count)
                                 : std::vector<std::vector<uint32_t>>();

  if (size > 4096 || small_subsets(lines) > 20000) return 0;
  quarlo::Options options;
  options.support = quarlo::Support::count(2);
  options.max_size = 4;
  try {
    const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_file(input.path()), options);
    FUZZ_CHECK(r.labels.size() == labels.label_count());
    for (uint32_t i = 0; i < r.labels.size(); ++i) FUZZ_CHECK(r.labels[i] == labels.label_of(i));
    FUZZ_CHECK(binary_ok && r.stats.transactions == records.size());
    for (size_t k = 0; k < r.itemsets.size(); ++k) {
      const quarlo::Itemset& s = r.itemsets[k];
      FUZZ_CHECK(!s.items.empty() && s.items.size() <= 4 && s.support >= 2);
      if (k >= 200) continue;  // supports recounted for the first itemsets
      uint32_t support = 0;
      for (const auto& rec : records) {
        support += std::includes(rec.begin(), rec.end(), s.items.begin(), s.items.end());
      }
      FUZZ_CHECK(s.support == support);
    }
  } catch (const quarlo::Error&) {
    FUZZ_CHECK(!binary_ok);  // refused for the lines the program refuses
  }
  return 0;
}
