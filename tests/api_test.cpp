// The public library against the program: the same itemsets, ids, supports
// and parents as the program's FILE.fp and FILE.pc, from a file and from
// memory, in one thread or several at once; bad inputs raise quarlo::Error.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quarlo/quarlo.h"
#include "support/harness.h"

namespace {

using quarlo_test::copy_file;
using quarlo_test::read_file;
using quarlo_test::RunResult;
using quarlo_test::run_quarlo;
using quarlo_test::TempDirTest;
using quarlo_test::write_file;

using quarlo_test::source_path;

// The result written as the program writes FILE.fp.
std::string fp_text(const quarlo::Result& r) {
  std::string out;
  char pct[32];
  for (const quarlo::Itemset& s : r.itemsets) {
    snprintf(pct, sizeof pct, "%.3f", s.support * 100.0 / r.stats.transactions);
    out += std::to_string(s.items.size() - 1) + "-" + std::to_string(s.ordinal) + " " +
           std::to_string(s.support) + " " + pct + " ";
    for (uint32_t item : s.items) out += r.labels[item] + " ";
    out += "\n";
  }
  return out;
}

std::string id_of(const quarlo::Itemset& s) {
  return std::to_string(s.items.size() - 1) + "-" + std::to_string(s.ordinal);
}

// The parents written as the program writes FILE.pc: longest itemsets first.
std::string pc_text(const quarlo::Result& r) {
  std::vector<size_t> order(r.itemsets.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return r.itemsets[a].items.size() > r.itemsets[b].items.size();
  });
  std::string out;
  for (size_t i : order) {
    out += id_of(r.itemsets[i]);
    for (size_t p : r.parents[i]) {
      out += ' ';
      out += id_of(r.itemsets[p]);
    }
    out += "\n";
  }
  return out;
}

// The transactions of a file as labels, line by line.
std::vector<std::vector<std::string>> labels_of(const std::string& path) {
  std::vector<std::vector<std::string>> out;
  std::istringstream in(read_file(path));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    out.emplace_back();
    for (std::string w; words >> w;) out.back().push_back(w);
  }
  return out;
}

class Library : public TempDirTest {
 protected:
  // Runs the program on a copy of `input` (with `table` as t.supp when given).
  RunResult cli(const std::string& input, const std::string& table,
                std::vector<std::string> args) {
    copy_file(input, path("in.txt"));
    if (!table.empty()) {
      copy_file(table, path("t.supp"));
      args.insert(args.end(), {"-S", "t.supp"});
    }
    args.push_back("in.txt");
    return run_quarlo(dir(), args);
  }
};

TEST_F(Library, FileAndMemoryGiveTheProgramsFiles) {
  const struct {
    std::string input, table;
    double percent;  // without a table
  } cases[] = {
      {"examples/groceries.txt", "examples/groceries.supp", 0},
      {"examples/groceries.txt", "", 0},
      {"tests/data/cli/market.txt", "tests/data/cli/market.supp", 0},
      {"tests/data/conversion/labels-noise.txt", "", 2},
      {"tests/data/conversion/numbers-noise.txt", "", 3},
      {"tests/data/pipeline/lattice.txt", "tests/data/pipeline/lattice.supp", 0},
      {"tests/data/pipeline/gaps.txt", "tests/data/pipeline/gaps.supp", 0},
  };
  for (const auto& c : cases) {
    const std::string input = source_path(c.input);
    const std::string table = c.table.empty() ? "" : source_path(c.table);
    const std::string percent = std::to_string(c.percent);
    quarlo::Options options;
    options.support = quarlo::Support::percent(c.percent);
    if (!c.table.empty()) options.support = quarlo::Support::table_file(table);
    options.parents = true;
    ASSERT_EQ(cli(input, table, {"-p", "-s", percent}).status, 0) << c.input;
    const std::string fp = read_file(path("in.txt.fp"));
    const std::string pc = read_file(path("in.txt.pc"));
    const quarlo::Result from_file = quarlo::mine(quarlo::Transactions::from_file(input), options);
    EXPECT_EQ(fp_text(from_file), fp) << c.input;
    EXPECT_EQ(pc_text(from_file), pc) << c.input;
    const quarlo::Result in_memory = quarlo::mine(quarlo::Transactions::from_labels(labels_of(input)), options);
    EXPECT_EQ(fp_text(in_memory), fp) << c.input;
    EXPECT_EQ(pc_text(in_memory), pc) << c.input;

    options.maximal = true;
    options.parents = false;
    ASSERT_EQ(cli(input, table, {"-x", "-s", percent}).status, 0) << c.input;
    const quarlo::Result maximal = quarlo::mine(quarlo::Transactions::from_file(input), options);
    EXPECT_EQ(fp_text(maximal), read_file(path("in.txt.fp"))) << c.input;
    EXPECT_EQ(maximal.stats.frequent, from_file.itemsets.size());
  }
}

