// Item labels and dense item numbers: reads the user's transactions once to
// number every distinct token (numbers by value first, then labels byte-wise)
// and converts a line's tokens to item numbers. The driver owns the one table of a run; no
// process-wide state.
#ifndef QUARLO_CONVERT_LABEL_TABLE_H_
#define QUARLO_CONVERT_LABEL_TABLE_H_

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/io.h"
#include "base/tokens.h"

namespace quarlo::detail {

class LabelTable {
 public:
  LabelTable() = default;
  LabelTable(const LabelTable&) = delete;
  LabelTable& operator=(const LabelTable&) = delete;

  // Marks `text` as a token that is never numbered and passes every
  // conversion unchanged.
  void add_reserved_token(std::string_view text);

  // Registers every non-reserved token of the file, then numbers them. A file
  // that cannot be opened registers nothing, silently. Call once.
  void load_labels(const char* name);

  // Adds the token with item number 0 unless present: to the numbers when it
  // is a number that fits in 32 bits, to the labels otherwise.
  void register_token(std::string_view text);

  // "0", or a digit 1-9 followed by digits; nothing else (no sign, no
  // leading zero, no empty text).
  static bool is_number(std::string_view text);

  // Numbers the registered tokens 0, 1, ...: numbers by ascending value, then
  // labels in unsigned byte order; fills the label list.
  void assign_item_numbers();

  // The converted text of one line, without its newline, as convert writes
  // it: every token replaced by its item number (reserved tokens kept), each
  // followed by one blank. Replaces what *out held.
  void convert_line(std::string_view line, std::string* out);

  // Item number of a non-reserved token; an unknown token is added with 0.
  uint32_t item_number_of(std::string_view text);

  // Text of item `n`; n must be below label_count().
  const std::string& label_of(uint32_t n) const { return label_list_[n]; }

  unsigned label_count() const { return static_cast<unsigned>(labels_.size() + numbers_.size()); }

  // Every label by item number.
  const std::vector<std::string>& labels() const { return label_list_; }

  // Appends the converted tokens of `line` to `out` (an OutBuffer or a
  // string), as convert_line does.
  template <class Out>
  void convert_line(std::string_view line, Out* out) {
    char digits[10];
    for (std::string_view t = next_token(&line); !t.empty(); t = next_token(&line)) {
      if (is_reserved(t)) {
        out->append(t.data(), t.size());
      } else {
        out->append(digits, static_cast<size_t>(put_decimal(digits, item_number_of(t)) - digits));
      }
      out->push_back(' ');
    }
  }

  // True for a token marked by add_reserved_token.
  bool is_reserved(std::string_view token) const {
    return !token.empty() && reserved_first_[static_cast<unsigned char>(token[0])] &&
           reserved_.find(token) != reserved_.end();
  }

 private:
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };

  static bool number_value(std::string_view text, uint32_t* value);
  void build_number_index();
  void build_label_index();
  bool find_label(std::string_view text, uint32_t* item) const;

  struct LabelSlot {
    uint64_t hash;
    uint32_t item;  // kNoItem: empty slot
  };

  std::unordered_map<std::string, uint32_t, TextHash, std::equal_to<>> labels_;
  std::unordered_map<uint32_t, uint32_t> numbers_;
  std::set<std::string, std::less<>> reserved_;
  bool reserved_first_[256] = {};  // first bytes of the reserved tokens
  std::vector<std::string> label_list_;
  std::vector<uint32_t> number_index_;  // small value -> item number + 1 (0: absent)
  std::vector<LabelSlot> label_index_;  // open addressing over the numbered labels
};

}  // namespace quarlo::detail

#endif  // QUARLO_CONVERT_LABEL_TABLE_H_
