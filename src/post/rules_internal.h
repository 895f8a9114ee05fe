// What rules and closed itemsets take from a library run: the mined result
// together with the transactions it was mined from, and the test that marks
// the itemsets that are not closed.
#ifndef QUARLO_POST_RULES_INTERNAL_H_
#define QUARLO_POST_RULES_INTERNAL_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "quarlo/quarlo.h"

namespace quarlo::detail {

// Mines as quarlo::mine() does and also returns the transactions as loaded:
// each non-empty transaction's item numbers, ascending and without repeats,
// end to end in *items, with the end of each in *ends. Throws Error.
Result mine_keeping_transactions(const Transactions& transactions, const Options& options,
                                 std::vector<uint32_t>* items, std::vector<uint64_t>* ends);

// Sets (*unclosed)[offset[k] + n] for the n-th itemset of length k when some
// itemset of length k + 1 holds it and has the same support. items[k] holds
// the itemsets of length k end to end, ascending within each, supports[k]
// their supports; offset has items.size() + 1 entries. Under a support that
// does not rise with the length, a superset of equal support is frequent
// whenever the itemset is, and any superset of equal support implies one
// longer by one item, so the marked ones are exactly those not closed.
void mark_unclosed(const std::vector<std::vector<uint32_t>>& items,
                   const std::vector<std::vector<uint32_t>>& supports,
                   const std::vector<size_t>& offset, std::vector<char>* unclosed);

}  // namespace quarlo::detail

#endif  // QUARLO_POST_RULES_INTERNAL_H_
