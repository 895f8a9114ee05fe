// Parent-children list of the frequent patterns: one line per pattern of a
// numbered pattern file, its id followed by the ids of its parents, the frequent
// subsets reached by dropping items through non-frequent subsets only.
// No process-wide state: every table lives for one call.
#ifndef QUARLO_VSCOM_LATTICE_H_
#define QUARLO_VSCOM_LATTICE_H_

#include <cstdio>
#include <string_view>
#include <vector>

// Reads the numbered pattern file `pattern_file` ("L-N support percent items")
// and writes the list to `pc_file` (created or truncated, mode 0664 before the
// umask). Lines run from the longest patterns down to length 1, each length in
// file order; parents stand in the order the downward search meets them, each
// once. Uses hash indexes over the patterns and expands every non-frequent
// subset once. Returns 0, or 1 when a file cannot be opened (reported) or
// memory runs short (the lines written so far stay).
int generate_lattice(const char* pattern_file, const char* pc_file);

// The same list by the plain search over SequenceSet: every subset is looked up
// by a linear scan of its length group and a non-frequent subset met along two
// paths is expanded twice. Byte-identical to generate_lattice and far slower;
// kept as the reference the fast search is checked against, and used by it for
// records of more than one itemset. Same results and reports.
int generate_lattice_by_scan(const char* pattern_file, const char* pc_file);

// Reads the lines of a text stream by large blocks (the post-processing
// readers go through files of millions of lines). A line ends at a newline,
// which the view leaves out; a last line without one is still a line. A null
// stream has no lines. Each view stays valid until the next call of next().
class TextLines {
 public:
  explicit TextLines(FILE* in) : in_(in) {}
  // Views the next line; false at the end of the stream or on a read error.
  bool next(std::string_view* line);

 private:
  void refill();

  FILE* in_;
  std::vector<char> buf_ = std::vector<char>(size_t{1} << 20);
  size_t begin_ = 0;  // first unread byte
  size_t end_ = 0;    // one past the last byte read
  bool at_end_ = false;
};

#endif  // QUARLO_VSCOM_LATTICE_H_
