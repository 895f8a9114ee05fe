// The conversions between the user's file and the program's numbered files:
// FILE to FILE.conv (every token its item number) and a numbered pattern file
// back to the user's labels, whole or grouped by length in one pass. No
// state beyond one call; the LabelTable is the run's.
#ifndef QUARLO_CLI_LABEL_FILES_H_
#define QUARLO_CLI_LABEL_FILES_H_

#include <cstdint>
#include <vector>

#include "base/status.h"
#include "convert/label_table.h"

namespace quarlo::cli {

using namespace quarlo::detail;

// Writes `output` (made afresh, mode 0664 before the umask) with every token
// of `input` replaced by its item number (reserved tokens kept), each token
// followed by one blank, one line per input line. Fails (I/O, naming
// `output` and the errno of the failure) when either file cannot be opened or
// a write fails. Writes no message.
Status convert_file(LabelTable* labels, const char* input, const char* output);

// Writes `output` (made afresh, mode 0664) from the pattern file `input`: the
// first `skip` tokens of a line and reserved tokens unchanged, every other
// token read as an item number and replaced by its label; one blank after
// every token. Fails as convert_file does, and when an item token is not an
// unsigned decimal below the number of labels. Writes no message.
Status r_convert(const LabelTable& labels, const char* input, const char* output, unsigned skip);

// What r_convert(labels, input, output, 3) followed by grouping the lines by
// length would write, in one pass: the lines of length L (the number before
// the first "-" plus one) go, in file order, to a section of bytes[L - 1]
// bytes placed after the sections of the shorter lengths. For pattern files
// whose lines are "L-N support percent items" with single blanks. Fails as
// r_convert does, and when a line is not of that form or a section does not
// come out at its size. Writes no message.
Status r_convert_sections(const LabelTable& labels, const char* input, const char* output,
                          const std::vector<uint64_t>& bytes);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_LABEL_FILES_H_