TEST_F(Library, SizesTablesAndIntegerLabelsFollowTheProgram) {
  const std::string input = source_path("examples/groceries.txt");
  const RunResult run = cli(input, "", {"-s", "12", "-m", "2", "-M", "3"});
  ASSERT_EQ(run.status, 0);
  quarlo::Options options;
  options.support = quarlo::Support::percent(12);
  options.min_size = 2;
  options.max_size = 3;
  quarlo::Result r = quarlo::mine(quarlo::Transactions::from_file(input), options);
  EXPECT_EQ(fp_text(r), read_file(path("in.txt.fp")));
  ASSERT_EQ(r.count_by_length.size(), 3u);
  EXPECT_EQ(r.count_by_length[0], 0u);
  for (uint32_t len : {2, 3}) {
    char line[80];
    snprintf(line, sizeof line, "  Number of Frequent Patterns[Length%5u]      %u\n", len,
             r.count_by_length[len - 1]);
    EXPECT_NE(run.out.find(line), std::string::npos) << line;
  }

  // A table of pairs and of counts reads as the same table file.
  ASSERT_EQ(cli(input, source_path("examples/groceries.supp"), {}).status, 0);
  const std::string want = read_file(path("in.txt.fp"));
  std::vector<std::pair<uint32_t, double>> pairs;
  std::istringstream table(read_file(source_path("examples/groceries.supp")));
  for (uint32_t len; table >> len;) table >> pairs.emplace_back(len, 0.0).second;
  options = quarlo::Options();
  options.support = quarlo::Support::table(pairs);
  EXPECT_EQ(fp_text(quarlo::mine(quarlo::Transactions::from_file(input), options)), want);

  // Integer labels number as their decimal text does.
  const std::vector<std::vector<uint32_t>> numbers = {{30, 7}, {7, 1000}, {30, 7, 1000}, {5}};
  write_file(path("n.txt"), "30 7\n7 1000\n30 7 1000\n5\n");
  options.support = quarlo::Support::count(2);
  EXPECT_EQ(fp_text(quarlo::mine(quarlo::Transactions::from_numbers(numbers), options)),
            fp_text(quarlo::mine(quarlo::Transactions::from_file(path("n.txt")), options)));
}

// Numbers (canonical decimals up to 4294967295) by value first, then labels in
// unsigned byte order; "-1" is no item; any white space separates.
TEST_F(Library, ItemsAreNumberedNumbersFirstThenLabelsByBytes) {
  const std::string big = "123456789012345678901234567890";
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"b 10 a 9 10\n", {"9", "10", "a", "b"}},
      {"abc \xc3\xa9t\xc3\xa9 a\xc3\xa9 ab B a 05 5 0 100 z\n",
       {"0", "5", "100", "05", "B", "a", "ab", "abc", "a\xc3\xa9", "z", "\xc3\xa9t\xc3\xa9"}},
      {"4294967296 4294967295 00 0 " + big + " 1\n", {"0", "1", "4294967295", "00", big, "4294967296"}},
      {"x -1\n-1\n-1 a\n\tmilk\r\n\r\n7\vx\f y \r\n  \n b", {"7", "a", "b", "milk", "x", "y"}},
      {std::string("a\0b c\n\0\nc", 9), {std::string(1, '\0'), std::string("a\0b", 3), "c"}},
  };
  quarlo::Options options;
  options.support = quarlo::Support::count(1);
  options.max_size = 1;
  for (const auto& [text, labels] : cases) {
    write_file(path("in.txt"), text);
    EXPECT_EQ(quarlo::mine(quarlo::Transactions::from_file(path("in.txt")), options).labels, labels)
        << text;
  }
}

