// Command-line parsing, derived file names, the usage texts and the
// "Options" block of the run report. parse() starts from the defaults on
// every call, so the cases parse in-process; the exiting paths run forked.
#include "vscmdl.h"

#include <cstring>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::Argv;
using quarlo_test::golden_path;
using quarlo_test::read_file;
using quarlo_test::run_forked;
using quarlo_test::RunResult;
using quarlo_test::split_lines;
using quarlo_test::StdoutCapture;

std::string str_or_null(const char* s) { return s == nullptr ? "(null)" : s; }

// The seven derived names in the order the parser builds them.
std::vector<std::string> derived_names() {
  return {str_or_null(get_conv_file()), str_or_null(get_vs_file()),
          str_or_null(get_qr_file()),   str_or_null(get_tid_file()),
          str_or_null(get_pc_file()),   str_or_null(get_fp_conv_file()),
          str_or_null(get_fp_file())};
}

// The "Options" block as print_options writes it.
std::string options_block(Argv& args) {
  parse(args.argc(), args.argv(), 0);
  StdoutCapture capture;
  print_options();
  return capture.release();
}

TEST(OptionParser, DerivesEveryNameFromFile) {
  Argv args{"quarlo", "a.b"};
  parse(args.argc(), args.argv(), 0);
  EXPECT_EQ(derived_names(),
            (std::vector<std::string>{"a.b.conv", "a.b.vs", "a.b.qr", "a.b.tid", "a.b.pc",
                                      "a.b.fp_conv", "a.b.fp"}));
  // FILE itself is kept, not copied.
  EXPECT_EQ(get_input_file(), args.argv()[1]);

  Argv nested{"quarlo", "data/tr.txt"};
  parse(nested.argc(), nested.argv(), 0);
  EXPECT_STREQ(get_input_file(), "data/tr.txt");
  EXPECT_EQ(derived_names(),
            (std::vector<std::string>{"data/tr.txt.conv", "data/tr.txt.vs", "data/tr.txt.qr",
                                      "data/tr.txt.tid", "data/tr.txt.pc",
                                      "data/tr.txt.fp_conv", "data/tr.txt.fp"}));
}

TEST(OptionParser, EmptyFileOperandYieldsNoNames) {
  Argv args{"quarlo", ""};
  parse(args.argc(), args.argv(), 0);
  ASSERT_NE(get_input_file(), nullptr);
  EXPECT_STREQ(get_input_file(), "");
  EXPECT_EQ(derived_names(), std::vector<std::string>(7, "(null)"));
}

TEST(OptionParser, DefaultsWithoutOptions) {
  Argv args{"quarlo", "f"};
  parse(args.argc(), args.argv(), 0);
  EXPECT_EQ(get_buffer_size(), 50000000u);
  EXPECT_EQ(get_temp_dir(), nullptr);
  EXPECT_EQ(get_min_size(), 1u);
  EXPECT_EQ(get_max_size(), 4294967295u);
  EXPECT_EQ(get_min_support(), 0.0);
  EXPECT_EQ(get_supp_table_file(), nullptr);
  EXPECT_FALSE(want_pc_list());
  EXPECT_FALSE(want_tid_list());
  EXPECT_FALSE(want_maximal());
}

TEST(OptionParser, ShortAndLongFormsSetTheSameFields) {
  Argv shorts{"quarlo", "-b", "3",  "-d", "tmpd", "-m", "2", "-M", "9", "-p",
              "-s",     "2.5", "-S", "tbl", "-t",  "-x", "f"};
  Argv longs{"quarlo",       "--bufsize=3",   "--dir=tmpd",
             "--minsize=2",  "--maxsize", "9", "--parent-children-list",
             "--support=2.5", "--supptable=tbl", "--tid-list",
             "--maximal",    "f"};
  for (Argv* args : {&shorts, &longs}) {
    parse(args->argc(), args->argv(), 0);
    EXPECT_EQ(get_buffer_size(), 3000000u);
    EXPECT_STREQ(get_temp_dir(), "tmpd");
    EXPECT_EQ(get_min_size(), 2u);
    EXPECT_EQ(get_max_size(), 9u);
    EXPECT_EQ(get_min_support(), 2.5);
    EXPECT_STREQ(get_supp_table_file(), "tbl");
    EXPECT_TRUE(want_pc_list());
    EXPECT_TRUE(want_tid_list());
    EXPECT_TRUE(want_maximal());
    EXPECT_STREQ(get_input_file(), "f");
  }
}

