// Engine entry: the report blocks it prints, the pattern file it leaves, and
// the fatal-error lines of its stages.
#include "qr.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ttoqr.h"
#include "vscmdl.h"

namespace {

namespace fs = std::filesystem;

class Engine : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (fs::temp_directory_path() / "quarlo-qr-XXXXXX").string();
    ASSERT_NE(mkdtemp(templ.data()), nullptr);
    dir_ = templ;
    input_ = (dir_ / "shop.txt").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Writes FILE.qr from item lists (ascending) and sets item_count.
  void Database(const std::vector<std::vector<uint32_t>>& trans) {
    std::ofstream out(input_ + ".qr", std::ios::binary);
    uint32_t top = 0;
    for (const auto& t : trans) {
      const uint32_t n = static_cast<uint32_t>(t.size());
      out.write(reinterpret_cast<const char*>(&n), 4);
      out.write(reinterpret_cast<const char*>(t.data()), 4 * n);
      for (uint32_t x : t) top = std::max(top, x + 1);
    }
    item_count = top;
  }

  // Parses the options (FILE appended) and runs the engine, keeping its report.
  int Run(std::vector<std::string> args) {
    args.insert(args.begin(), "quarlo");
    args.push_back(input_);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    parse(static_cast<int>(argv.size()), argv.data(), 0);
    testing::internal::CaptureStdout();
    const int status = find_frequent_patterns();
    report_ = testing::internal::GetCapturedStdout();
    return status;
  }

  std::string Patterns() {
    std::ifstream in(input_ + ".fp_conv");
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
  }

  fs::path dir_;
  std::string input_;
  std::string report_;
};

TEST_F(Engine, ReportsInputOptionsAndSolution) {
  Database({{0, 1, 2}, {0, 1, 2}, {0, 1}, {0, 1}, {0}});
  ASSERT_EQ(Run({"-s", "40"}), 0);
  const std::string want_head =
      "Transaction File Information ---------------------------------------------------\n"
      "  Transaction File Name:                        " +
      input_ +
      "\n"
      "  Number of Input Transactions:                 5\n"
      "  Number of Distinct Items:                     3\n"
      "  Average Number of Items In a Tran:            2.200\n"
      "  Maximum Number of Items In a Tran:            3\n"
      "\n"
      "Options ------------------------------------------------------------------------\n";
  EXPECT_EQ(report_.substr(0, want_head.size()), want_head);
  const std::string want_tail =
      "Solution -----------------------------------------------------------------------\n"
      "  Frequent Pattern File:                        " +
      input_ +
      ".fp\n"
      "  Number of Frequent Patterns:                  7\n";
  ASSERT_GE(report_.size(), want_tail.size());
  EXPECT_EQ(report_.substr(report_.size() - want_tail.size()), want_tail);
  EXPECT_EQ(Patterns(),
            "0-0 5 100.000 0\n1-0 4 80.000 0 1\n2-0 2 40.000 0 1 2\n1-1 2 40.000 0 2\n"
            "0-1 4 80.000 1\n1-2 2 40.000 1 2\n0-2 2 40.000 2\n");
}

TEST_F(Engine, PcListLineOnlyWithDashP) {
  Database({{0, 1}, {1}});
  ASSERT_EQ(Run({"-p"}), 0);
  EXPECT_NE(report_.find("  PC List File:                                 " + input_ + ".pc\n"),
            std::string::npos);
  ASSERT_EQ(Run({"-x"}), 0);
  EXPECT_EQ(report_.find("  PC List File:  "), std::string::npos);
}

TEST_F(Engine, MinimumSizeTwoNumbersFirstPairZero) {
  Database({{3, 5}, {3, 5}, {3}});
  ASSERT_EQ(Run({"-m", "2"}), 0);
  EXPECT_EQ(Patterns(), "1-0 2 66.667 3 5\n");
}

TEST_F(Engine, EmptyDatabaseReportsZeroPatternsAndWritesNoFile) {
  Database({});
  ASSERT_EQ(Run({"-s", "10"}), 0);
  EXPECT_NE(report_.find("  Number of Input Transactions:                 0\n"
                         "  Number of Distinct Items:                     0\n"
                         "  Average Number of Items In a Tran:            0.000\n"
                         "  Maximum Number of Items In a Tran:            0\n"),
            std::string::npos)
      << report_;
  EXPECT_NE(report_.find("  Number of Frequent Patterns:                  0\n"), std::string::npos);
  EXPECT_FALSE(fs::exists(input_ + ".fp_conv"));
}

TEST_F(Engine, NoFrequentItemWritesNoFile) {
  Database({{1}, {2}, {3}});
  ASSERT_EQ(Run({"-s", "50"}), 0);
  EXPECT_NE(report_.find("  Number of Frequent Patterns:                  0\n"), std::string::npos);
  EXPECT_FALSE(fs::exists(input_ + ".fp_conv"));
}

TEST_F(Engine, SupportTableFromFileDecreasesWithLength) {
  Database({{0}, {0}, {0}, {0}, {1, 2}, {1, 2}, {0, 1, 2}, {3}});
  const std::string table = (dir_ / "supp").string();
  std::ofstream(table) << "1 50\n2 30\n3 10\n";  // counts 4, 3, 1 of 8
  ASSERT_EQ(Run({"-S", table}), 0);
  // Item 3 is cut by path pruning; {2} (support 3 < 4) is not written, but its
  // conditional tree gives {1, 2} and {0, 1, 2}; {0} comes last.
  EXPECT_EQ(Patterns(), "1-0 3 37.500 1 2\n2-0 1 12.500 0 1 2\n0-0 5 62.500 0\n");
}

TEST_F(Engine, MissingBinaryFileIsAFatalLoadError) {
  item_count = 4;
  ASSERT_EQ(Run({}), 1);
  EXPECT_EQ(report_, "qr(106) Fatal error in load_trandb()\n");
}

TEST_F(Engine, RefusedSupportTableIsAFatalTableError) {
  Database({{0, 1}});
  const std::string table = (dir_ / "supp").string();
  std::ofstream(table) << "2 5.0\n";
  ASSERT_EQ(Run({"-S", table}), 1);
  EXPECT_NE(report_.find("qr(130) Fatal error in init_freq_tbl()\n"), std::string::npos) << report_;
}

TEST_F(Engine, UnwritablePatternFileFailsTheRun) {
  Database({{0, 1}});
  fs::create_directory(input_ + ".fp_conv");
  ASSERT_EQ(Run({}), 1);
  EXPECT_NE(report_.find("iopttn(26) fopen(" + input_ + ".fp_conv): Is a directory\n"),
            std::string::npos)
      << report_;
  EXPECT_NE(report_.find(" Failed to open "), std::string::npos);
}

}  // namespace
