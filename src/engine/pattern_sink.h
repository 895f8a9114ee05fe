// Frequent-pattern output of the engine: the pattern record, the sink
// interface through which the miner hands over every pattern in the order
// found, and the one word encoding of patterns that threads and parts keep
// them in until they are handed on. No state.
#ifndef QUARLO_ENGINE_PATTERN_SINK_H_
#define QUARLO_ENGINE_PATTERN_SINK_H_

#include <algorithm>
#include <cstddef>
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

// Appends the words of `p`: its length, its support, then its items.
void append_pattern(std::vector<uint32_t>* to, const Pattern& p);

// Hands the patterns encoded in w[0, n) to `sink` in order. False when one
// is empty, runs past the end or names an item from `nitems` on; the patterns
// before it have been handed on.
bool replay_patterns(const uint32_t* w, size_t n, uint32_t nitems, PatternSink* sink);

// Sorts a[0, n) by `less`: insertion sort for the short runs of patterns and
// records, std::sort beyond 16 elements.
template <class T, class Less>
void sort_short(T* a, size_t n, Less less) {
  if (n > 16) {
    std::sort(a, a + n, less);
    return;
  }
  for (size_t i = 1; i < n; ++i) {
    const T v = a[i];
    size_t j = i;
    for (; j > 0 && less(v, a[j - 1]); --j) a[j] = a[j - 1];
    a[j] = v;
  }
}

// Sorts a[0, n) ascending.
inline void sort_items(uint32_t* a, uint32_t n) {
  sort_short(a, n, [](uint32_t x, uint32_t y) { return x < y; });
}

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_PATTERN_SINK_H_
