#include "LabelTable.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sequence.h"
#include "support/harness.h"
#include "ttoqr.h"

namespace {

using namespace std::string_literals;

class LabelTableTest : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { table_.add_reserved_token("-1"); }

  void write(const std::string& name, const std::string& bytes) const {
    quarlo_test::write_file(path(name), bytes);
  }
  std::string read(const std::string& name) const { return quarlo_test::read_file(path(name)); }
  // Loads `text` as FILE and returns its converted file.
  std::string load_and_convert(const std::string& text) {
    write("in", text);
    table_.load_labels(path("in").c_str());
    EXPECT_EQ(table_.convert(path("in").c_str(), path("in.conv").c_str()), 0u);
    return read("in.conv");
  }
  std::vector<std::string> labels() const {
    std::vector<std::string> out;
    for (unsigned i = 0; i < table_.label_count(); ++i) out.push_back(table_.label_of(i));
    return out;
  }

  LabelTable table_;
};

TEST(LabelTable, IsNumberAcceptsCanonicalDecimalsOnly) {
  for (const char* yes : {"0", "5", "10", "4294967295", "4294967296", "123456789012345678901234567890"}) {
    EXPECT_TRUE(LabelTable::is_number(yes)) << yes;
  }
  for (const char* no : {"", "00", "007", "05", "+5", "-3", "-1", "1.5", "5a", " 5", "\xd9\xa5"}) {
    EXPECT_FALSE(LabelTable::is_number(no)) << no;
  }
}

TEST_F(LabelTableTest, NumbersByValueThenLabels) {
  EXPECT_EQ(load_and_convert("b 10 a 9 10\n"), "3 1 2 0 1 \n");
  EXPECT_EQ(labels(), (std::vector<std::string>{"9", "10", "a", "b"}));
  EXPECT_EQ(table_.item_number_of("9"), 0u);
  EXPECT_EQ(table_.item_number_of("b"), 3u);
}

TEST_F(LabelTableTest, LabelsSortBytewiseAfterNumbers) {
  load_and_convert("abc \xc3\xa9t\xc3\xa9 a\xc3\xa9 ab B a 05 5 0 100 z\n");
  EXPECT_EQ(labels(), (std::vector<std::string>{"0", "5", "100", "05", "B", "a", "ab", "abc",
                                                "a\xc3\xa9", "z", "\xc3\xa9t\xc3\xa9"}));
  EXPECT_NE(table_.item_number_of("05"), table_.item_number_of("5"));
}

TEST_F(LabelTableTest, NumbersBeyond32BitsAreLabels) {
  const std::string big = "123456789012345678901234567890";
  EXPECT_EQ(load_and_convert("4294967296 4294967295 0 " + big + " 1\n"), "4 2 0 3 1 \n");
  EXPECT_EQ(labels(), (std::vector<std::string>{"0", "1", "4294967295", big, "4294967296"}));
  EXPECT_NE(table_.item_number_of("4294967296"), table_.item_number_of("0"));
}

TEST_F(LabelTableTest, MinusOneIsNeverNumbered) {
  EXPECT_EQ(load_and_convert("a b c d\nx -1\n-1\n-1 a\n"), "0 1 2 3 \n4 -1 \n-1 \n-1 0 \n");
  EXPECT_EQ(table_.label_count(), 5u);
  for (const std::string& l : labels()) EXPECT_NE(l, "-1");
}

TEST_F(LabelTableTest, RunsOfWhiteSpaceBecomeSingleBlanks) {
  EXPECT_EQ(load_and_convert("1 2 3 cheese eggs jam\nbread  milk\tbread"),
            "0 1 2 4 5 6 \n3 7 3 \n");
}

