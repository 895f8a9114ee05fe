// Pattern ids "L-N" open every line of a numbered pattern file and name
// patterns in the PC list: L is the pattern's length minus one, N its ordinal
// among the patterns of that length. The one reader of such ids. No state.
#ifndef QUARLO_CLI_PATTERN_IDS_H_
#define QUARLO_CLI_PATTERN_IDS_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quarlo::cli {

// Reads the plain decimal (one or more digits, no leading zero, a value that
// fits in 32 bits) at the front of `text` into *value; returns the bytes it
// takes, or 0 when `text` does not start with one.
size_t read_plain_decimal(std::string_view text, uint32_t* value);

// Reads the L of the id that opens `line` ("L-..."). False when the line does
// not open with one.
bool read_id_length(std::string_view line, uint32_t* l);

// Reads `text` as one whole id "L-N".
bool read_id(std::string_view text, uint32_t* l, uint32_t* n);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_PATTERN_IDS_H_
