// The parent-children list file (FILE.pc) from a numbered pattern file: one
// line per pattern, its id followed by the ids of its parents, found by the
// library's hashed search. No state beyond one call.
#ifndef QUARLO_CLI_PC_LIST_H_
#define QUARLO_CLI_PC_LIST_H_

#include "base/report.h"
#include "base/status.h"

namespace quarlo::cli {

using namespace quarlo::detail;

// Reads the numbered pattern file `pattern_file` ("L-N support percent items")
// and writes the list to `pc_file` (made afresh, mode 0664 before the umask).
// Lines run from the longest patterns down to length 1, each length in file
// order; parents stand in the order the downward search meets them, each
// once. A line's items are read up to its first token that is not a number.
// Fails, after a report, when a file cannot be opened or the list cannot be
// written whole (an I/O status), or when memory runs short; the lines written
// so far stay.
Status generate_lattice(const char* pattern_file, const char* pc_file, Reporter* rep);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_PC_LIST_H_