TEST_F(LabelTableTest, CrlfAndTabsConvertLikeBlanks) {
  const std::string lf = load_and_convert("milk bread\n\n7 x  y\n");
  EXPECT_EQ(lf, "2 1 \n\n0 3 4 \n");
  LabelTable crlf;
  crlf.add_reserved_token("-1");
  write("crlf", "\tmilk\tbread\r\n\r\n7\vx\f y \r\n");
  crlf.load_labels(path("crlf").c_str());
  ASSERT_EQ(crlf.convert(path("crlf").c_str(), path("crlf.conv").c_str()), 0u);
  EXPECT_EQ(read("crlf.conv"), lf);
}

TEST_F(LabelTableTest, EveryInputLineGivesOneOutputLine) {
  EXPECT_EQ(load_and_convert("\n\na\n  \n b"), "\n\n0 \n\n1 \n");
  LabelTable empty;
  write("empty", "");
  empty.load_labels(path("empty").c_str());
  ASSERT_EQ(empty.convert(path("empty").c_str(), path("empty.conv").c_str()), 0u);
  EXPECT_EQ(read("empty.conv"), "");
  EXPECT_EQ(empty.label_count(), 0u);
}

TEST_F(LabelTableTest, NulBytesAreOrdinaryLabelBytes) {
  EXPECT_EQ(load_and_convert("a\0b c\n\0\nc"s), "1 2 \n0 \n2 \n");
  EXPECT_EQ(labels(), (std::vector<std::string>{"\0"s, "a\0b"s, "c"}));
  write("fp", "0-0 2 66.667 1 2\n");
  ASSERT_EQ(table_.r_convert(path("fp").c_str(), path("out").c_str(), 3), 0u);
  EXPECT_EQ(read("out"), "0-0 2 66.667 a\0b c \n"s);
}

TEST_F(LabelTableTest, UnknownTokenGetsItemZeroAndIsAdded) {
  load_and_convert("p q\n");
  EXPECT_EQ(table_.item_number_of("zz"), 0u);
  EXPECT_EQ(table_.item_number_of("77"), 0u);
  EXPECT_EQ(table_.label_count(), 4u);
  EXPECT_EQ(table_.item_number_of("q"), 1u);
}

TEST_F(LabelTableTest, MissingOrUnwritableFilesFailConvert) {
  table_.load_labels(path("absent").c_str());
  EXPECT_EQ(table_.label_count(), 0u);
  EXPECT_EQ(table_.convert(path("absent").c_str(), path("absent.conv").c_str()), 1u);
  write("in", "a\n");
  EXPECT_EQ(table_.convert(path("in").c_str(), path("no/such/dir").c_str()), 1u);
}

