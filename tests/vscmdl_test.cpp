// Command-line parsing, derived file names, the sibling's usage text and the
// layout of the "Options" block. parse() starts from the defaults on every
// call, so the cases parse in-process. Usage, exit status and the whole
// Options block of this program are checked through the built program.
#include "vscmdl.h"

#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::Argv;
using quarlo_test::StdoutCapture;

void parse_args(Argv& args) { parse(args.argc(), args.argv(), 0); }

// The "Options" block as print_options writes it for `args`.
std::string options_block(Argv args) {
  parse_args(args);
  StdoutCapture capture;
  print_options();
  return capture.release();
}

TEST(OptionParser, DerivesEveryNameFromFile) {
  auto names = [] {
    std::vector<std::string> out;
    for (const char* n : {get_conv_file(), get_vs_file(), get_qr_file(), get_tid_file(),
                          get_pc_file(), get_fp_conv_file(), get_fp_file()}) {
      out.push_back(n == nullptr ? "(null)" : n);
    }
    return out;
  };
  Argv args{"quarlo", "data/a.b"};
  parse_args(args);
  EXPECT_EQ(get_input_file(), args.argv()[1]);  // kept, not copied
  EXPECT_EQ(names(), (std::vector<std::string>{"data/a.b.conv", "data/a.b.vs", "data/a.b.qr",
                                               "data/a.b.tid", "data/a.b.pc", "data/a.b.fp_conv",
                                               "data/a.b.fp"}));
  Argv empty{"quarlo", ""};
  parse_args(empty);
  EXPECT_STREQ(get_input_file(), "");
  EXPECT_EQ(names(), std::vector<std::string>(7, "(null)"));
}

TEST(OptionParser, ShortAndLongFormsSetTheFieldsAndEachCallStartsOver) {
  Argv shorts{"quarlo", "-b", "3",  "-d", "tmpd", "-m", "2", "-M", "9", "-p",
              "-s",     "2.5", "-S", "tbl", "-t",  "-x", "f"};
  Argv longs{"quarlo",        "--bufsize=3",     "--dir=tmpd", "--minsize=2",
             "--maxsize",     "9",               "--parent-children-list",
             "--support=2.5", "--supptable=tbl", "--tid-list", "--maximal", "f"};
  Argv plain{"quarlo", "f"};
  for (Argv* args : {&shorts, &longs, &plain}) {
    parse_args(*args);
    const bool set = args != &plain;
    EXPECT_EQ(get_buffer_size(), set ? 3000000u : 50000000u);
    EXPECT_STREQ(get_temp_dir(), set ? "tmpd" : nullptr);
    EXPECT_EQ(get_min_size(), set ? 2u : 1u);
    EXPECT_EQ(get_max_size(), set ? 9u : 4294967295u);
    EXPECT_EQ(get_min_support(), set ? 2.5 : 0.0);
    EXPECT_STREQ(get_supp_table_file(), set ? "tbl" : nullptr);
    EXPECT_EQ(want_pc_list(), set);
    EXPECT_EQ(want_tid_list(), set);
    EXPECT_EQ(want_maximal(), set);
    EXPECT_STREQ(get_input_file(), "f");
  }
}

TEST(OptionParser, NumbersAreReadAsStrtolAndStrtodReadThem) {
  Argv args{"quarlo", "-m", "-1", "-M", "12abc", "-s", "1.5e1x", "-b", "5000", "f"};
  parse_args(args);
  EXPECT_EQ(get_min_size(), 4294967295u);  // 32-bit two's complement
  EXPECT_EQ(get_max_size(), 12u);
  EXPECT_EQ(get_min_support(), 15.0);
  EXPECT_EQ(get_buffer_size(), static_cast<uint32_t>(5000ull * 1000000ull));
  Argv words{"quarlo", "-m", "abc", "-s", "abc", "f"};
  parse_args(words);
  EXPECT_EQ(get_min_size(), 0u);
  EXPECT_EQ(get_min_support(), 0.0);
}

