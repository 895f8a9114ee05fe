// quarlo: frequent itemsets under a length-decreasing minimum support, as a
// library. One call mines one database with its own state, so calls can run
// one after another or at the same time on several threads. Mining in memory
// writes no file; errors are thrown as quarlo::Error, nothing is printed.
//
//   #include <quarlo/quarlo.h>
//
//   quarlo::Options options;
//   options.support = quarlo::Support::table({{1, 20.0}, {3, 8.0}});
//   quarlo::Result r = quarlo::mine(quarlo::Transactions::from_file("baskets.txt"), options);
//   for (const quarlo::Itemset& s : r.itemsets) {
//     for (uint32_t item : s.items) std::cout << r.labels[item] << ' ';
//     std::cout << s.support << '\n';
//   }
//
// Items and labels. Every distinct label gets a dense item number, numbers
// first by value (a label of digits without a leading zero up to 4294967295),
// then text labels in byte order; "-1" is reserved. This is the numbering and
// the item order of the quarlo program, so results match its files exactly.
#ifndef QUARLO_QUARLO_H_
#define QUARLO_QUARLO_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quarlo {

// The one error type of the library. An I/O error also names the errno of
// the call that failed and the file (error_number() 0 and path() empty when
// there is none), so callers need not read the message to tell the cause.
class Error : public std::runtime_error {
 public:
  enum class Kind {
    kInvalidArgument,  // an option or an input that cannot be mined as given
    kIo,               // a file that cannot be read
    kOutOfMemory,      // memory ran short
  };
  Error(Kind kind, const std::string& message, int error_number = 0, std::string path = {})
      : std::runtime_error(message),
        kind_(kind),
        error_number_(error_number),
        path_(std::move(path)) {}
  Kind kind() const { return kind_; }
  int error_number() const { return error_number_; }
  const std::string& path() const { return path_; }

 private:
  Kind kind_;
  int error_number_;
  std::string path_;
};

// The minimum support an itemset must reach, per length. Percentages become
// counts as the ceiling of ntrans * percent / 100 in 80-bit extended
// precision, and 0 % still demands one transaction (the program's -s rule).
class Support {
 public:
  // One percentage of the transactions for every length (the default, 0 %).
  static Support percent(double percent);
  // One absolute count for every length; at least 1.
  static Support count(uint32_t count);
  // (length, percent) pairs read as a support-table file is read: length 1
  // must be given, a length applies until the next one, later lengths keep
  // the last value, and pairs beyond the number of distinct items are ignored.
  static Support table(std::vector<std::pair<uint32_t, double>> percent_by_length);
  // The same with absolute counts (each at least 1).
  static Support count_table(std::vector<std::pair<uint32_t, uint32_t>> count_by_length);
  // A support-table file: lines "LEN F(LEN)" (percentages).
  static Support table_file(std::string path);
  // One fraction of the transactions for every length, written as a decimal
  // ("0.002", ".5", "1", "2.5e-3") in (0, 1]. Its count is the ceiling of
  // ntrans * fraction computed exactly on the decimal as written, at least 1:
  // 0.002 of 20000 transactions is 40, where percent(0.2) demands 41 because
  // the double nearest 0.2 lies above it. Other text throws kInvalidArgument.
  static Support fraction(std::string decimal);
  // (length, decimal fraction) pairs, each made a count as fraction() does
  // and read as table() reads its pairs.
  static Support fraction_table(std::vector<std::pair<uint32_t, std::string>> fraction_by_length);

  Support();
  ~Support();
  Support(const Support&);
  Support& operator=(const Support&);

  struct Spec;
  const Spec& spec() const { return *spec_; }

 private:
  explicit Support(std::shared_ptr<const Spec> spec);
  std::shared_ptr<const Spec> spec_;
};