TEST(OptionParser, NumbersAreTakenAsStrtolAndStrtodGiveThem) {
  Argv args{"quarlo", "-m", "-1", "-M", "-2", "-s", "abc", "-b", "x", "f"};
  parse(args.argc(), args.argv(), 0);
  EXPECT_EQ(get_min_size(), 4294967295u);  // 32-bit two's complement
  EXPECT_EQ(get_max_size(), 4294967294u);
  EXPECT_EQ(get_min_support(), 0.0);
  EXPECT_EQ(get_buffer_size(), 0u);

  Argv prefixes{"quarlo", "-m", "abc", "-M", "12abc", "-s", "1.5e1x", "f"};
  parse(prefixes.argc(), prefixes.argv(), 0);
  EXPECT_EQ(get_min_size(), 0u);
  EXPECT_EQ(get_max_size(), 12u);
  EXPECT_EQ(get_min_support(), 15.0);

  // -s is not range-checked; -b is decimal megabytes kept in 32 bits.
  Argv wide{"quarlo", "-s", "250", "-b", "5000", "f"};
  parse(wide.argc(), wide.argv(), 0);
  EXPECT_EQ(get_min_support(), 250.0);
  EXPECT_EQ(get_buffer_size(), static_cast<uint32_t>(5000ull * 1000000ull));
}

TEST(OptionParser, LaterOccurrenceOverwrites) {
  Argv args{"quarlo", "-m", "2", "-s", "1", "-S", "first", "-m", "5",
            "-S",     "second", "-s", "3", "f"};
  parse(args.argc(), args.argv(), 0);
  EXPECT_EQ(get_min_size(), 5u);
  EXPECT_EQ(get_min_support(), 3.0);
  EXPECT_STREQ(get_supp_table_file(), "second");
}

TEST(OptionParser, OperandsAfterFileAreIgnoredAndOptionsMayFollowIt) {
  Argv args{"quarlo", "first", "second", "-x"};
  parse(args.argc(), args.argv(), 0);
  EXPECT_STREQ(get_input_file(), "first");
  EXPECT_STREQ(get_fp_file(), "first.fp");
  EXPECT_TRUE(want_maximal());
}

TEST(OptionParser, EachCallStartsFromTheDefaults) {
  Argv first{"quarlo", "-x", "-p", "-m", "4", "-S", "t", "one"};
  parse(first.argc(), first.argv(), 0);
  Argv second{"quarlo", "two"};
  parse(second.argc(), second.argv(), 0);
  EXPECT_FALSE(want_maximal());
  EXPECT_FALSE(want_pc_list());
  EXPECT_EQ(get_min_size(), 1u);
  EXPECT_EQ(get_supp_table_file(), nullptr);
  EXPECT_STREQ(get_conv_file(), "two.conv");
}

