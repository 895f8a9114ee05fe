// The numbered pattern file FILE.fp_conv: the text writer, one line per
// pattern, "L-N support percent items...", with L the length minus one, N the
// pattern's ordinal among the written patterns of its length, and the items
// ascending; and the grouping of such a file by length. A writer holds its
// file, buffer and counters.
#ifndef QUARLO_CLI_PATTERN_FILE_H_
#define QUARLO_CLI_PATTERN_FILE_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "base/io.h"
#include "base/report.h"
#include "base/status.h"
#include "engine/pattern_sink.h"

namespace quarlo::cli {

using namespace quarlo::detail;

class PatternFileWriter : public PatternSink {
 public:
  // Creates or truncates `path`. `ntrans` is the number of input transactions
  // (the 100 % mark); `nitems` bounds the pattern length. Fails after a
  // report (I/O, or out of memory for the writer's tables).
  Status open(const char* path, uint32_t ntrans, uint32_t nitems, Reporter* rep);

  // Writes one line for `p`.
  void put(const Pattern& p) override;

  // Flushes and closes the file. Fails (I/O) after a report when closing
  // fails or any write since the open failed (a full disk).
  Status close();

  // Closes the file without writing what is still buffered (mining failed).
  void abandon();

  // Number of pattern lines written since the open.
  uint32_t count() const { return total_; }

  // Measures, per length, what the lines will take once the items are
  // labels as LabelTable::r_convert writes them; `label_bytes[i]` is the
  // length of item i's label. Call after open.
  void measure_labels(std::vector<uint32_t> label_bytes) { label_bytes_ = std::move(label_bytes); }
  // Per length (index L - 1): the patterns written, and with measure_labels
  // their bytes once labelled.
  const std::vector<uint32_t>& counts() const { return per_length_; }
  const std::vector<uint64_t>& labelled_bytes() const { return labelled_; }

 private:
  char* put_percent(char* out, int32_t support);
  void measure(uint32_t len, uint64_t head, const uint32_t* items);

  int fd_ = -1;
  std::unique_ptr<OutBuffer> out_;
  Reporter* rep_ = nullptr;
  uint32_t ntrans_ = 0;
  std::vector<uint32_t> per_length_;   // written patterns per length, index L - 1
  std::vector<uint32_t> label_bytes_;  // by item: its label's length (empty: not measured)
  std::vector<uint64_t> labelled_;     // by length: bytes of its lines once labelled
  std::vector<uint32_t> scratch_;      // the items of one pattern, sorted
  // Percentage text by support: entry s holds the "%.3f" text of s * 100 /
  // ntrans (first byte its length, 0 while not yet formatted).
  std::vector<char> pct_;
  std::vector<char> item_text_;  // by item number: its text slot (see the writer)
  uint32_t total_ = 0;
};

// Patterns of one length in a pattern file.
struct LengthCount {
  uint32_t length;
  uint32_t count;
};

// Rewrites the pattern file `file` with its lines grouped by pattern length
// (the L of the id "L-N" that opens the line, plus one), file order kept
// within a length; lines that open without an id go last. *counts gets one entry per length
// present, shortest first. A file that cannot be read is taken as empty.
// Returns false, with errno set, when the rewrite could not be written whole
// (a full disk); the file is then incomplete.
bool sort_by_length(const char* file, std::vector<LengthCount>* counts);

class Console;

// One count line per length with patterns ("Number of Frequent
// Patterns[Length L]"), shortest first; counts[L - 1] is length L's.
void print_length_counts(const std::vector<uint32_t>& counts, Console* console);

// Groups the numbered pattern file `file` by length and prints one count
// line per length. Returns false after a report when the file could not be
// rewritten whole.
bool group_by_length(const char* file, Console* console);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_PATTERN_FILE_H_
