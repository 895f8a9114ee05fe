// Mining in parts: the top level of a run is walked once and each top item's
// conditional database is kept, with the run's support table and limits, in
// self-contained parts that any process mines; the run's own record (its
// one-item patterns and where each item's patterns go) puts the parts'
// results back in the order of a whole run. A Planner holds one run's record.
#ifndef QUARLO_ENGINE_PARTS_H_
#define QUARLO_ENGINE_PARTS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace quarlo::detail {

// Splits the top level of a run (set as Engine::split and as its sink).
class Planner : public TopLevelSplit, public PatternSink {
 public:
  // Deals the items into `groups` parts as they come, each to the part with
  // the least work so far (the words of the conditional databases).
  explicit Planner(uint32_t groups) : parts_(groups), work_(groups, 0) {}
  // The walked tree is only read: its nodes go with the run's arena.
  void take_tree(const FPTree& tree) override { tree_ = tree; }
  Status begin_item(Engine& e, uint32_t) override;
  // Patterns the walk finds itself (one-item patterns; every pattern of a
  // tree that is one path) go to the record.
  void put(const Pattern& p) override;
  Status conditional(Engine& e, uint32_t item, int32_t support, NodeId chain) override;

  // Hands over the parts (each with the run's support table and limits),
  // their work and the run's record. Throws std::bad_alloc.
  void finish(std::vector<std::string>* parts, std::vector<uint64_t>* work,
              std::vector<uint32_t>* record);

 private:
  // Writes the run's support table and limits at the head of every part.
  void start_parts(const std::vector<uint32_t>& run);

  FPTree tree_ = {};
  bool started_ = false;
  std::vector<std::string> parts_;
  std::vector<uint64_t> work_;
  std::vector<uint32_t> owner_;  // by item index: its part
  // Entries "0 length support items" (a pattern) and "1 k" (the patterns
  // of item k), then 2 and the part of every item.
  std::vector<uint32_t> record_;
};

// Mines one part into the words of its result (per item: its index in the
// record, the number of words that follow, then per pattern its length,
// support and items). An invalid argument when the part is not one, out of
// memory when mining ran short; the status's message says what happened.
Status mine_part_words(const std::string& part, std::vector<uint32_t>* out);

// Replays a run: the record's patterns and, at each item's place, that item's
// patterns from the mined parts (in the order of the parts written), into
// `sink` in the order of a whole run. False, with *error set, when the parts
// do not fit the record or name an item from `nitems` on.
bool replay_parts(const std::vector<uint32_t>& record,
                  const std::vector<std::vector<uint32_t>>& mined, uint32_t nitems,
                  PatternSink* sink, std::string* error);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_PARTS_H_
