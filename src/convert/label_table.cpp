#include "convert/label_table.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "base/io.h"
#include "base/tokens.h"

namespace quarlo::detail {

namespace {

// Numbers whose values stay below this many times the count of numbers (plus
// a small floor) are looked up in a direct table instead of the hash map.
constexpr uint64_t kIndexSpread = 8;
constexpr uint64_t kIndexFloor = 4096;
constexpr uint32_t kNoItem = 0xffffffffu;

// Hash of a token, eight bytes at a time.
uint64_t text_hash(std::string_view s) {
  uint64_t h = 0x9e3779b97f4a7c15ull ^ s.size();
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w;
    memcpy(&w, s.data() + i, 8);
    h = (h ^ w) * 0xff51afd7ed558ccdull;
    h ^= h >> 32;
  }
  uint64_t w = 0;
  memcpy(&w, s.data() + i, s.size() - i);
  h = (h ^ w) * 0xc4ceb9fe1a85ec53ull;
  return h ^ (h >> 29);
}

}  // namespace

void LabelTable::add_reserved_token(std::string_view text) {
  reserved_.emplace(text);
  if (!text.empty()) reserved_first_[static_cast<unsigned char>(text[0])] = true;
}

bool LabelTable::is_number(std::string_view text) {
  if (text.empty()) return false;
  if (text[0] == '0') return text.size() == 1;
  if (text[0] < '1' || text[0] > '9') return false;
  return std::all_of(text.begin() + 1, text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A number token whose value does not fit in 32 bits is kept as a label, so
// that it is never confused with a smaller number and comes back unchanged.
bool LabelTable::number_value(std::string_view text, uint32_t* value) {
  return is_number(text) && read_number(text, value);
}

void LabelTable::register_token(std::string_view text) {
  uint32_t v = 0;
  if (number_value(text, &v)) {
    numbers_.try_emplace(v, 0);
  } else if (labels_.find(text) == labels_.end()) {
    labels_.emplace(std::string(text), 0);
  }
}

void LabelTable::load_labels(const char* name) {
  int fd = open(name, O_RDONLY);
  if (fd >= 0) {
    LineReader reader(fd);
    std::string_view line;
    while (reader.next(&line)) {
      for (std::string_view t = next_token(&line); !t.empty(); t = next_token(&line)) {
        if (!is_reserved(t)) register_token(t);
      }
    }
    close(fd);
  }
  assign_item_numbers();
}

void LabelTable::assign_item_numbers() {
  std::vector<uint32_t> values;
  values.reserve(numbers_.size());
  for (const auto& entry : numbers_) values.push_back(entry.first);
  std::sort(values.begin(), values.end());
  std::vector<std::unordered_map<std::string, uint32_t>::value_type*> texts;
  texts.reserve(labels_.size());
  for (auto& entry : labels_) texts.push_back(&entry);
  // std::string orders its bytes as unsigned values, a proper prefix first.
  std::sort(texts.begin(), texts.end(), [](auto* a, auto* b) { return a->first < b->first; });

  uint32_t counter = 0;
  label_list_.reserve(label_list_.size() + values.size() + texts.size());
  for (uint32_t v : values) {
    numbers_[v] = counter++;
    label_list_.push_back(std::to_string(v));
  }
  for (auto* entry : texts) {
    entry->second = counter++;
    label_list_.push_back(entry->first);
  }
  build_number_index();
  build_label_index();
}

// Flat table over the labels numbered so far, at most half full, for the
// lookups of the second pass.
void LabelTable::build_label_index() {
  size_t size = 16;
  while (size < 2 * labels_.size()) size *= 2;
  label_index_.assign(size, LabelSlot{0, kNoItem});
  for (const auto& entry : labels_) {
    const uint64_t h = text_hash(entry.first);
    size_t i = h & (size - 1);
    while (label_index_[i].item != kNoItem) i = (i + 1) & (size - 1);
    label_index_[i] = LabelSlot{h, entry.second};
  }
}

bool LabelTable::find_label(std::string_view text, uint32_t* item) const {
  if (label_index_.empty()) return false;
  const uint64_t h = text_hash(text);
  const size_t mask = label_index_.size() - 1;
  for (size_t i = h & mask; label_index_[i].item != kNoItem; i = (i + 1) & mask) {
    const LabelSlot& slot = label_index_[i];
    if (slot.hash == h && label_list_[slot.item] == text) {
      *item = slot.item;
      return true;
    }
  }
  return false;
}

// Direct table for numeric tokens when their values are dense enough.
void LabelTable::build_number_index() {
  number_index_.clear();
  uint32_t max_value = 0;
  for (const auto& entry : numbers_) max_value = std::max(max_value, entry.first);
  if (numbers_.empty() || max_value >= kIndexSpread * numbers_.size() + kIndexFloor) return;
  number_index_.assign(static_cast<size_t>(max_value) + 1, 0);
  for (const auto& entry : numbers_) number_index_[entry.first] = entry.second + 1;
}

uint32_t LabelTable::item_number_of(std::string_view text) {
  uint32_t v = 0;
  if (number_value(text, &v)) {
    if (v < number_index_.size() && number_index_[v] != 0) return number_index_[v] - 1;
    return numbers_.try_emplace(v, 0).first->second;
  }
  uint32_t item = 0;
  if (find_label(text, &item)) return item;
  auto it = labels_.find(text);
  if (it == labels_.end()) it = labels_.emplace(std::string(text), 0).first;
  return it->second;
}

void LabelTable::convert_line(std::string_view line, std::string* out) {
  out->clear();
  convert_line<std::string>(line, out);
}

}  // namespace quarlo::detail