TEST_F(Library, RunsOneAfterAnotherAndOnSeveralThreadsAlike) {
  const std::string input = source_path("examples/groceries.txt");
  std::vector<quarlo::Options> options(4);
  options[0].support = quarlo::Support::table_file(source_path("examples/groceries.supp"));
  options[1].support = quarlo::Support::percent(8);
  options[1].parents = true;
  options[2].support = quarlo::Support::count_table({{1, 5}, {3, 2}});
  options[2].maximal = true;
  options[3].support = quarlo::Support::percent(0);
  std::vector<std::string> want;
  for (const quarlo::Options& o : options) {
    want.push_back(fp_text(quarlo::mine(quarlo::Transactions::from_file(input), o)));
  }
  for (size_t i = 0; i < options.size(); ++i) {
    EXPECT_EQ(fp_text(quarlo::mine(quarlo::Transactions::from_file(input), options[i])), want[i]);
  }
  std::vector<std::string> got(2 * options.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < got.size(); ++i) {
    threads.emplace_back([&, i] {
      const quarlo::Options& o = options[i % options.size()];
      got[i] = fp_text(quarlo::mine(quarlo::Transactions::from_labels(labels_of(input)), o));
    });
  }
  for (std::thread& t : threads) t.join();
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], want[i % options.size()]) << i;
}

TEST_F(Library, CallbackSeesEveryItemsetInTheOrderFound) {
  const std::string input = source_path("examples/groceries.txt");
  quarlo::Options options;
  options.support = quarlo::Support::table_file(source_path("examples/groceries.supp"));
  const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_file(input), options);
  std::vector<std::string> seen;
  const quarlo::Stats stats = quarlo::mine(quarlo::Transactions::from_file(input), options,
                                           [&](const quarlo::PatternView& p) {
    std::string line = std::to_string(p.length - 1) + "-" + std::to_string(p.ordinal) + " " +
                       std::to_string(p.support);
    for (uint32_t i = 0; i < p.length; ++i) line += " " + *p.labels[i];
    seen.push_back(line);
  });
  std::vector<std::string> want;
  for (const quarlo::Itemset& s : r.itemsets) {
    std::string line = id_of(s) + " " + std::to_string(s.support);
    for (uint32_t item : s.items) line += " " + r.labels[item];
    want.push_back(line);
  }
  EXPECT_NE(seen, want);  // found order mixes the lengths ...
  std::stable_sort(seen.begin(), seen.end(), [](const std::string& a, const std::string& b) {
    return std::stoi(a) < std::stoi(b);
  });
  EXPECT_EQ(seen, want);  // ... and keeps each length's order
  EXPECT_EQ(stats.transactions, 25u);
  EXPECT_EQ(stats.items, r.labels.size());
  options.maximal = true;
  EXPECT_THROW(quarlo::mine(quarlo::Transactions::from_file(input), options, [](const auto&) {}),
               quarlo::Error);
}

// The lowest support among the frequent single items of `ntrans` transactions
// in which an item of each support in `supports` stands: the count `support`
// demands, when `supports` holds it.
uint32_t demanded(uint32_t ntrans, const std::vector<uint32_t>& supports, const quarlo::Support& support) {
  std::vector<std::vector<uint32_t>> data(ntrans, std::vector<uint32_t>{ntrans});
  for (uint32_t s : supports) {
    for (uint32_t t = 0; t < std::min(s, ntrans); ++t) data[t].push_back(s);
  }
  quarlo::Options options;
  options.support = support;
  options.max_size = 1;
  uint32_t lowest = ntrans + 1;
  for (const quarlo::Itemset& s : quarlo::mine(quarlo::Transactions::from_numbers(data), options).itemsets) {
    lowest = std::min(lowest, s.support);
  }
  return lowest;
}

