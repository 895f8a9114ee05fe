// Finds itemsets of one length by their items: an open-addressing hash table
// over pointers to ascending item arrays that live elsewhere (a run's flat
// pattern arrays, a Result's itemsets). Built once, then only read, so
// several readers may look up at the same time. The arrays must outlive it.
#ifndef QUARLO_POST_ITEMSET_INDEX_H_
#define QUARLO_POST_ITEMSET_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace quarlo::detail {

class ItemsetIndex {
 public:
  static constexpr uint32_t kAbsent = 0xffffffffu;

  // Indexes keys[0 .. n) of `length` items each; a key's value is its position.
  void build(std::vector<const uint32_t*> keys, uint32_t length) {
    keys_ = std::move(keys);
    length_ = length;
    size_t capacity = 16;
    while (capacity < 2 * keys_.size()) capacity *= 2;
    mask_ = capacity - 1;
    slots_.assign(capacity, kAbsent);
    for (uint32_t i = 0; i < keys_.size(); ++i) {
      size_t at = hash(keys_[i]) & mask_;
      while (slots_[at] != kAbsent) at = (at + 1) & mask_;
      slots_[at] = i;
    }
  }

  // The position of the key holding `items` (length() of them, ascending),
  // or kAbsent.
  uint32_t find(const uint32_t* items) const {
    if (keys_.empty()) return kAbsent;
    for (size_t at = hash(items) & mask_;; at = (at + 1) & mask_) {
      const uint32_t i = slots_[at];
      if (i == kAbsent || memcmp(keys_[i], items, length_ * sizeof(uint32_t)) == 0) return i;
    }
  }

  uint32_t length() const { return length_; }
  size_t size() const { return keys_.size(); }

  static uint64_t hash_items(const uint32_t* items, uint32_t length) {
    uint64_t h = length;
    for (uint32_t k = 0; k < length; ++k) h = (h ^ items[k]) * 0x9e3779b97f4a7c15ull;
    return h ^ (h >> 29);
  }

 private:
  uint64_t hash(const uint32_t* items) const { return hash_items(items, length_); }

  std::vector<const uint32_t*> keys_;
  std::vector<uint32_t> slots_;
  size_t mask_ = 0;
  uint32_t length_ = 0;
};

}  // namespace quarlo::detail

#endif  // QUARLO_POST_ITEMSET_INDEX_H_
