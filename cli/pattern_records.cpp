#include "cli/pattern_records.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "base/io.h"

namespace quarlo::cli {

namespace {

// True when every item of `sub` is in `super`; both ascending.
bool is_subset(const ItemList& super, const ItemList& sub) {
  if (sub.size() > super.size()) return false;
  size_t k = 0;
  for (size_t i = 0; i < sub.size(); ++i) {
    if (sub.size() - i > super.size() - k) return false;
    while (k < super.size() && super[k] < sub[i]) ++k;
    if (k == super.size() || super[k] != sub[i]) return false;
    ++k;
  }
  return true;
}

}  // namespace

size_t read_plain_decimal(std::string_view text, uint32_t* value) {
  uint64_t x = 0;
  size_t n = 0;
  while (n < text.size() && n <= 10 && static_cast<unsigned char>(text[n] - '0') <= 9) {
    x = x * 10 + static_cast<uint64_t>(text[n++] - '0');
  }
  if (n == 0 || n > 10 || (n > 1 && text[0] == '0') || x > 0xffffffffull) return 0;
  *value = static_cast<uint32_t>(x);
  return n;
}

bool read_id_length(std::string_view line, uint32_t* l) {
  const size_t n = read_plain_decimal(line, l);
  return n > 0 && n < line.size() && line[n] == '-';
}

bool read_id(std::string_view text, uint32_t* l, uint32_t* n) {
  if (!read_id_length(text, l)) return false;
  const size_t at = text.find('-') + 1;
  return at < text.size() && read_plain_decimal(text.substr(at), n) == text.size() - at;
}

void add_item(ItemList* set, uint32_t item) {
  set->push_back(item);
  std::sort(set->begin(), set->end());
  set->erase(std::unique(set->begin(), set->end()), set->end());
}

Sequence parse_sequence(std::string_view line, uint32_t h) {
  Sequence s;
  for (uint32_t i = 0; i < h; ++i) s.fields.emplace_back(next_token(&line));
  bool open_new = true;
  uint32_t value = 0;
  while (read_number(next_token(&line), &value)) {
    if (value == kItemsetBreak) {
      open_new = true;
    } else if (open_new) {
      s.itemsets.push_back(ItemList{value});
      open_new = false;
    } else {
      add_item(&s.itemsets.back(), value);
    }
  }
  return s;
}

uint32_t length(const Sequence& s) {
  size_t n = 0;
  for (const ItemList& set : s.itemsets) n += set.size();
  return static_cast<uint32_t>(n);
}

Sequence* without_item(const Sequence& s, uint32_t t) {
  Sequence* out = new (std::nothrow) Sequence;
  if (out == nullptr) return nullptr;
  uint32_t pos = 0;
  for (const ItemList& set : s.itemsets) {
    bool first = true;
    for (uint32_t item : set) {
      if (pos++ == t) continue;
      if (first) {
        out->itemsets.push_back(ItemList{item});
        first = false;
      } else {
        add_item(&out->itemsets.back(), item);
      }
    }
  }
  return out;
}

bool contains(const Sequence& a, const Sequence& b) {
  const size_t na = a.itemsets.size();
  const size_t nb = b.itemsets.size();
  if (nb > na) return false;
  for (size_t i = 0; i < nb; ++i) {
    size_t m = 0;
    while (m < na && !is_subset(a.itemsets[m], b.itemsets[i])) ++m;
    if (m == na) return false;
    if (nb - i > na - m) return false;
  }
  return true;
}

bool equals(const Sequence& a, const Sequence& b) {
  if (a.itemsets.size() != b.itemsets.size()) return false;
  if (length(a) != length(b)) return false;
  return std::equal(a.itemsets.begin(), a.itemsets.end(), b.itemsets.begin());
}

void SequenceSet::insert(const Sequence& s) {
  const uint32_t len = length(s);
  groups_[len].push_back(s);
  if (len > max_length_) max_length_ = len;
}

const Sequence* SequenceSet::at(uint32_t len, uint32_t n) const {
  if (len > max_length_) return nullptr;
  auto it = groups_.find(len);
  if (it == groups_.end() || n >= it->second.size()) return nullptr;
  return &it->second[n];
}

bool SequenceSet::find_index(const Sequence& s, uint32_t* index) const {
  const uint32_t len = length(s);
  for (uint32_t n = 0;; ++n) {
    const Sequence* r = at(len, n);
    if (r == nullptr) return false;
    if (equals(*r, s)) {
      *index = n;
      return true;
    }
  }
}

void SequenceSet::load(int fd, uint32_t h) {
  LineReader reader(fd);
  std::string_view line;
  while (reader.next(&line)) insert(parse_sequence(line, h));
}

}  // namespace quarlo::cli
