// The converted text file to the binary transaction file: records, the item
// count, pieces of an over-long last line, and the failures that a whole run
// cannot provoke. Large inputs are checked through the library against the program.
#include "cli/binary_file.h"

#include <cerrno>
#include <string>
#include <vector>

#include "support/harness.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

using namespace std::string_literals;
using Words = std::vector<uint32_t>;
using Lines = std::vector<std::string>;

class Ttoqr : public quarlo_test::TempDirTest {
 protected:
  // Converts `conv` (or the file `input`) to "f.qr"; what was reported lands in rep_.
  Status convert(const std::string& conv) {
    quarlo_test::write_file(path("f.conv"), conv);
    return convert_file(path("f.conv"));
  }
  Status convert_file(const std::string& input) {
    rep_ = CollectingReporter();
    item_count_ = 12345;  // every call starts the count afresh
    return ttoqr(input.c_str(), path("f.qr").c_str(), &item_count_, &rep_);
  }
  // "f.qr" as little-endian 32-bit words.
  Words words() const {
    const std::string bytes = quarlo_test::read_file(path("f.qr"));
    EXPECT_EQ(bytes.size() % 4, 0u);
    Words out(bytes.size() / 4);
    for (size_t i = 0; i < out.size(); ++i) {
      const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + 4 * i);
      out[i] = b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
    }
    return out;
  }

  uint32_t item_count_ = 0;
  CollectingReporter rep_;
};

// A record is the item count, then the distinct items ascending, all as
// little-endian 32-bit words: "3 7 3 " gives exactly 12 bytes.
TEST_F(Ttoqr, RecordsAndItemCount) {
  const struct {
    std::string conv;
    Words words;
    uint32_t item_count;
  } cases[] = {
      {"3 7 3 \n", {2, 3, 7}, 8},
      {"300 2 \n70000 1 \n", {2, 2, 300, 2, 1, 70000}, 70001},
      // "-1" before or after the items opens no second itemset.
      {"4 -1 \n-1 5\n-1 \n\n-1 -1 6 6 -1 -1 \n", {1, 4, 1, 5, 1, 6}, 7},
      {"\n\n-1 \n   \r\n", {}, 0},
      {"", {}, 0},
      // Items stop at the first token that is not a number, or at a NUL byte.
      {"4 2 x 7\n8 1.5 3\n3 2\0 5\n6\0"s, {2, 2, 4, 1, 8, 2, 2, 3, 1, 6}, 9},
      // The count is raised on signed values: 2^31 - 1 and above do not raise it.
      {"5 2147483647 \n", {2, 5, 2147483647}, 6},
      {"2147483646 \n", {1, 2147483646}, 2147483647},
      // A last line without newline, longer than every terminated line, comes
      // in pieces of the longest terminated line plus one byte, even when a
      // piece ends inside a number.
      {"1\n2 3", {1, 1, 1, 2, 1, 3}, 4},
      {"10 20 \n30 40 50", {2, 10, 20, 3, 5, 30, 40, 1, 0}, 41},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(convert(c.conv).ok()) << c.conv << rep_.summary();
    EXPECT_EQ(words(), c.words) << c.conv;
    EXPECT_EQ(item_count_, c.item_count) << c.conv;
    EXPECT_EQ(rep_.lines(), Lines{});
  }
}

// Opening, writing and the modes of the output are checked by whole runs.
TEST_F(Ttoqr, FailuresAreReportedAndEarlierRecordsStay) {
  EXPECT_EQ(convert("9 \n1 -1 2 \n5 \n").code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(words(), (Words{1, 9}));
  EXPECT_EQ(rep_.lines(), (Lines{"ttoqr(26) Sequence with more than one itemsets detected",
                                 "ttoqr(98) Fatal error in tseq_to_vsseq()"}));

  const std::string in = path("absent");
  const Status missing = convert_file(in);
  EXPECT_EQ(missing.code(), Status::Code::kIo);
  EXPECT_EQ(missing.error_number(), ENOENT);
  EXPECT_EQ(missing.path(), in);
  EXPECT_EQ(rep_.lines(),
            (Lines{"../vscom/util(104) fopen(" + in + ", \"r\"): No such file or directory",
                   "ttoqr(64) Fatal error in max_line_size(" + in + ")"}));
}

}  // namespace
