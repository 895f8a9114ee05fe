// The converted text file to the binary transaction file: records, the item
// count, the line sizing, the failure reports, and the buffered writer against
// a plain line-by-line writer built from parse_sequence and tseq_to_vsseq.
#include "ttoqr.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "sequence.h"
#include "support/harness.h"

namespace {

using namespace std::string_literals;
using quarlo_test::StdoutCapture;
using Words = std::vector<uint32_t>;

class Ttoqr : public quarlo_test::TempDirTest {
 protected:
  void write(const std::string& name, const std::string& bytes) const {
    quarlo_test::write_file(path(name), bytes);
  }
  std::string read(const std::string& name) const { return quarlo_test::read_file(path(name)); }
  // Converts `conv` to "f.qr"; what was printed lands in report_.
  unsigned convert(const std::string& conv, const std::string& output = "f.qr") {
    write("f.conv", conv);
    StdoutCapture capture;
    const unsigned status = ttoqr(path("f.conv").c_str(), path(output).c_str());
    report_ = capture.release();
    return status;
  }
  // The binary file as little-endian 32-bit words.
  Words words() const {
    const std::string bytes = read("f.qr");
    EXPECT_EQ(bytes.size() % 4, 0u);
    Words out(bytes.size() / 4);
    for (size_t i = 0; i < out.size(); ++i) {
      const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + 4 * i);
      out[i] = b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
    }
    return out;
  }

  std::string report_;
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
      // in pieces of the sized buffer, even when a piece ends inside a number.
      {"1\n2 3", {1, 1, 1, 2, 1, 3}, 4},
      {"10 20 \n30 40 50", {2, 10, 20, 3, 5, 30, 40, 1, 0}, 41},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(convert(c.conv), 0u) << c.conv << report_;
    EXPECT_EQ(words(), c.words) << c.conv;
    EXPECT_EQ(item_count, c.item_count) << c.conv;
  }
}

TEST_F(Ttoqr, LongTransactionIsOneRecord) {
  std::string line;
  for (uint32_t i = 100000; i-- > 0;) line += std::to_string(i) + " ";
  ASSERT_EQ(convert(line + "\n7 \n"), 0u);
  const Words w = words();
  ASSERT_EQ(w.size(), 100003u);
  EXPECT_EQ((Words{w[0], w[1], w[100000], w[100001], w[100002]}), (Words{100000, 0, 99999, 1, 7}));
  EXPECT_EQ(item_count, 100000u);
}

