// Item numbering of the user's tokens, the converted file of item numbers and
// the back-conversion of numbered patterns to the user's labels.
#include "LabelTable.h"

#include <sys/stat.h>

#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/harness.h"
#include "ttoqr.h"

namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

class LabelTableTest : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { table_.add_reserved_token("-1"); }

  void write(const std::string& name, const std::string& bytes) const {
    quarlo_test::write_file(path(name), bytes);
  }
  std::string read(const std::string& name) const { return quarlo_test::read_file(path(name)); }
  // Loads `text` as FILE into `table` and returns its converted file.
  std::string load_and_convert(const std::string& text, LabelTable* table = nullptr) {
    if (table == nullptr) table = &table_;
    write("in", text);
    table->load_labels(path("in").c_str());
    EXPECT_EQ(table->convert(path("in").c_str(), path("in.conv").c_str()), 0u);
    return read("in.conv");
  }
  static Strings labels(const LabelTable& table) {
    Strings out;
    for (unsigned i = 0; i < table.label_count(); ++i) out.push_back(table.label_of(i));
    return out;
  }
  unsigned r_convert(const std::string& fp, unsigned skip = 3) {
    write("fp", fp);
    return table_.r_convert(path("fp").c_str(), path("out").c_str(), skip);
  }

  LabelTable table_;
};

TEST(LabelTable, IsNumberAcceptsCanonicalDecimalsOnly) {
  for (const char* yes : {"0", "5", "10", "4294967295", "4294967296", "123456789012345678901"}) {
    EXPECT_TRUE(LabelTable::is_number(yes)) << yes;
  }
  for (const char* no : {"", "00", "05", "+5", "-3", "-1", "1.5", "5a", " 5", "\xd9\xa5"}) {
    EXPECT_FALSE(LabelTable::is_number(no)) << no;
  }
}

// Numbers by value first, then labels in unsigned byte order; "-1" is never
// numbered; each input line gives one output line of "N " tokens.
TEST_F(LabelTableTest, NumberingAndConvertedLines) {
  const std::string big = "123456789012345678901234567890";
  const struct {
    std::string text;
    Strings labels;
    std::string conv;
  } cases[] = {
      {"b 10 a 9 10\n", {"9", "10", "a", "b"}, "3 1 2 0 1 \n"},
      {"abc \xc3\xa9t\xc3\xa9 a\xc3\xa9 ab B a 05 5 0 100 z\n",
       {"0", "5", "100", "05", "B", "a", "ab", "abc", "a\xc3\xa9", "z", "\xc3\xa9t\xc3\xa9"},
       "7 10 8 6 4 5 3 1 0 2 9 \n"},
      // Numbers above 4294967295 are labels, so they come back unchanged.
      {"4294967296 4294967295 0 " + big + " 1\n", {"0", "1", "4294967295", big, "4294967296"},
       "4 2 0 3 1 \n"},
      {"a b c d\nx -1\n-1\n-1 a\n", {"a", "b", "c", "d", "x"}, "0 1 2 3 \n4 -1 \n-1 \n-1 0 \n"},
      // Runs of white space become single blanks; the last line needs no newline.
      {"1 2 3 cheese eggs jam\nbread  milk\tbread",
       {"1", "2", "3", "bread", "cheese", "eggs", "jam", "milk"}, "0 1 2 4 5 6 \n3 7 3 \n"},
      {"milk bread\n\n7 x  y\n", {"7", "bread", "milk", "x", "y"}, "2 1 \n\n0 3 4 \n"},
      {"\tmilk\tbread\r\n\r\n7\vx\f y \r\n", {"7", "bread", "milk", "x", "y"}, "2 1 \n\n0 3 4 \n"},
      {"\n\na\n  \n b", {"a", "b"}, "\n\n0 \n\n1 \n"},
      {"", {}, ""},
      {"a\0b c\n\0\nc"s, {"\0"s, "a\0b"s, "c"}, "1 2 \n0 \n2 \n"},  // NUL is a label byte
  };
  for (const auto& c : cases) {
    LabelTable table;
    table.add_reserved_token("-1");
    EXPECT_EQ(load_and_convert(c.text, &table), c.conv) << c.text;
    EXPECT_EQ(labels(table), c.labels) << c.text;
  }
}

