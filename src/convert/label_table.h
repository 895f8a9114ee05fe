// Item labels and dense item numbers: reads the user's transaction file once to
// number every distinct token (numbers by value first, then labels byte-wise),
// writes the converted file of item numbers, and turns a numbered pattern file
// back into the user's labels. The driver owns the one table of a run; no
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

#include "base/tokens.h"
#include "base/io.h"

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

  // Writes `output` (mode 0664 before the umask) with every token of `input`
  // replaced by its item number (reserved tokens kept), each token followed by
  // one blank, one line per input line. Returns 0, or 1 when either file
  // cannot be opened or a write fails. Writes no message.
  unsigned convert(const char* input, const char* output);

  // The converted text of one line, without its newline, as convert writes
  // it: every token replaced by its item number (reserved tokens kept), each
  // followed by one blank. Replaces what *out held.
  void convert_line(std::string_view line, std::string* out);

  // Item number of a non-reserved token; an unknown token is added with 0.
  uint32_t item_number_of(std::string_view text);

  // Text of item `n`; n must be below label_count().
  const std::string& label_of(uint32_t n) const { return label_list_[n]; }

  unsigned label_count() const { return static_cast<unsigned>(labels_.size() + numbers_.size()); }

  // Writes `output` (mode 0664) from the pattern file `input`: the first
  // `skip` tokens of a line and reserved tokens unchanged, every other token
  // read as an item number and replaced by its label; one blank after every
  // token. Returns 0, or 1 when a file cannot be opened, a write fails, or an
  // item token is not an unsigned decimal below the number of labels.
  unsigned r_convert(const char* input, const char* output, unsigned skip) const;

  // What r_convert(input, output, 3) followed by grouping the lines by
  // length would write, in one pass: the lines of length L (the number before
  // the first "-" plus one) go, in file order, to a section of bytes[L - 1]
  // bytes placed after the sections of the shorter lengths. For pattern
  // files whose lines are "L-N support percent items" with single blanks.
  // Returns 0, or 1 when a file cannot be opened, a write fails, a line is
  // not of that form, or a section does not come out at its size. Writes no
  // message.
  unsigned r_convert_sections(const char* input, const char* output,
                              const std::vector<uint64_t>& bytes) const;

 private:
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };

  // Appends the converted tokens of `line` to `out` (an OutBuffer or a string).
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

  bool is_reserved(std::string_view token) const {
    return !token.empty() && reserved_first_[static_cast<unsigned char>(token[0])] &&
           reserved_.find(token) != reserved_.end();
  }
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
  bool reserved_first_[256] = {};      // first bytes of the reserved tokens
  std::vector<std::string> label_list_;
  std::vector<uint32_t> number_index_;  // small value -> item number + 1 (0: absent)
  std::vector<LabelSlot> label_index_;  // open addressing over the numbered labels
};

}  // namespace quarlo::detail

#endif  // QUARLO_CONVERT_LABEL_TABLE_H_