TEST(LibrarySupport, FractionsCountExactlyOnTheDecimalAsWritten) {
  const struct {
    uint32_t ntrans;
    std::string decimal;
    uint32_t count;
  } cases[] = {
      {20000, "0.002", 40},  // the double 0.002 lies above 0.002: its exact product is above 40
      {20000, "2e-3", 40},
      {20000, ".0020", 40},
      {20000, "0.00200001", 41},
      {100, "0.07", 7},      // 100 * 0.07 in doubles is 7.000000000000001
      {1000, "0.008", 8},
      {7, "0.142857142857142857142857", 1},
      {7, "0.1428571428571428571428572", 2},
      {100, "1", 100},
      {100, "1.000E0", 100},
      {100, "5e-324", 1},
      {3, "0.5", 2},
  };
  for (const auto& c : cases) {
    const std::vector<uint32_t> around = {c.count - 1, c.count, c.count + 1};
    EXPECT_EQ(demanded(c.ntrans, around, quarlo::Support::fraction(c.decimal)), c.count) << c.decimal;
    EXPECT_EQ(demanded(c.ntrans, around, quarlo::Support::fraction_table({{1, c.decimal}})), c.count)
        << c.decimal;
  }
  // The percentage rule can ask one more of the same value.
  EXPECT_EQ(demanded(20000, {40, 41}, quarlo::Support::percent(0.2)), 41u);
  EXPECT_EQ(demanded(1000, {8, 9}, quarlo::Support::percent(0.8)), 9u);

  for (const std::string bad : {"0", "0.000", "1.5", "1.0000001", "10e-1x", "abc", "", ".", "-0.1",
                                "+0.1", "0.5e", "1e1", "nan", "inf", "0x1p-3", " 0.5", "1e+9999999"}) {
    EXPECT_THROW(quarlo::Support::fraction(bad), quarlo::Error) << bad;
    EXPECT_THROW(quarlo::Support::fraction_table({{1, "0.5"}, {2, bad}}), quarlo::Error) << bad;
  }
}

TEST_F(Library, FractionTableReadsAsTheSameTableOfCounts) {
  const std::string input = source_path("examples/groceries.txt");  // 25 transactions
  quarlo::Options by_fraction;
  by_fraction.support = quarlo::Support::fraction_table({{1, "0.2"}, {2, "0.1201"}, {4, "0.08"}});
  by_fraction.parents = true;
  quarlo::Options by_count = by_fraction;
  by_count.support = quarlo::Support::count_table({{1, 5}, {2, 4}, {4, 2}});
  const quarlo::Result want = quarlo::mine(quarlo::Transactions::from_file(input), by_count);
  const quarlo::Result got = quarlo::mine(quarlo::Transactions::from_file(input), by_fraction);
  EXPECT_EQ(fp_text(got), fp_text(want));
  EXPECT_EQ(pc_text(got), pc_text(want));
  by_fraction.support = quarlo::Support::fraction_table({{2, "0.2"}});
  EXPECT_THROW(quarlo::mine(quarlo::Transactions::from_file(input), by_fraction), quarlo::Error);
}