struct Options {
  Support support;                  // default: every itemset that occurs
  uint32_t min_size = 1;            // shortest itemset reported
  uint32_t max_size = 0xffffffffu;  // longest itemset reported
  bool maximal = false;             // keep only itemsets that are no other's parent
  // Keep only closed itemsets: those no frequent itemset one item longer
  // holds with the same support. Under a support that never rises with the
  // length, that is no proper superset of the same support at all.
  bool closed = false;
  bool parents = false;  // fill Result::parents
  uint32_t threads = 1;  // threads that mine (0 counts as 1); the result is the same for any
};

// Transactions to mine: a file in the program's format (one transaction a
// line, items separated by white space) or transactions in memory.
class Transactions {
 public:
  static Transactions from_file(std::string path);
  // Each inner vector is one transaction of labels. A label must be
  // non-empty and hold no white space; repeats within a transaction count
  // once; "-1" may stand first or last and is then ignored.
  static Transactions from_labels(std::vector<std::vector<std::string>> transactions);
  // Integer labels: item 5 is the label "5".
  static Transactions from_numbers(std::vector<std::vector<uint32_t>> transactions);
  // Coded labels: transaction i is codes[ends[i-1] .. ends[i]) (from 0 for
  // i = 0), each code the index of its label in `labels`; labels follow the
  // rules of from_labels, and labels no code names are not items.
  static Transactions from_codes(std::vector<std::string> labels, std::vector<uint32_t> codes,
                                 std::vector<uint64_t> ends);

  Transactions();
  ~Transactions();
  Transactions(Transactions&&) noexcept;
  Transactions& operator=(Transactions&&) noexcept;

  struct Data;
  const Data& data() const { return *data_; }

 private:
  std::unique_ptr<Data> data_;
};

// One frequent itemset.
struct Itemset {
  std::vector<uint32_t> items;  // item numbers, ascending (so labels as the program orders them)
  uint32_t support = 0;         // number of transactions that hold every item
  uint32_t ordinal = 0;  // N of the program's id L-N: rank among those of its length, as found
};

struct Stats {
  uint32_t transactions = 0;  // transactions with at least one item
  uint32_t items = 0;         // distinct items
  uint32_t max_items = 0;     // most items in one transaction
  double avg_items = 0.0;     // mean items per transaction
  uint32_t frequent = 0;      // itemsets found (before maximal pruning)
  double seconds_load = 0.0;  // reading and numbering the input
  double seconds_mine = 0.0;  // mining
  double seconds_post = 0.0;  // parents and maximal pruning
};

struct Result {
  // In the order of the program's FILE.fp: by length, then as found.
  std::vector<Itemset> itemsets;
  // Label of every item number.
  std::vector<std::string> labels;
  // With Options::parents: for each itemset, the indexes (into `itemsets`)
  // of its parents, the frequent itemsets reached by dropping items through
  // itemsets that are not frequent, in the order of the program's FILE.pc.
  // With Options::maximal as well, parents that were pruned are left out.
  std::vector<std::vector<size_t>> parents;
  // Itemsets reported per length: entry k - 1 for length k.
  std::vector<uint32_t> count_by_length;
  Stats stats;
};

// A pattern as a callback sees it; the pointers are valid during the call.
struct PatternView {
  uint32_t length;
  uint32_t support;
  uint32_t ordinal;                  // N of the id L-N
  const uint32_t* items;             // item numbers, ascending
  const std::string* const* labels;  // their labels, in the same order
};

// Mines `transactions` and returns every frequent itemset. Throws Error.
Result mine(const Transactions& transactions, const Options& options = Options());

// Mines `transactions` and calls `visit` for every frequent itemset in the
// order found (by length only in Result). Options::maximal and
// Options::parents need every itemset first and are refused here. Returns the
// statistics. Throws Error, and whatever `visit` throws.
Stats mine(const Transactions& transactions, const Options& options,
           const std::function<void(const PatternView&)>& visit);

// One part of a mining run split by items (sharded mining). `item_supports`
// gives the support of every item over all the data and `transactions` the
// global transaction count; the part mines the transactions it is given and
// returns exactly the itemsets whose least frequent item (by the global
// supports, ties by item number) is in `items`, with their global supports,
// provided it holds every transaction that contains such an item, cut after
// its last such item. Itemsets are in Result order; ordinals are the part's own.
struct Shard {
  uint32_t transactions = 0;
  std::vector<std::pair<std::string, uint32_t>> item_supports;
  std::vector<std::string> items;
};