TEST_F(Ttoqr, FailuresAreReportedAndEarlierRecordsStayAndTheModeIs0666) {
  ASSERT_EQ(convert("9 \n1 -1 2 \n5 \n"), 1u);
  EXPECT_EQ(words(), (Words{1, 9}));
  EXPECT_EQ(report_,
            "ttoqr(26) Sequence with more than one itemsets detected\n"
            "ttoqr(98) Fatal error in tseq_to_vsseq()\n");

  EXPECT_EQ(convert("1 \n", "no/dir/f.qr"), 1u);
  EXPECT_EQ(report_, "ttoqr(82) open(" + path("no/dir/f.qr") + "): No such file or directory\n");
  // The output is created with mode 0666 before the umask.
  const mode_t old = umask(0);
  EXPECT_EQ(convert("1 \n", "new.qr"), 0u);
  umask(old);
  struct stat st;
  ASSERT_EQ(stat(path("new.qr").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);

  const std::string in = path("absent");
  StdoutCapture capture;
  EXPECT_EQ(ttoqr(in.c_str(), path("f.qr").c_str()), 1u);
  EXPECT_EQ(capture.release(), "../vscom/util(104) fopen(" + in +
                                   ", \"r\"): No such file or directory\n"
                                   "ttoqr(64) Fatal error in max_line_size(" + in + ")\n");
}

TEST_F(Ttoqr, MaxLineSizeMeasuresNewlineTerminatedLines) {
  const std::string big(3 << 20, 'x');  // spans several read chunks
  const struct {
    std::string text;
    uint32_t size;
  } cases[] = {
      {"12345\n1234567890\n\n123\n", 12},
      {"12345\n1234567890123456", 7},  // the unterminated last line is not measured
      {"", 2},
      {"ab\n" + big + "\nc\n", static_cast<uint32_t>(big.size() + 2)},
  };
  for (const auto& c : cases) {
    write("a", c.text);
    EXPECT_EQ(max_line_size(path("a").c_str()), c.size) << c.text.size();
  }
  StdoutCapture capture;
  EXPECT_EQ(max_line_size(path("absent").c_str()), 4294967295u);
  EXPECT_EQ(capture.release(),
            "../vscom/util(104) fopen(" + path("absent") + ", \"r\"): No such file or directory\n");
}

TEST(TseqToVsseq, BuildsTheRecordOfOneItemset) {
  item_count = 0;
  uint32_t* block = nullptr;
  ASSERT_EQ(tseq_to_vsseq(parse_sequence("9 2 9 4", 0), &block), 0u);
  EXPECT_EQ(Words(block, block + 4), (Words{3, 2, 4, 9}));
  EXPECT_EQ(item_count, 10u);
  free(block);
  block = nullptr;
  StdoutCapture capture;
  EXPECT_EQ(tseq_to_vsseq(parse_sequence("1 -1 2", 0), &block), 1u);
  EXPECT_EQ(capture.release(), "ttoqr(26) Sequence with more than one itemsets detected\n");
  EXPECT_EQ(block, nullptr);
}

// The writer as a plain loop: size the line buffer, read with fgets, parse each
// line into a record, one write per record.
unsigned reference_ttoqr(const char* input, const char* output) {
  item_count = 0;
  const uint32_t size = max_line_size(input);
  if (size == 4294967295u) return 1;
  std::vector<char> line(size);
  FILE* in = fopen(input, "r");
  FILE* out = fopen(output, "wb");
  unsigned status = 0;
  while (fgets(line.data(), static_cast<int>(size), in) != nullptr) {
    Sequence s = parse_sequence(line.data(), 0);
    if (length(s) == 0) continue;
    uint32_t* block = nullptr;
    if (tseq_to_vsseq(s, &block) != 0) {
      status = 1;
      break;
    }
    fwrite(block, 4, length(s) + 1, out);
    free(block);
  }
  fclose(in);
  fclose(out);
  return status;
}

TEST_F(Ttoqr, BufferedWriterMatchesLineByLineReference) {
  std::mt19937 rng(7);
  auto pick = [&rng](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  const char* spaces[] = {" ", " ", " ", "  ", "\t", " \t "};
  for (int round = 0; round <= 60; ++round) {
    std::string text;
    if (round == 60) {
      // Several MiB: lines straddle read chunks, one line outgrows the read
      // buffer (its tail after "x" is not items) and the output buffer
      // fills many times.
      for (int l = 0; l < 60000; ++l) {
        for (uint32_t k = pick(15); k > 0; --k) text += std::to_string(pick(100000)) + " ";
        text += "\n";
        if (l != 30000) continue;
        text += "7 3 x ";
        for (int k = 0; k < 200000; ++k) text += std::to_string(pick(1000000)) + " ";
        text += "-1 \n";
      }
    } else {
      for (uint32_t l = 1 + pick(60); l > 0; --l) {
        if (pick(4) == 0) text += "-1 ";
        for (uint32_t k = pick(5) == 0 ? pick(300) : pick(12); k > 0; --k) {
          text += std::to_string(pick(3) == 0 ? pick(8) : pick(5000)) + spaces[pick(6)];
          if (round % 3 == 0 && pick(200) == 0) text += "-1 ";  // a second itemset
          if (pick(150) == 0) text += "x ";
        }
        if (pick(4) == 0) text += "-1 ";
        text += pick(6) == 0 ? "\r\n" : "\n";
      }
      // An unterminated last line, sometimes longer than every other.
      for (uint32_t k = pick(2) == 0 ? pick(600) : 0; k > 0; --k) {
        text += std::to_string(pick(5000)) + " ";
      }
    }
    write("f.conv", text);
    StdoutCapture capture;
    const unsigned want = reference_ttoqr(path("f.conv").c_str(), path("ref.qr").c_str());
    const uint32_t want_count = item_count;
    const std::string want_report = capture.release();
    ASSERT_EQ(convert(text), want) << "round " << round;
    ASSERT_TRUE(read("f.qr") == read("ref.qr")) << "round " << round;
    if (want == 0) ASSERT_EQ(item_count, want_count) << "round " << round;
    else ASSERT_EQ(report_, want_report + "ttoqr(98) Fatal error in tseq_to_vsseq()\n");
  }
}

}  // namespace
