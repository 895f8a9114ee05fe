// The parent-children list file (FILE.pc) from a numbered pattern file: one
// line per pattern, its id followed by the ids of its parents. The library's
// hashed search does the work; records of more than one itemset go through
// the plain search over pattern records. No state beyond one call.
#ifndef QUARLO_CLI_PC_LIST_H_
#define QUARLO_CLI_PC_LIST_H_

#include "base/report.h"

namespace quarlo::cli {

using namespace quarlo::detail;

// Reads the numbered pattern file `pattern_file` ("L-N support percent items")
// and writes the list to `pc_file` (made afresh, mode 0664 before the umask).
// Lines run from the longest patterns down to length 1, each length in file
// order; parents stand in the order the downward search meets them, each
// once. Returns 0, or 1 when a file cannot be opened (reported) or memory
// runs short (the lines written so far stay).
int generate_lattice(const char* pattern_file, const char* pc_file, Reporter* rep);

// The same list by the plain search over pattern records: every subset is
// looked up by a linear scan of its length group. Byte-identical to
// generate_lattice and far slower; generate_lattice uses it for records of
// more than one itemset. Same results and reports.
int generate_lattice_by_scan(const char* pattern_file, const char* pc_file, Reporter* rep);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_PC_LIST_H_