TEST(OptionParser, LaterOccurrenceOverwritesAndOptionsMayFollowFile) {
  Argv args{"quarlo", "-m", "2", "-S", "first", "-m", "5", "one", "two", "-S", "second", "-x"};
  parse_args(args);
  EXPECT_EQ(get_min_size(), 5u);
  EXPECT_STREQ(get_supp_table_file(), "second");
  EXPECT_TRUE(want_maximal());
  EXPECT_STREQ(get_input_file(), "one");
  EXPECT_STREQ(get_fp_file(), "one.fp");
}

TEST(UsageText, SiblingTextAddsItsOwnOptions) {
  // The sibling's text is this program's text with its own name, its own
  // FILE paragraph and the -b, -d and -t entries.
  std::string expected = quarlo_test::read_file(quarlo_test::golden_path("usage_quarlo.txt"));
  auto replace = [&](const std::string& from, const std::string& to) {
    const size_t at = expected.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    expected.replace(at, from.size(), to);
  };
  replace("Usage: quarlo [OPTIONS] FILE\n", "Usage: vorsel [OPTIONS] FILE\n");
  replace("    FILE    The name of a transaction file from which frequent patterns are to\n"
          "            be found.\n",
          "    FILE    The name of a sequential transaction file from which frequent\n"
          "            patterns are be found.\n");
  replace("  -h, --help\n",
          "  -b, --bufsize=NUMBER\n"
          "    The size of internal buffer in mega bytes. 50MB by default.\n"
          "\n"
          "  -d, --dir=DIR\n"
          "    Use DIR as the directory where temporary files are written. Default is \n"
          "    the directory where FILE resides.\n"
          "\n"
          "  -h, --help\n");
  replace("  -x, --maximal\n",
          "  -t, --tid-list\n"
          "    Generate TID list for each frequent pattern.\n"
          "\n"
          "  -x, --maximal\n");
  StdoutCapture capture;
  print_usage(1);
  EXPECT_EQ(capture.release(), expected);
}

TEST(OptionsReport, ValuesStartInColumn49AndTitleIs80Wide) {
  for (const std::string& block :
       {options_block({"quarlo", "f"}),
        options_block({"quarlo", "-m", "3", "-M", "7", "-s", "5", "-S", "tbl", "-p", "-x", "f"})}) {
    const std::vector<std::string> lines = quarlo_test::split_lines(block);
    ASSERT_GE(lines.size(), 7u) << block;
    EXPECT_EQ(lines.front(), "Options " + std::string(72, '-'));
    EXPECT_EQ(lines.back(), "");
    for (size_t i = 1; i + 1 < lines.size(); ++i) {
      const std::string& line = lines[i];
      const size_t colon = line.find(':');
      EXPECT_EQ(line.rfind("  ", 0), 0u) << line;
      EXPECT_LT(colon, 47u) << line;
      EXPECT_EQ(line.find_first_not_of(' ', colon + 1), 48u) << line;
    }
  }
}

TEST(OptionsReport, ConstantIgnoredBesideATableDrawsAWarning) {
  const std::string warning = "  Constant Minimum Support:                     %s: Warning: Ignored: "
                              "\"tbl\" is given\n";
  auto with = [&](const char* value) {
    std::string line = warning;
    return line.replace(line.find("%s"), 2, value);
  };
  EXPECT_NE(options_block({"quarlo", "-s", "5", "-S", "tbl", "f"}).find(with("5.000000")),
            std::string::npos);
  // Any value other than exactly 0.0 draws the warning.
  EXPECT_NE(options_block({"quarlo", "-s", "0.0001", "-S", "tbl", "f"}).find(with("0.000100")),
            std::string::npos);
  const std::string zero = options_block({"quarlo", "-s", "0", "-S", "tbl", "f"});
  EXPECT_NE(zero.find("  Length-Decreasing Support Constraint File:    tbl\n"), std::string::npos);
  EXPECT_EQ(zero.find("Constant Minimum Support"), std::string::npos) << zero;
  // -t, like -b and -d, leaves no trace.
  EXPECT_EQ(options_block({"quarlo", "-s", "2.5", "f"}),
            options_block({"quarlo", "-b", "100", "-d", "tmpd", "-t", "-s", "2.5", "f"}));
}

}  // namespace