TEST_F(LabelTableTest, UnknownTokenGetsItemZeroAndIsAdded) {
  load_and_convert("p q\n");
  EXPECT_EQ(table_.item_number_of("zz"), 0u);
  EXPECT_EQ(table_.item_number_of("77"), 0u);
  EXPECT_EQ(table_.label_count(), 4u);
  EXPECT_EQ(table_.item_number_of("q"), 1u);
}

TEST_F(LabelTableTest, VeryLongLineKeepsEveryToken) {
  std::string line;
  for (int i = 99999; i >= 0; --i) {
    line += 'w';
    line += std::to_string(i);
    line += i % 7 == 0 ? '\t' : ' ';
  }
  std::istringstream conv(load_and_convert(line + "\nw5\n"));
  EXPECT_EQ(table_.label_count(), 100000u);
  std::string first, second;
  std::getline(conv, first);
  std::getline(conv, second);
  std::istringstream tokens(first);
  std::set<uint32_t> seen;
  for (uint32_t n; tokens >> n;) seen.insert(n);
  EXPECT_EQ(seen.size(), 100000u);
  EXPECT_EQ(*seen.rbegin(), 99999u);
  EXPECT_EQ(second, std::to_string(table_.item_number_of("w5")) + " ");
}

// The numbering must equal the rule "numbers by value, then labels by unsigned
// bytes", here rebuilt with ordered containers over random tokens.
TEST_F(LabelTableTest, NumberingMatchesOrderedReference) {
  std::mt19937 rng(20240611);
  const Strings pieces = {"0", "1", "9", "05", "a", "B", "\xe2\x82\xac", "z", "-", "00", "4294967"};
  std::string text;
  std::set<uint32_t> numbers;
  std::set<std::string> texts;
  for (int line = 0; line < 400; ++line) {
    for (int k = rng() % 12; k > 0; --k) {
      std::string t;
      for (int p = 1 + rng() % 4; p > 0; --p) t += pieces[rng() % pieces.size()];
      text += t + (rng() % 3 == 0 ? "\t" : " ");
      if (t == "-1") continue;
      if (LabelTable::is_number(t) && t.size() <= 10 && std::stoull(t) <= 4294967295ull) {
        numbers.insert(static_cast<uint32_t>(std::stoull(t)));
      } else {
        texts.insert(t);
      }
    }
    text += rng() % 5 == 0 ? "\r\n" : "\n";
  }
  load_and_convert(text);
  Strings expected;
  for (uint32_t v : numbers) expected.push_back(std::to_string(v));
  expected.insert(expected.end(), texts.begin(), texts.end());
  EXPECT_EQ(labels(table_), expected);
  for (uint32_t i = 0; i < expected.size(); ++i) EXPECT_EQ(table_.item_number_of(expected[i]), i);
}

TEST_F(LabelTableTest, RConvertWritesLabelsAfterTheSkippedFields) {
  load_and_convert("b 10 a 9 10\nx\0y\n"s);  // items 9 10 a b x\0y
  ASSERT_EQ(r_convert("1-0 25 12.500 1 3\n0-0 30 15.000\n\n0-1\t 2  12.5 \t2\n"
                      "0-2 1 1.0 -1 0\n1-1 2 2.0 0 4"),
            0u);
  EXPECT_EQ(read("out"), "1-0 25 12.500 10 b \n0-0 30 15.000 \n\n0-1 2 12.5 a \n"
                         "0-2 1 1.0 -1 9 \n1-1 2 2.0 9 x\0y \n"s);
  ASSERT_EQ(r_convert(""), 0u);
  EXPECT_EQ(read("out"), "");
  for (const char* bad : {"0-0 1 1.0 5\n", "0-0 1 1.0 x\n", "0-0 1 1.0 2 +1\n",
                          "0-0 1 1.0 99999999999\n"}) {
    EXPECT_EQ(r_convert(bad), 1u) << bad;
  }
  EXPECT_EQ(r_convert("0-0 1 1.0 0\n", 0), 1u);  // "0-0" is no item
}