TEST_F(Library, BadInputsRaiseTheirKindOfError) {
  using Kind = quarlo::Error::Kind;
  write_file(path("ok.txt"), "a b\nb c\n");
  write_file(path("split.txt"), "a b\nb -1 c\n");
  write_file(path("split-end.txt"), "1\n2 3 -1 4");  // a last line without newline is whole
  write_file(path("zero.supp"), "1 5\n0 3\n");
  write_file(path("no1.supp"), "2 5\n");
  mkdir(path("dir").c_str(), 0755);
  auto kind_of = [](const quarlo::Transactions& t, const quarlo::Options& o) {
    try {
      quarlo::mine(t, o);
    } catch (const quarlo::Error& e) {
      EXPECT_NE(std::string(e.what()), "");
      return static_cast<int>(e.kind());
    }
    return -1;
  };
  const quarlo::Options plain;
  auto with_table = [](const std::string& file) {
    quarlo::Options o;
    o.support = quarlo::Support::table_file(file);
    return o;
  };
  const struct {
    int got;
    Kind want;
  } cases[] = {
      {kind_of(quarlo::Transactions::from_file(path("absent.txt")), plain), Kind::kIo},
      {kind_of(quarlo::Transactions::from_file(path("dir")), plain), Kind::kIo},
      {kind_of(quarlo::Transactions::from_file(path("ok.txt")), with_table(path("absent.supp"))), Kind::kIo},
      {kind_of(quarlo::Transactions::from_file(path("ok.txt")), with_table(path("zero.supp"))),
       Kind::kInvalidArgument},
      {kind_of(quarlo::Transactions::from_file(path("ok.txt")), with_table(path("no1.supp"))),
       Kind::kInvalidArgument},
      {kind_of(quarlo::Transactions::from_file(path("split.txt")), plain), Kind::kInvalidArgument},
      {kind_of(quarlo::Transactions::from_file(path("split-end.txt")), plain), Kind::kInvalidArgument},
      {kind_of(quarlo::Transactions::from_labels({{"a", "-1", "b"}}), plain), Kind::kInvalidArgument},
      {kind_of(quarlo::Transactions::from_labels({{"a b"}}), plain), Kind::kInvalidArgument},
      {kind_of(quarlo::Transactions::from_labels({{""}}), plain), Kind::kInvalidArgument},
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].got, static_cast<int>(cases[i].want)) << i;
  EXPECT_THROW(quarlo::Support::count(0), quarlo::Error);
  // "-1" at either end of a transaction is no item, as in a file.
  const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_labels({{"-1", "a", "b", "-1"}, {"-1"}}));
  EXPECT_EQ(r.stats.transactions, 1u);
  EXPECT_EQ(r.itemsets.size(), 3u);
}

// A plan's parts and record come back from other processes as bytes: bytes
// that are not theirs, cut short, swapped or missing are refused, never mined.
TEST_F(Library, PartsAndRecordsThatDoNotFitAreRefused) {
  const auto t = quarlo::Transactions::from_file(source_path("examples/groceries.txt"));
  const quarlo::Plan plan = quarlo::plan(t, quarlo::Options(), 2);
  ASSERT_EQ(plan.parts.size(), 2u);
  std::vector<std::string> mined = {quarlo::mine_part(plan.parts[0]), quarlo::mine_part(plan.parts[1])};
  ASSERT_FALSE(mined[0].empty());
  ASSERT_FALSE(mined[1].empty());
  EXPECT_EQ(fp_text(quarlo::merge(plan.record, mined, quarlo::Options())), fp_text(quarlo::mine(t)));
  auto refused = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const quarlo::Error& e) {
      return e.kind() == quarlo::Error::Kind::kInvalidArgument;
    }
    return false;
  };
  std::string item_out_of_range = plan.parts[0];
  item_out_of_range[item_out_of_range.size() - 8] = '\x7f';  // the last record's last item
  EXPECT_TRUE(refused([&] { quarlo::mine_part("not a part"); }));
  EXPECT_TRUE(refused([&] { quarlo::mine_part(plan.parts[0].substr(0, plan.parts[0].size() - 4)); }));
  EXPECT_TRUE(refused([&] { quarlo::mine_part(item_out_of_range); }));
  EXPECT_TRUE(refused([&] { quarlo::merge(plan.record, {mined[1], mined[0]}, quarlo::Options()); }));
  EXPECT_TRUE(refused([&] { quarlo::merge(plan.record, {mined[0]}, quarlo::Options()); }));
  EXPECT_TRUE(refused([&] { quarlo::merge(plan.record.substr(0, 30), mined, quarlo::Options()); }));
  EXPECT_TRUE(refused([&] { quarlo::merge(plan.record, {mined[0], mined[1].substr(4)}, quarlo::Options()); }));
  EXPECT_TRUE(refused([&] { quarlo::plan(t, quarlo::Options(), 0); }));
}

}  // namespace
