// Entry of the mining engine and the run context: an Engine holds every table
// of one mining run (support table, transaction pool, item table, pruning
// tables, tree scratch, counters) and the sink the patterns go to. Two
// engines share nothing, so runs can follow each other or go side by side.
#ifndef QUARLO_ENGINE_ENGINE_H_
#define QUARLO_ENGINE_ENGINE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/report.h"
#include "engine/fp_tree.h"
#include "engine/frequent_items.h"
#include "engine/pattern_sink.h"
#include "engine/prune_tables.h"
#include "engine/transaction_store.h"
#include "support/support_table.h"

namespace quarlo::detail {

// Told how far the walk over the top-level items has come.
class ProgressHook {
 public:
  virtual ~ProgressHook() = default;
  virtual void top_items(uint32_t done, uint32_t total) = 0;
};

// How a run is set up: given to its Engine once, before mining (the loaders
// may fill the run's pool first), and read-only while it runs.
struct EngineSetup {
  uint32_t nitems = 0;              // one more than the largest item number
  uint32_t min_size = 1;            // shortest pattern handed to the sink
  uint32_t max_size = 0xffffffffu;  // longest pattern handed to the sink
  uint32_t threads = 1;             // threads mining below the top level
  // In a restricted run, the items (by number) whose patterns the run
  // produces: those whose least frequent item is marked. Null: every item.
  const std::vector<char>* wanted = nullptr;
  // When set, takes the top items' conditional databases instead of the
  // recursion (a plan of parts).
  TopLevelSplit* split = nullptr;
  ProgressHook* progress = nullptr;  // null: nobody watches
};

struct EngineTables;

// One mining run: its setup, its reporter and the tables of the engine's
// modules (engine/engine_tables.h, which only the engine's own sources
// include; they reach the tables through tables()). Outside the engine a
// run is set up with configure(), loaded through pool(), and read through
// stats(), counters() and lowest_count().
class Engine {
 public:
  explicit Engine(Reporter* r);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void configure(const EngineSetup& setup) { setup_ = setup; }
  const EngineSetup& setup() const { return setup_; }
  // Who takes the top level: the threaded run's own split while it mines on
  // threads, otherwise the setup's.
  TopLevelSplit* split() const { return threads_split_ != nullptr ? threads_split_ : setup_.split; }
  void set_threads_split(TopLevelSplit* split) { threads_split_ = split; }

  // The blocks and buffers the loaders fill the database into.
  TranPool& pool();
  // The record lengths of the database as counted.
  const InputStats& stats() const;
  // How often the recursion took each shortcut.
  const MiningCounters& counters() const;
  // The lowest count any length needs, once the support table is built.
  uint32_t lowest_count() const;

  Reporter* const rep;

 private:
  friend EngineTables& tables(Engine& e);
  friend const EngineTables& tables(const Engine& e);

  EngineSetup setup_;
  TopLevelSplit* threads_split_ = nullptr;
  std::unique_ptr<EngineTables> tables_;
};

// The tables of `e`, for the engine's modules.
inline EngineTables& tables(Engine& e) { return *e.tables_; }
inline const EngineTables& tables(const Engine& e) { return *e.tables_; }

// The minimum support of a run as it was given.
struct SupportSpec {
  enum Kind { kPercent, kCount, kTableFile, kPercentPairs, kCountPairs };
  Kind kind = kPercent;
  double percent = 0.0;                                // kPercent
  uint32_t count = 1;                                  // kCount
  std::string table_file;                              // kTableFile
  std::vector<std::pair<long, double>> percent_pairs;  // kPercentPairs
  LengthCounts count_pairs;                            // kCountPairs
};

// Supports counted outside the database: the number of transactions and each
// item's support, both over the whole data a restricted run is part of.
struct Precounted {
  uint32_t ntrans = 0;
  const uint32_t* supports = nullptr;  // e.setup().nitems entries
};

// What the engine asks of its caller while it runs.
class EngineClient {
 public:
  virtual ~EngineClient() = default;
  // The input is counted and the support table built; nothing is mined yet.
  virtual void counted(const Engine& e, uint32_t ntrans) = 0;
  // The sink for the patterns, opened once there is something to mine; null
  // after a report when it cannot be opened.
  virtual PatternSink* open_sink(Engine* e, uint32_t ntrans) = 0;
  // What the sink writes to, for reports.
  virtual const char* sink_name() const = 0;
  // Ends the sink after mining; `complete` is false when mining failed and
  // what was handed over is to be dropped (nothing is reported then). A sink
  // that cannot be ended whole fails after a report.
  virtual Status close_sink(Engine* e, bool complete) = 0;
};

// Builds e's support table for `ntrans` transactions of e->setup().nitems items and
// e->setup().min_size. A support table that cannot be made is an invalid argument,
// after a report.
Status build_support_table(Engine* e, const SupportSpec& spec, uint32_t ntrans);

// Mines the records of `db` (made by init_buf on e.pool; released here) under
// `spec`. With `pre` the counts come from it instead of from `db`. A failure
// after a "Fatal error in ...()" (or open/close) report: out of memory, I/O
// on the sink's file, or a support table that cannot be made.
Status mine_database(Engine* e, TranBuf* db, const SupportSpec& spec, const Precounted* pre,
                     EngineClient* client);

// Makes e, set up with the support table, item count and size limits of a
// run, ready to mine conditional databases of that run: its pool, pruning
// tables and pattern scratch. Out of memory after a trace.
Status prepare_scratch(Engine* e);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_ENGINE_H_