TEST_F(LabelTableTest, OutputsGetMode0664AndMissingOrUnwritableFilesFail) {
  const mode_t old = umask(0);
  load_and_convert("a\n");
  const unsigned status = r_convert("0-0 1 100.000 0\n");
  umask(old);
  ASSERT_EQ(status, 0u);
  for (const char* name : {"in.conv", "out"}) {
    struct stat st;
    ASSERT_EQ(stat(path(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u) << name;
  }
  LabelTable none;
  none.load_labels(path("absent").c_str());
  EXPECT_EQ(none.label_count(), 0u);
  for (auto [in, out] : {std::pair{"absent", "out"}, {"in", "no/dir/out"}}) {
    EXPECT_EQ(table_.convert(path(in).c_str(), path(out).c_str()), 1u) << in;
    EXPECT_EQ(table_.r_convert(path(in).c_str(), path(out).c_str(), 3), 1u) << in;
  }
}

// FILE -> FILE.conv -> FILE.qr -> numbered pattern lines -> FILE.fp restores
// the user's own tokens, whatever their kind.
TEST_F(LabelTableTest, RoundTripRestoresUserLabels) {
  const std::string conv = load_and_convert(
      "milk 05 bread\r\n5 \xc3\xa9pices 4294967296 milk\n\nB b 0 -1\n-1 10 10 0\n"
      "123456789012345678901234567890 x");
  CollectingReporter rep;
  uint32_t item_count = 0;
  ASSERT_EQ(ttoqr(path("in.conv").c_str(), path("in.qr").c_str(), &item_count, &rep), 0u);
  EXPECT_EQ(item_count, table_.label_count());
  // One pattern line per converted line with an item, items ascending.
  std::istringstream lines(conv);
  std::string fp_conv;
  int k = 0;
  for (std::string line; std::getline(lines, line);) {
    std::set<uint32_t> items;
    std::istringstream tokens(line);
    for (std::string t; tokens >> t;) {
      if (t != "-1") items.insert(static_cast<uint32_t>(std::stoul(t)));
    }
    if (items.empty()) continue;
    fp_conv += std::to_string(items.size() - 1) + "-" + std::to_string(k++) + " 1 16.667";
    for (uint32_t item : items) {
      fp_conv += ' ';
      fp_conv += std::to_string(item);
    }
    fp_conv += "\n";
  }
  write("in.fp_conv", fp_conv);
  ASSERT_EQ(table_.r_convert(path("in.fp_conv").c_str(), path("in.fp").c_str(), 3), 0u);
  EXPECT_EQ(read("in.fp"),
            "2-0 1 16.667 05 bread milk \n"
            "3-1 1 16.667 5 4294967296 milk \xc3\xa9pices \n"
            "2-2 1 16.667 0 B b \n"
            "1-3 1 16.667 0 10 \n"
            "1-4 1 16.667 123456789012345678901234567890 x \n");
}

// Fixture pairs hold the same transactions, once plainly written and once with
// shuffled and repeated items, tabs, CRLF, blank and "-1" lines and no final
// newline: both must give the same labels and the same binary file.
TEST_F(LabelTableTest, NoisyLayoutGivesTheSameTransactions) {
  for (const std::string name : {"labels", "numbers"}) {
    Strings label_lists[2];
    std::string binaries[2];
    for (int noisy = 0; noisy < 2; ++noisy) {
      const std::string file =
          quarlo_test::data_path("conversion/" + name + (noisy ? "-noise.txt" : ".txt"));
      LabelTable table;
      table.add_reserved_token("-1");
      table.load_labels(file.c_str());
      ASSERT_EQ(table.convert(file.c_str(), path("f.conv").c_str()), 0u);
      CollectingReporter rep;
      uint32_t item_count = 0;
      ASSERT_EQ(ttoqr(path("f.conv").c_str(), path("f.qr").c_str(), &item_count, &rep), 0u);
      EXPECT_EQ(item_count, table.label_count());
      label_lists[noisy] = labels(table);
      binaries[noisy] = read("f.qr");
    }
    EXPECT_GT(label_lists[0].size(), 50u) << name;
    EXPECT_EQ(label_lists[0], label_lists[1]) << name;
    EXPECT_GT(binaries[0].size(), 4000u) << name;
    EXPECT_EQ(binaries[0], binaries[1]) << name;
  }
}

}  // namespace
