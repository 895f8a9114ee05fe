// The canonical order of a result, and the result of a run mined in shards:
// itemsets sorted by length and then by their items, parents found over the
// sorted list. Neither depends on how a run was split or on the order in
// which its parts came back.
#include <algorithm>
#include <cstdint>
#include <new>
#include <numeric>
#include <utility>
#include <vector>

#include "post/parents.h"
#include "quarlo/quarlo.h"

namespace quarlo {

using detail::find_parents;

namespace {

bool canonical_less(const Itemset& a, const Itemset& b) {
  if (a.items.size() != b.items.size()) return a.items.size() < b.items.size();
  return a.items < b.items;
}

// The positions of `itemsets` in canonical order.
std::vector<size_t> canonical_positions(const std::vector<Itemset>& itemsets) {
  std::vector<size_t> order(itemsets.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(),
            [&](size_t a, size_t b) { return canonical_less(itemsets[a], itemsets[b]); });
  return order;
}

// Ordinals as ranks within each length, for itemsets grouped by length.
void number_within_lengths(std::vector<Itemset>* itemsets) {
  size_t length = 0;
  uint32_t next = 0;
  for (Itemset& s : *itemsets) {
    if (s.items.size() != length) {
      length = s.items.size();
      next = 0;
    }
    s.ordinal = next++;
  }
}

[[noreturn]] void bad_itemset(const std::string& why) {
  throw Error(Error::Kind::kInvalidArgument, "cannot combine the itemsets: " + why);
}

}  // namespace

void sort_canonical(Result* r) {
  const std::vector<size_t> order = canonical_positions(r->itemsets);
  std::vector<size_t> row_of(order.size());
  for (size_t row = 0; row < order.size(); ++row) row_of[order[row]] = row;
  std::vector<Itemset> sorted;
  sorted.reserve(order.size());
  for (size_t old : order) sorted.push_back(std::move(r->itemsets[old]));
  r->itemsets = std::move(sorted);
  number_within_lengths(&r->itemsets);
  if (r->parents.empty()) return;
  std::vector<std::vector<size_t>> parents(order.size());
  for (size_t row = 0; row < order.size(); ++row) {
    std::vector<size_t>& list = parents[row];
    list = std::move(r->parents[order[row]]);
    for (size_t& p : list) p = row_of[p];
    std::sort(list.begin(), list.end());
  }
  r->parents = std::move(parents);
}

Result combine(std::vector<Itemset> itemsets, std::vector<std::string> labels,
               uint32_t transactions, const Options& options) {
  try {
    for (Itemset& s : itemsets) {
      if (s.items.empty()) bad_itemset("an itemset has no item");
      std::sort(s.items.begin(), s.items.end());
      if (std::adjacent_find(s.items.begin(), s.items.end()) != s.items.end()) {
        bad_itemset("an itemset repeats an item");
      }
      if (s.items.back() >= labels.size()) bad_itemset("an item has no label");
    }
    std::sort(itemsets.begin(), itemsets.end(), canonical_less);
    for (size_t i = 1; i < itemsets.size(); ++i) {
      if (itemsets[i - 1].items == itemsets[i].items) bad_itemset("an itemset comes twice");
    }

    Result r;
    r.stats.transactions = transactions;
    r.stats.items = static_cast<uint32_t>(labels.size());
    r.stats.frequent = static_cast<uint32_t>(itemsets.size());
    std::vector<std::vector<size_t>> parents;
    std::vector<char> is_parent;
    if (options.parents || options.maximal) {
      // The search takes each length's items laid end to end, in ordinal order.
      const size_t longest = itemsets.empty() ? 0 : itemsets.back().items.size();
      std::vector<std::vector<uint32_t>> by_length(longest + 1);
      std::vector<size_t> first(longest + 2, itemsets.size());
      for (size_t i = itemsets.size(); i-- > 0;) first[itemsets[i].items.size()] = i;
      for (const Itemset& s : itemsets) {
        std::vector<uint32_t>& flat = by_length[s.items.size()];
        flat.insert(flat.end(), s.items.begin(), s.items.end());
      }
      parents.assign(itemsets.size(), {});
      is_parent.assign(itemsets.size(), 0);
      find_parents(by_length, [&](uint32_t len, uint32_t ordinal,
                                  const std::vector<std::pair<uint32_t, uint32_t>>& found) {
        std::vector<size_t>& list = parents[first[len] + ordinal];
        for (const auto& [plen, pord] : found) {
          list.push_back(first[plen] + pord);
          is_parent[first[plen] + pord] = 1;
        }
      });
    }
    std::vector<size_t> row_of(itemsets.size(), SIZE_MAX);
    for (size_t i = 0; i < itemsets.size(); ++i) {
      if (options.maximal && is_parent[i]) continue;
      const size_t len = itemsets[i].items.size();
      if (r.count_by_length.size() < len) r.count_by_length.resize(len, 0);
      ++r.count_by_length[len - 1];
      row_of[i] = r.itemsets.size();
      r.itemsets.push_back(std::move(itemsets[i]));
    }
    if (options.parents) {
      for (size_t i = 0; i < parents.size(); ++i) {
        if (row_of[i] == SIZE_MAX) continue;
        std::vector<size_t> kept;
        for (size_t p : parents[i]) {
          if (row_of[p] != SIZE_MAX) kept.push_back(row_of[p]);
        }
        std::sort(kept.begin(), kept.end());
        r.parents.push_back(std::move(kept));
      }
    }
    number_within_lengths(&r.itemsets);  // among the rows kept, as sort_canonical() numbers
    r.labels = std::move(labels);
    return r;
  } catch (const std::bad_alloc&) {
    throw Error(Error::Kind::kOutOfMemory, "out of memory");
  }
}

}  // namespace quarlo