// Mines one part; Options::maximal and Options::parents are refused.
Result mine_shard(const Transactions& transactions, const Shard& shard,
                  const Options& options = Options());

// The canonical order of itemsets: by length, then by their items compared
// one after the other in item-number order (the program's order of labels:
// numbers by value, then text labels byte-wise). Unlike the order found, it
// does not depend on how a run was split, so a run mined in shards and one
// whole run give the same list.
//
// Puts `r` in the canonical order: itemsets sorted, each ordinal made its
// rank among the rows of its length (so with maximal pruning the ordinals
// are no longer the program's ids), parents remapped and each list given
// in ascending row order.
void sort_canonical(Result* r);

// The Result of a run whose itemsets were mined apart (the union of its
// shards' results, in any order): `itemsets` are every itemset of the run
// with their supports, their items numbers into `labels`, which must be in
// the order item numbers give labels (a subset of a run's labels keeps its
// order). Returns them in the canonical order, with Options::parents and
// Options::maximal applied as mine() applies them; the statistics give the
// transactions, the labels as items and the itemsets before pruning.
// Throws Error (kInvalidArgument for an item without a label, an empty
// itemset or one that repeats an item or another itemset).
Result combine(std::vector<Itemset> itemsets, std::vector<std::string> labels,
               uint32_t transactions, const Options& options);

// Mining in parts, for clusters. plan() loads the transactions, counts them,
// builds the top level of the search and collects every top item's
// conditional database, dealt into `groups` parts of about equal work;
// mine_part() mines one part in any process (it holds all it needs); merge()
// puts the parts' results together into exactly the Result that mine() gives
// for the same transactions and options, order and ordinals included. Parts
// and records are byte strings in the host's byte order.
struct Plan {
  std::string record;              // what merge() needs besides the parts' results
  std::vector<std::string> parts;  // one per group; a part may hold no items
  std::vector<uint64_t> work;      // estimated work of each part (words to mine)
};

// Supports counted over all the data, for a plan() whose transactions were
// cut down to the items that can be frequent: `transactions` is the number of
// non-empty transactions of all the data and `item_supports` every label of
// all the data with its support.
struct Totals {
  uint32_t transactions = 0;
  std::vector<std::pair<std::string, uint32_t>> item_supports;
};

// Transactions as the library reads them (a file's lines, repeats within a
// transaction dropped, "-1" at either end ignored, empty ones left out) in
// the coded form of Transactions::from_codes, with each label's support: the
// counting pass of a distributed run, one partition at a time.
struct Scan {
  std::vector<std::string> labels;
  std::vector<uint32_t> supports;  // by label
  std::vector<uint32_t> codes;
  std::vector<uint64_t> ends;  // one per transaction
};
Scan scan(const Transactions& transactions);

// The lowest count any length demands in a run over transactions with these
// totals (no item below it can be in any itemset found), so that partitions
// can drop such items before a plan. Throws Error.
uint32_t lowest_count(const Options& options, const Totals& totals);

// Options::maximal, Options::parents and Options::threads are merge()'s and
// mine_part()'s business; plan() reads the support and the size limits.
// With `totals`, `transactions` must be in memory. Throws Error.
Plan plan(const Transactions& transactions, const Options& options, uint32_t groups,
          const Totals* totals = nullptr);

// Mines one part of a plan; the result is merge()'s input. Throws Error
// (kInvalidArgument when `part` is not a part of a plan).
std::string mine_part(const std::string& part);

// The Result of the planned run from its record and the results of all its
// parts in the order of Plan::parts, with `options`' maximal and parents.
// Throws Error (kInvalidArgument when the results do not fit the record).
Result merge(const std::string& record, const std::vector<std::string>& mined,
             const Options& options);

// The library's version, "major.minor.patch".
const char* version();

}  // namespace quarlo

#endif  // QUARLO_QUARLO_H_
