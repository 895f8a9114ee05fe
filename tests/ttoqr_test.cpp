#include "ttoqr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sequence.h"
#include "support/harness.h"

namespace {

using namespace std::string_literals;

class TtoqrTest : public quarlo_test::TempDirTest {
 protected:
  void write(const std::string& name, const std::string& bytes) const {
    quarlo_test::write_file(path(name), bytes);
  }
  std::string read(const std::string& name) const { return quarlo_test::read_file(path(name)); }
  // Converts `conv` and returns the binary file as 32-bit words.
  std::vector<uint32_t> words_of(const std::string& conv, unsigned* status = nullptr) {
    write("f.conv", conv);
    testing::internal::CaptureStdout();
    const unsigned s = ttoqr(path("f.conv").c_str(), path("f.qr").c_str());
    report_ = testing::internal::GetCapturedStdout();
    if (status != nullptr) *status = s;
    else EXPECT_EQ(s, 0u) << report_;
    const std::string bytes = read("f.qr");
    EXPECT_EQ(bytes.size() % 4, 0u);
    std::vector<uint32_t> words(bytes.size() / 4);
    for (size_t i = 0; i < words.size(); ++i) {
      const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + 4 * i);
      words[i] = b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
    }
    return words;
  }

  std::string report_;
};

using Words = std::vector<uint32_t>;

TEST_F(TtoqrTest, RecordIsCountThenAscendingItemsLittleEndian) {
  write("f.conv", "3 7 3 \n");
  ASSERT_EQ(ttoqr(path("f.conv").c_str(), path("f.qr").c_str()), 0u);
  EXPECT_EQ(read("f.qr"), "\x02\0\0\0\x03\0\0\0\x07\0\0\0"s);
  EXPECT_EQ(item_count, 8u);
  EXPECT_EQ(words_of("300 2 \n70000 1 \n"), (Words{2, 2, 300, 2, 1, 70000}));
  EXPECT_EQ(item_count, 70001u);
}

TEST_F(TtoqrTest, MinusOneAroundItemsIsNoItemset) {
  EXPECT_EQ(words_of("4 -1 \n-1 5\n-1 \n\n-1 -1 6 6 -1 -1 \n"), (Words{1, 4, 1, 5, 1, 6}));
  EXPECT_EQ(item_count, 7u);
}

TEST_F(TtoqrTest, LinesWithoutItemsGiveAnEmptyFile) {
  EXPECT_TRUE(words_of("\n\n-1 \n   \r\n").empty());
  EXPECT_EQ(item_count, 0u);
  EXPECT_TRUE(words_of("").empty());
}

TEST_F(TtoqrTest, TwoItemsetsOnALineFailAfterEarlierRecords) {
  unsigned status = 0;
  EXPECT_EQ(words_of("9 \n1 -1 2 \n5 \n", &status), (Words{1, 9}));
  EXPECT_EQ(status, 1u);
  EXPECT_EQ(report_,
            "ttoqr(26) Sequence with more than one itemsets detected\n"
            "ttoqr(98) Fatal error in tseq_to_vsseq()\n");
}

TEST_F(TtoqrTest, ItemsStopAtFirstNonNumberOrNul) {
  EXPECT_EQ(words_of("4 2 x 7\n8 1.5 3\n3 2\0 5\n6\0"s), (Words{2, 2, 4, 1, 8, 2, 2, 3, 1, 6}));
}

// The count is raised on signed values, so an item of 2^31 - 1 or more does
// not raise it.
TEST_F(TtoqrTest, ItemCountComparesSigned) {
  EXPECT_EQ(words_of("5 2147483647 \n"), (Words{2, 5, 2147483647}));
  EXPECT_EQ(item_count, 6u);
  EXPECT_EQ(words_of("2147483646 \n"), (Words{1, 2147483646}));
  EXPECT_EQ(item_count, 2147483647u);
}

TEST_F(TtoqrTest, LongTransactionIsOneRecord) {
  std::string line;
  for (uint32_t i = 100000; i-- > 0;) line += std::to_string(i) + " ";
  const Words w = words_of(line + "\n7 \n");
  ASSERT_EQ(w.size(), 100001u + 2u);
  EXPECT_EQ(w[0], 100000u);
  EXPECT_EQ(w[1], 0u);
  EXPECT_EQ(w[100000], 99999u);
  EXPECT_EQ(w[100001], 1u);
  EXPECT_EQ(item_count, 100000u);
}

TEST_F(TtoqrTest, MissingInputReportsTheSizingStep) {
  const std::string in = path("absent");
  testing::internal::CaptureStdout();
  EXPECT_EQ(ttoqr(in.c_str(), path("f.qr").c_str()), 1u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "../vscom/util(104) fopen(" + in + ", \"r\"): No such file or directory\n" +
                "ttoqr(64) Fatal error in max_line_size(" + in + ")\n");
}

