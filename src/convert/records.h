// The line rules that turn a converted line into a transaction record: its
// items in line order, the check for a second itemset, the ascending order
// without repeats, and the pieces an over-long last line is read in. No state.
#ifndef QUARLO_CONVERT_RECORDS_H_
#define QUARLO_CONVERT_RECORDS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "base/report.h"

namespace quarlo::detail {

// Reads the items of one converted line into *items, in line order: up to the
// first token that is not a number, or up to a NUL byte. Returns false when a
// "-1" stands between two items, that is, when the line holds two itemsets.
bool collect_items(std::string_view line, std::vector<uint32_t>* items);

// Sorts *items ascending and drops repeats.
void normalize_record(std::vector<uint32_t>* items);

// Reports a line that holds two itemsets.
void report_two_itemsets(Reporter* rep);

// Cuts converted lines into the pieces that make records: a line with its
// newline is one piece; a last line without one that is longer than the
// longest newline-terminated line plus one byte goes in pieces of that many
// bytes, as a line buffer sized to the longest line reads it.
class LinePieces {
 public:
  // Calls piece(part) for each piece of `line` until it returns false;
  // returns false then.
  template <class F>
  bool each(std::string_view line, bool terminated, F piece) {
    if (terminated) longest_ = std::max(longest_, line.size());
    const size_t size = terminated ? line.size() + 1 : longest_ + 1;
    do {
      std::string_view part = line.substr(0, size);
      line.remove_prefix(part.size());
      if (!piece(part)) return false;
    } while (!line.empty());
    return true;
  }

 private:
  size_t longest_ = 0;
};

}  // namespace quarlo::detail

#endif  // QUARLO_CONVERT_RECORDS_H_
