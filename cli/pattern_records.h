// Pattern records read back from a text line of item numbers: a Sequence is a
// list of itemsets plus the leading text fields of its line; a SequenceSet
// groups records by length. No process-wide state.
#ifndef QUARLO_CLI_PATTERN_RECORDS_H_
#define QUARLO_CLI_PATTERN_RECORDS_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/tokens.h"

namespace quarlo::cli {

using namespace quarlo::detail;

// Pattern ids "L-N" open every pattern line and name patterns in the PC
// list: L is the pattern's length minus one, N its ordinal among the
// patterns of that length. Both are plain decimals: one or more digits, no
// leading zero, a value that fits in 32 bits.

// Reads the plain decimal at the front of `text` into *value; returns the
// bytes it takes, or 0 when `text` does not start with one.
size_t read_plain_decimal(std::string_view text, uint32_t* value);

// Reads the L of the id that opens `line` ("L-..."). False when the line does
// not open with one.
bool read_id_length(std::string_view line, uint32_t* l);

// Reads `text` as one whole id "L-N".
bool read_id(std::string_view text, uint32_t* l, uint32_t* n);

// Items in ascending order without duplicates (kept so by add_item).
using ItemList = std::vector<uint32_t>;

// Appends `item`, then restores ascending order without duplicates.
void add_item(ItemList* set, uint32_t item);

class Sequence {
 public:
  std::vector<ItemList> itemsets;    // in the order read
  std::vector<std::string> fields;  // leading non-item tokens, as text
};

// Parses one line: `h` leading text fields (empty when missing), then numbers
// read with read_number up to the first token that is not one; 4294967295
// ("-1") makes the next item open a new itemset and is not stored.
Sequence parse_sequence(std::string_view line, uint32_t h);

// Total number of items over all itemsets.
uint32_t length(const Sequence& s);

// New heap copy of s without the item at position t (over all items, from 0);
// fields are not copied. Caller deletes it. Null when memory is short.
Sequence* without_item(const Sequence& s, uint32_t t);

// True when b is contained in a, itemset by itemset.
bool contains(const Sequence& a, const Sequence& b);

// Same itemsets, in the same order.
bool equals(const Sequence& a, const Sequence& b);

class SequenceSet {
 public:
  // Appends a copy to the group of its length; raises max_length.
  void insert(const Sequence& s);
  // The n-th record of length len, or null.
  const Sequence* at(uint32_t len, uint32_t n) const;
  // Linear scan of the group of s's length for a record equal to s.
  bool find_index(const Sequence& s, uint32_t* index) const;
  uint32_t max_length() const { return max_length_; }
  // Reads every line of the file descriptor `fd` (a last line without
  // newline included) with h fields.
  void load(int fd, uint32_t h);

 private:
  std::map<uint32_t, std::vector<Sequence>> groups_;
  uint32_t max_length_ = 0;
};

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_PATTERN_RECORDS_H_
