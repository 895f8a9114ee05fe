// Closed itemsets: an itemset is dropped when an itemset one item longer
// holds it with the same support. Each length's itemsets are indexed once;
// every itemset then looks up its subsets one item shorter.
#include <algorithm>

#include "post/itemset_index.h"
#include "post/rules_internal.h"

namespace quarlo::detail {

void mark_unclosed(const std::vector<std::vector<uint32_t>>& items,
                   const std::vector<std::vector<uint32_t>>& supports,
                   const std::vector<size_t>& offset, std::vector<char>* unclosed) {
  std::vector<uint32_t> subset;
  ItemsetIndex shorter;
  for (size_t len = 2; len < items.size(); ++len) {
    const size_t count = supports[len].size();
    const size_t shorter_count = supports[len - 1].size();
    if (count == 0 || shorter_count == 0) continue;
    std::vector<const uint32_t*> keys(shorter_count);
    for (size_t n = 0; n < shorter_count; ++n) keys[n] = items[len - 1].data() + n * (len - 1);
    shorter.build(std::move(keys), static_cast<uint32_t>(len - 1));
    subset.resize(len - 1);
    for (size_t n = 0; n < count; ++n) {
      const uint32_t* set = items[len].data() + n * len;
      for (size_t drop = 0; drop < len; ++drop) {
        std::copy(set, set + drop, subset.begin());
        std::copy(set + drop + 1, set + len, subset.begin() + static_cast<std::ptrdiff_t>(drop));
        const uint32_t at = shorter.find(subset.data());
        if (at != ItemsetIndex::kAbsent && supports[len - 1][at] == supports[len][n]) {
          (*unclosed)[offset[len - 1] + at] = 1;
        }
      }
    }
  }
}

}  // namespace quarlo::detail