TEST(OptionParser, UnknownOptionIsReportedByGetoptAndSkipped) {
  RunResult r = run_forked([] {
    Argv args{"quarlo", "-q", "-x", "--bogus", "-m", "3", "f"};
    parse(args.argc(), args.argv(), 0);
    return want_maximal() && get_min_size() == 3 ? 0 : 1;
  });
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("invalid option -- 'q'"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("unrecognized option '--bogus'"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST(OptionParser, HelpAndMissingFilePrintUsageAndExit1) {
  const std::string usage = read_file(golden_path("usage_quarlo.txt"));
  const std::vector<std::vector<std::string>> command_lines = {
      {"quarlo", "-h", "data"}, {"quarlo", "--help"}, {"quarlo"}, {"quarlo", "-x", "-s", "5"}};
  for (const auto& line : command_lines) {
    RunResult r = run_forked([&] {
      std::vector<std::string> copy = line;
      std::vector<char*> argv;
      for (std::string& s : copy) argv.push_back(s.data());
      argv.push_back(nullptr);
      parse(static_cast<int>(copy.size()), argv.data(), 0);
      return 0;
    });
    EXPECT_EQ(r.status, 1) << line.size();
    EXPECT_EQ(r.out, usage);
  }
}

TEST(UsageText, QuarloTextMatchesTheReferenceBytes) {
  StdoutCapture capture;
  print_usage(0);
  EXPECT_EQ(capture.release(), read_file(golden_path("usage_quarlo.txt")));
}

TEST(UsageText, SiblingTextAddsItsOwnOptions) {
  // The sibling's text is this program's text with its own name, its own
  // FILE paragraph and the -b, -d and -t entries.
  std::string expected = read_file(golden_path("usage_quarlo.txt"));
  auto replace = [&](const std::string& from, const std::string& to) {
    size_t at = expected.find(from);
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

TEST(OptionsReport, DefaultBlock) {
  Argv args{"quarlo", "f"};
  EXPECT_EQ(options_block(args),
            "Options ------------------------------------------------------------------------\n"
            "  Minimum Output Pattern Size:                  1\n"
            "  Maximum Output Pattern Size:                  4294967295\n"
            "  Constant Minimum Support:                     0.000000\n"
            "  PC List File Generation:                      Skip\n"
            "  Non-Maximal Frequent Pattern Pruning:         Skip\n"
            "\n");
}

TEST(OptionsReport, ValuesStartInColumn49AndTitleIs80Wide) {
  Argv args{"quarlo", "-m", "3", "-M", "7", "-s", "5", "-S", "tbl", "-p", "-x", "f"};
  std::vector<std::string> lines = split_lines(options_block(args));
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines.front().size(), 80u);
  EXPECT_EQ(lines.front().rfind("Options -", 0), 0u);
  EXPECT_EQ(lines.front().find_first_not_of('-', 8), std::string::npos);
  EXPECT_EQ(lines.back(), "");
  for (size_t i = 1; i + 1 < lines.size(); ++i) {
    const std::string& line = lines[i];
    ASSERT_GT(line.size(), 48u) << line;
    const size_t colon = line.find(':');
    EXPECT_EQ(line.rfind("  ", 0), 0u) << line;
    EXPECT_LT(colon, 47u) << line;
    EXPECT_EQ(line.find_first_not_of(' ', colon + 1), 48u) << line;
  }
}

TEST(OptionsReport, SupportTableWithAndWithoutTheIgnoredConstant) {
  Argv both{"quarlo", "-s", "5", "-S", "tbl", "-p", "-x", "f"};
  EXPECT_EQ(options_block(both),
            "Options ------------------------------------------------------------------------\n"
            "  Minimum Output Pattern Size:                  1\n"
            "  Maximum Output Pattern Size:                  4294967295\n"
            "  Length-Decreasing Support Constraint File:    tbl\n"
            "  Constant Minimum Support:                     5.000000: Warning: Ignored: "
            "\"tbl\" is given\n"
            "  PC List File Generation:                      Generate\n"
            "  Non-Maximal Frequent Pattern Pruning:         Prune\n"
            "\n");

  Argv zero{"quarlo", "-s", "0", "-S", "tbl", "f"};
  std::string block = options_block(zero);
  EXPECT_NE(block.find("  Length-Decreasing Support Constraint File:    tbl\n"), std::string::npos);
  EXPECT_EQ(block.find("Constant Minimum Support"), std::string::npos) << block;

  // Any value other than exactly 0.0 draws the warning.
  Argv tiny{"quarlo", "-s", "0.0001", "-S", "tbl", "f"};
  EXPECT_NE(options_block(tiny).find("0.000100: Warning: Ignored: \"tbl\" is given\n"),
            std::string::npos);
}

TEST(OptionsReport, SizesPrintAsUnsignedAndUnusedOptionsLeaveNoTrace) {
  Argv sizes{"quarlo", "-m", "-1", "-M", "0", "f"};
  std::string block = options_block(sizes);
  EXPECT_NE(block.find("  Minimum Output Pattern Size:                  4294967295\n"),
            std::string::npos);
  EXPECT_NE(block.find("  Maximum Output Pattern Size:                  0\n"), std::string::npos);

  Argv plain{"quarlo", "-s", "2.5", "f"};
  Argv extra{"quarlo", "-b", "100", "-d", "/tmp", "-t", "-s", "2.5", "f"};
  EXPECT_EQ(options_block(plain), options_block(extra));
}

}  // namespace