TEST_F(LabelTableTest, OutputsAreCreatedWith0664) {
  const mode_t old = umask(0);
  load_and_convert("a\n");
  write("fp", "0-0 1 100.000 0\n");
  ASSERT_EQ(table_.r_convert(path("fp").c_str(), path("out").c_str(), 3), 0u);
  umask(old);
  struct stat st;
  ASSERT_EQ(stat(path("in.conv").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
  ASSERT_EQ(stat(path("out").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
}

TEST_F(LabelTableTest, VeryLongLineKeepsEveryToken) {
  std::string line;
  std::string expected;
  for (int i = 99999; i >= 0; --i) {
    line += "w" + std::to_string(i) + (i % 7 == 0 ? "\t" : " ");
  }
  const std::string conv = load_and_convert(line + "\nw5\n");
  EXPECT_EQ(table_.label_count(), 100000u);
  std::istringstream in(conv);
  std::string first;
  std::getline(in, first);
  std::istringstream tokens(first);
  std::set<uint32_t> seen;
  for (uint32_t n; tokens >> n;) seen.insert(n);
  EXPECT_EQ(seen.size(), 100000u);
  EXPECT_EQ(*seen.rbegin(), 99999u);
  std::string second;
  std::getline(in, second);
  EXPECT_EQ(second, std::to_string(table_.item_number_of("w5")) + " ");
}

// The numbering must equal the rule "numbers by value, then labels by unsigned
// bytes", here rebuilt with ordered containers over random tokens.
TEST_F(LabelTableTest, NumberingMatchesOrderedReference) {
  std::mt19937 rng(20240611);
  const std::vector<std::string> pieces = {"0", "1", "9", "05", "a", "B", "\xe2\x82\xac", "z", "-", "00", "4294967"};
  std::string text;
  std::vector<std::string> tokens;
  for (int line = 0; line < 400; ++line) {
    const int n = rng() % 12;
    for (int k = 0; k < n; ++k) {
      std::string t;
      const int parts = 1 + rng() % 4;
      for (int p = 0; p < parts; ++p) t += pieces[rng() % pieces.size()];
      tokens.push_back(t);
      text += t + (rng() % 3 == 0 ? "\t" : " ");
    }
    text += rng() % 5 == 0 ? "\r\n" : "\n";
  }
  load_and_convert(text);
  std::set<uint32_t> numbers;
  std::set<std::string> texts;
  for (const std::string& t : tokens) {
    if (t == "-1") continue;
    const bool fits = LabelTable::is_number(t) && t.size() <= 10 && std::stoull(t) <= 4294967295ull;
    if (fits) numbers.insert(static_cast<uint32_t>(std::stoull(t)));
    else texts.insert(t);
  }
  std::vector<std::string> expected;
  for (uint32_t v : numbers) expected.push_back(std::to_string(v));
  for (const std::string& t : texts) expected.push_back(t);
  EXPECT_EQ(labels(), expected);
  for (uint32_t i = 0; i < expected.size(); ++i) EXPECT_EQ(table_.item_number_of(expected[i]), i);
}

TEST_F(LabelTableTest, RConvertWritesLabelsAfterThreeFields) {
  load_and_convert("b 10 a 9 10\n");
  write("fp", "1-0 25 12.500 1 3\n0-0 30 15.000\n\n0-1\t 2  12.5 \t2\n0-2 1 1.0 -1 0");
  ASSERT_EQ(table_.r_convert(path("fp").c_str(), path("out").c_str(), 3), 0u);
  EXPECT_EQ(read("out"),
            "1-0 25 12.500 10 b \n0-0 30 15.000 \n\n0-1 2 12.5 a \n0-2 1 1.0 -1 9 \n");
  write("empty", "");
  ASSERT_EQ(table_.r_convert(path("empty").c_str(), path("out").c_str(), 3), 0u);
  EXPECT_EQ(read("out"), "");
}

TEST_F(LabelTableTest, RConvertRejectsBadItemTokens) {
  load_and_convert("b 10 a 9 10\n");
  for (const char* bad : {"0-0 1 1.0 4\n", "0-0 1 1.0 x\n", "0-0 1 1.0 2 +1\n", "0-0 1 1.0 99999999999\n"}) {
    write("fp", bad);
    EXPECT_EQ(table_.r_convert(path("fp").c_str(), path("out").c_str(), 3), 1u) << bad;
  }
  EXPECT_EQ(table_.r_convert(path("absent").c_str(), path("out").c_str(), 3), 1u);
  write("fp", "0-0 1 1.0 0\n");
  EXPECT_EQ(table_.r_convert(path("fp").c_str(), path("no/dir/out").c_str(), 3), 1u);
  EXPECT_EQ(table_.r_convert(path("fp").c_str(), path("out").c_str(), 0), 1u);  // "0-0" is no item
}

// FILE -> FILE.conv -> FILE.qr -> numbered pattern lines -> FILE.fp restores
// the user's own tokens, whatever their kind.
TEST_F(LabelTableTest, RoundTripRestoresUserLabels) {
  const std::string file =
      "milk 05 bread\r\n5 \xc3\xa9pices 4294967296 milk\n\nB b 0 -1\n-1 10 10 0\n"
      "123456789012345678901234567890 x";
  const std::string conv = load_and_convert(file);
  ASSERT_EQ(ttoqr(path("in.conv").c_str(), path("in.qr").c_str()), 0u);
  EXPECT_EQ(item_count, table_.label_count());

  // One pattern line per converted line with an item, items ascending.
  std::istringstream lines(conv);
  std::string fp_conv;
  std::vector<std::vector<std::string>> expected;
  int k = 0;
  for (std::string line; std::getline(lines, line);) {
    Sequence s = parse_sequence(line, 0);
    if (s.itemsets.empty()) continue;
    fp_conv += std::to_string(s.itemsets[0].size() - 1) + "-" + std::to_string(k++) + " 1 16.667";
    std::vector<std::string> want;
    for (uint32_t item : s.itemsets[0]) {
      fp_conv += " " + std::to_string(item);
      want.push_back(table_.label_of(item));
    }
    fp_conv += "\n";
    expected.push_back(want);
  }
  write("in.fp_conv", fp_conv);
  ASSERT_EQ(table_.r_convert(path("in.fp_conv").c_str(), path("in.fp").c_str(), 3), 0u);

  std::istringstream out(read("in.fp"));
  std::vector<std::vector<std::string>> got;
  for (std::string line; std::getline(out, line);) {
    std::istringstream tokens(line);
    std::string id, count, pct;
    tokens >> id >> count >> pct;
    std::vector<std::string> items;
    for (std::string t; tokens >> t;) items.push_back(t);
    got.push_back(items);
  }
  EXPECT_EQ(got, expected);
  ASSERT_EQ(got.size(), 5u);
  EXPECT_EQ(got[0], (std::vector<std::string>{"05", "bread", "milk"}));
  EXPECT_EQ(got[1], (std::vector<std::string>{"5", "4294967296", "milk", "\xc3\xa9pices"}));
  EXPECT_EQ(got[2], (std::vector<std::string>{"0", "B", "b"}));
  EXPECT_EQ(got[3], (std::vector<std::string>{"0", "10"}));
  EXPECT_EQ(got[4], (std::vector<std::string>{"123456789012345678901234567890", "x"}));
}

// Fixture pairs hold the same transactions, once plainly written and once with
// shuffled and repeated items, tabs, CRLF, blank and "-1" lines and no final
// newline: both must give the same labels and the same binary file.
TEST_F(LabelTableTest, NoisyLayoutGivesTheSameTransactions) {
  const std::string data = QUARLO_SOURCE_DIR "/tests/data/conversion/"s;
  for (const std::string name : {"labels", "numbers"}) {
    std::vector<std::string> label_lists[2];
    std::string binaries[2];
    for (int noisy = 0; noisy < 2; ++noisy) {
      const std::string file = data + name + (noisy ? "-noise.txt" : ".txt");
      LabelTable table;
      table.add_reserved_token("-1");
      table.load_labels(file.c_str());
      ASSERT_EQ(table.convert(file.c_str(), path("f.conv").c_str()), 0u);
      ASSERT_EQ(ttoqr(path("f.conv").c_str(), path("f.qr").c_str()), 0u);
      EXPECT_EQ(item_count, table.label_count());
      for (unsigned i = 0; i < table.label_count(); ++i) label_lists[noisy].push_back(table.label_of(i));
      binaries[noisy] = read("f.qr");
    }
    EXPECT_GT(label_lists[0].size(), 50u) << name;
    EXPECT_EQ(label_lists[0], label_lists[1]) << name;
    EXPECT_GT(binaries[0].size(), 4000u) << name;
    EXPECT_EQ(binaries[0], binaries[1]) << name;
  }
}

TEST_F(LabelTableTest, LineWithTwoItemsetsIsRefusedDownstream) {
  const std::string file = QUARLO_SOURCE_DIR "/tests/data/conversion/split.txt";
  table_.load_labels(file.c_str());
  ASSERT_EQ(table_.convert(file.c_str(), path("f.conv").c_str()), 0u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(ttoqr(path("f.conv").c_str(), path("f.qr").c_str()), 1u);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ttoqr(26) Sequence with more than one itemsets detected\n"
            "ttoqr(98) Fatal error in tseq_to_vsseq()\n");
}

}  // namespace
