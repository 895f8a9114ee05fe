// Parent-children list of the frequent patterns: one line per pattern of a
// numbered pattern file, its id followed by the ids of its parents, the frequent
// subsets reached by dropping items through non-frequent subsets only.
// No process-wide state: every table lives for one call.
#ifndef QUARLO_POST_PARENTS_H_
#define QUARLO_POST_PARENTS_H_

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "base/report.h"

namespace quarlo::detail {

// Reads the numbered pattern file `pattern_file` ("L-N support percent items")
// and writes the list to `pc_file` (created or truncated, mode 0664 before the
// umask). Lines run from the longest patterns down to length 1, each length in
// file order; parents stand in the order the downward search meets them, each
// once. Uses hash indexes over the patterns and expands every non-frequent
// subset once. Returns 0, or 1 when a file cannot be opened (reported) or
// memory runs short (the lines written so far stay).
int generate_lattice(const char* pattern_file, const char* pc_file, Reporter* rep);

// The same list by the plain search over SequenceSet: every subset is looked up
// by a linear scan of its length group and a non-frequent subset met along two
// paths is expanded twice. Byte-identical to generate_lattice and far slower;
// kept as the reference the fast search is checked against, and used by it for
// records of more than one itemset. Same results and reports.
int generate_lattice_by_scan(const char* pattern_file, const char* pc_file, Reporter* rep);

// Called once per pattern, longest first and each length in ordinal order,
// with its length, its ordinal and its parents as (length, ordinal) pairs in
// the order the list file gives them.
using ParentVisitor = std::function<void(uint32_t len, uint32_t ordinal,
                                         const std::vector<std::pair<uint32_t, uint32_t>>& parents)>;

// The same search over patterns in memory: by_length[k] holds the patterns of
// length k, k ascending items each, in ordinal order. Throws std::bad_alloc
// when memory runs short.
void find_parents(const std::vector<std::vector<uint32_t>>& by_length, const ParentVisitor& visit);

}  // namespace quarlo::detail

#endif  // QUARLO_POST_PARENTS_H_
