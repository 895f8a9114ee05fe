// Tokens of the program's text files: white space as the C locale has it,
// the next token of a line, and item numbers read from their decimal text
// ("-1" is the reserved itemset break). No state.
#ifndef QUARLO_BASE_TOKENS_H_
#define QUARLO_BASE_TOKENS_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quarlo::detail {

// The value "-1" reads as: the break between two itemsets of one record.
constexpr uint32_t kItemsetBreak = 4294967295u;

// True for the six white-space bytes of the C locale: blank, \t, \n, \v, \f, \r.
inline bool is_white_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Cuts the next white-space-separated token from the front of *rest; an empty
// view when none is left.
inline std::string_view next_token(std::string_view* rest) {
  const char* p = rest->data();
  const char* const end = p + rest->size();
  while (p < end && is_white_space(*p)) ++p;
  const char* const start = p;
  while (p < end && !is_white_space(*p)) ++p;
  *rest = std::string_view(p, static_cast<size_t>(end - p));
  return std::string_view(start, static_cast<size_t>(p - start));
}

// Reads `token` as an unsigned 32-bit decimal: one or more digits whose value
// fits in 32 bits, or exactly "-1", which reads as 4294967295. Writes the value
// and returns true; returns false for any other token.
bool read_number(std::string_view token, uint32_t* value);

}  // namespace quarlo::detail

#endif  // QUARLO_BASE_TOKENS_H_
