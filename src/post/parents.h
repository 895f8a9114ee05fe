// Parents of the frequent patterns: for each pattern, the frequent subsets
// reached by dropping items through non-frequent subsets only, found by a
// hashed downward search. No process-wide state: a PatternSet owns its tables.
#ifndef QUARLO_POST_PARENTS_H_
#define QUARLO_POST_PARENTS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace quarlo::detail {

// Receives the parent-children list a line at a time: id() opens the line of
// a pattern (its length minus one and its ordinal), parents() adds parents of
// one length (length minus one, their ordinals in line order), end() closes
// the line.
class ParentSink {
 public:
  virtual ~ParentSink() = default;
  virtual void id(uint32_t len_minus_one, uint32_t ordinal) = 0;
  virtual void parents(uint32_t len_minus_one, const uint32_t* ordinals, size_t count) = 0;
  virtual void end() = 0;
};

// The frequent patterns of a run, grouped by length in ordinal order, with a
// hash index per length, and the search for every pattern's parents: lines
// run from the longest patterns down to length 1, each length in ordinal
// order; parents stand in the order the downward search meets them, each
// once. Every non-frequent subset is expanded once (its expansion is kept
// within a memory budget).
class PatternSet {
 public:
  PatternSet();
  ~PatternSet();
  // Appends a pattern of `len` ascending items; its ordinal is the number of
  // patterns of that length appended before. Throws std::bad_alloc.
  void append(const uint32_t* items, uint32_t len);
  // Indexes the patterns; call once, after the last append.
  void index();
  // Hands every pattern's line to `out`. Throws std::bad_alloc.
  void search(ParentSink* out);

 private:
  struct Table;
  std::unique_ptr<Table> table_;
};

// Called once per pattern, longest first and each length in ordinal order,
// with its length, its ordinal and its parents as (length, ordinal) pairs in
// the order the list file gives them.
using ParentVisitor = std::function<void(
    uint32_t len, uint32_t ordinal, const std::vector<std::pair<uint32_t, uint32_t>>& parents)>;

// The same search over patterns in memory: by_length[k] holds the patterns of
// length k, k ascending items each, in ordinal order. Throws std::bad_alloc
// when memory runs short.
void find_parents(const std::vector<std::vector<uint32_t>>& by_length, const ParentVisitor& visit);

}  // namespace quarlo::detail

#endif  // QUARLO_POST_PARENTS_H_
