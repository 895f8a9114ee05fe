// Frequent-pattern output of the engine: the pattern record and the sink
// interface through which the miner hands over every pattern, in the order
// found. No state.
#ifndef QUARLO_ENGINE_PATTERN_SINK_H_
#define QUARLO_ENGINE_PATTERN_SINK_H_

#include <cstdint>
#include <vector>


namespace quarlo::detail {

// A pattern as the miner hands it over: `length` items in the order they were
// added (any order; a writer sorts a copy).
struct Pattern {
  uint32_t length;
  int32_t support;
  uint32_t* items;
};

// Receives the patterns of a run in the order they are found.
class PatternSink {
 public:
  virtual ~PatternSink() = default;
  virtual void put(const Pattern& p) = 0;
};

// Sorts a[0..n) ascending (insertion sort for short patterns).
void sort_items(uint32_t* a, uint32_t n);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_PATTERN_SINK_H_