TEST_F(TtoqrTest, UncreatableOutputReportsOpen) {
  write("f.conv", "1 \n");
  const std::string out = path("no/dir/f.qr");
  testing::internal::CaptureStdout();
  EXPECT_EQ(ttoqr(path("f.conv").c_str(), out.c_str()), 1u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ttoqr(82) open(" + out + "): No such file or directory\n");
}

TEST_F(TtoqrTest, OutputIsCreatedWith0666) {
  write("f.conv", "1 \n");
  const mode_t old = umask(0);
  const unsigned status = ttoqr(path("f.conv").c_str(), path("f.qr").c_str());
  umask(old);
  ASSERT_EQ(status, 0u);
  struct stat st;
  ASSERT_EQ(stat(path("f.qr").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
}

TEST_F(TtoqrTest, MaxLineSizeMeasuresNewlineTerminatedLines) {
  write("a", "12345\n1234567890\n\n123\n");
  EXPECT_EQ(max_line_size(path("a").c_str()), 12u);
  write("b", "12345\n1234567890123456");  // the unterminated last line is not measured
  EXPECT_EQ(max_line_size(path("b").c_str()), 7u);
  write("c", "");
  EXPECT_EQ(max_line_size(path("c").c_str()), 2u);
  std::string big(3 << 20, 'x');  // spans several read chunks
  write("d", "ab\n" + big + "\nc\n");
  EXPECT_EQ(max_line_size(path("d").c_str()), big.size() + 2);
  testing::internal::CaptureStdout();
  EXPECT_EQ(max_line_size(path("absent").c_str()), 4294967295u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "../vscom/util(104) fopen(" + path("absent") + ", \"r\"): No such file or directory\n");
}

TEST(TseqToVsseq, BuildsTheRecordOfOneItemset) {
  item_count = 0;
  uint32_t* block = nullptr;
  ASSERT_EQ(tseq_to_vsseq(parse_sequence("9 2 9 4", 0), &block), 0u);
  EXPECT_EQ(std::vector<uint32_t>(block, block + 4), (std::vector<uint32_t>{3, 2, 4, 9}));
  EXPECT_EQ(item_count, 10u);
  free(block);
  block = nullptr;
  testing::internal::CaptureStdout();
  EXPECT_EQ(tseq_to_vsseq(parse_sequence("1 -1 2", 0), &block), 1u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ttoqr(26) Sequence with more than one itemsets detected\n");
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
  while (status == 0 && fgets(line.data(), static_cast<int>(size), in) != nullptr) {
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

std::string random_conv(std::mt19937* rng, bool allow_two_itemsets) {
  auto pick = [rng](uint32_t n) { return static_cast<uint32_t>((*rng)() % n); };
  const char* spaces[] = {" ", " ", " ", "  ", "\t", " \t "};
  std::string text;
  const uint32_t lines = 1 + pick(60);
  for (uint32_t l = 0; l < lines; ++l) {
    const uint32_t n = pick(5) == 0 ? pick(300) : pick(12);
    if (pick(4) == 0) text += "-1 ";
    for (uint32_t k = 0; k < n; ++k) {
      text += std::to_string(pick(3) == 0 ? pick(8) : pick(5000)) + spaces[pick(6)];
      if (allow_two_itemsets && pick(200) == 0) text += "-1 ";
      if (pick(150) == 0) text += "x ";
    }
    if (pick(4) == 0) text += "-1 ";
    text += pick(6) == 0 ? "\r\n" : "\n";
  }
  if (pick(2) == 0) {  // an unterminated last line, sometimes longer than every other
    for (uint32_t k = pick(600); k > 0; --k) text += std::to_string(pick(5000)) + " ";
  }
  return text;
}

TEST_F(TtoqrTest, BufferedWriterMatchesLineByLineReference) {
  std::mt19937 rng(7);
  for (int round = 0; round < 150; ++round) {
    const std::string text = random_conv(&rng, round % 3 == 0);
    write("f.conv", text);
    testing::internal::CaptureStdout();
    const unsigned want = reference_ttoqr(path("f.conv").c_str(), path("ref.qr").c_str());
    const uint32_t want_count = item_count;
    const std::string want_report = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    const unsigned got = ttoqr(path("f.conv").c_str(), path("f.qr").c_str());
    std::string got_report = testing::internal::GetCapturedStdout();
    ASSERT_EQ(got, want) << "round " << round;
    ASSERT_EQ(read("f.qr"), read("ref.qr")) << "round " << round;
    if (got == 0) ASSERT_EQ(item_count, want_count) << "round " << round;
    else ASSERT_EQ(got_report, want_report + "ttoqr(98) Fatal error in tseq_to_vsseq()\n");
  }
}

// Several MiB, so that lines straddle read chunks, one line outgrows the read
// buffer (its tail after "x" is not read as items) and the output buffer
// fills many times.
TEST_F(TtoqrTest, ChunkBoundariesAndLongLinesMatchReference) {
  std::mt19937 rng(99);
  std::string text;
  for (int l = 0; l < 60000; ++l) {
    const int n = rng() % 15;
    for (int k = 0; k < n; ++k) text += std::to_string(rng() % 100000) + " ";
    text += "\n";
    if (l == 30000) {
      text += "7 3 x ";
      for (int k = 0; k < 400000; ++k) text += std::to_string(rng() % 1000000) + " ";
      text += "-1 \n";
    }
  }
  ASSERT_GT(text.size(), size_t{4} << 20);
  write("f.conv", text);
  ASSERT_EQ(reference_ttoqr(path("f.conv").c_str(), path("ref.qr").c_str()), 0u);
  const uint32_t want_count = item_count;
  ASSERT_EQ(ttoqr(path("f.conv").c_str(), path("f.qr").c_str()), 0u);
  EXPECT_EQ(item_count, want_count);
  EXPECT_TRUE(read("f.qr") == read("ref.qr"));
}

// A last line without newline that is longer than every terminated line comes
// in pieces of the sized buffer, each piece a transaction of its own, even when
// a piece ends inside a number. Converted files always end their lines.
TEST_F(TtoqrTest, OverlongUnterminatedLastLineComesInPieces) {
  EXPECT_EQ(words_of("1\n2 3"), (Words{1, 1, 1, 2, 1, 3}));
  EXPECT_EQ(words_of("10 20 \n30 40 50"), (Words{2, 10, 20, 3, 5, 30, 40, 1, 0}));
}

}  // namespace
