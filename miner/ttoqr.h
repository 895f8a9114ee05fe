// Converted text file (FILE.conv) to binary transaction file (FILE.qr): one
// record per line that holds an item, a count word and the ascending item
// numbers, all little-endian 32-bit. Also the large-buffer line reader and
// output buffer that the conversion stages share. Owns the process-wide
// `item_count`.
#ifndef QUARLO_MINER_TTOQR_H_
#define QUARLO_MINER_TTOQR_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "sequence.h"

// One more than the largest item number written by ttoqr (0 if none); items
// of 2147483647 and above do not raise it (the comparison is signed).
extern uint32_t item_count;

// Writes `output` (mode 0666 before the umask) from `input`: one record per
// line with items; a line whose items are split by "-1" is an error. Returns
// 0, or 1 after a report; records written before a failure stay in `output`.
// Sets item_count from 0.
unsigned ttoqr(const char* input, const char* output);

// Buffer size that reads any newline-terminated line of the file with its
// newline and a terminating NUL: longest such line + 2. An unterminated last
// line is not measured. 4294967295 after a report when the file cannot be opened.
uint32_t max_line_size(const char* name);

// Builds the record block of a one-itemset record: word 0 the item count,
// then the items. On success *block is a malloc'ed block the caller frees,
// item_count is raised, and the result is 0; 1 after a report otherwise.
unsigned tseq_to_vsseq(const Sequence& seq, uint32_t** block);

// Reads a file descriptor line by line through one large buffer that grows
// only for a line longer than itself. Does not close the descriptor.
class LineReader {
 public:
  explicit LineReader(int fd);
  // The next line without its newline in *line (valid until the next call);
  // *terminated tells whether a newline ended it. False at end of file (a
  // read error counts as end of file).
  bool next(std::string_view* line, bool* terminated);

 private:
  void fill();

  int fd_;
  std::unique_ptr<char[]> buf_;
  size_t cap_;
  size_t begin_ = 0;  // first unread byte
  size_t scan_ = 0;   // bytes before this hold no newline after begin_
  size_t end_ = 0;    // end of the bytes read
  bool eof_ = false;
};

// Collects output bytes in one large buffer and writes it with few system
// calls. Does not close the descriptor. After a failed write the rest is dropped.
class OutBuffer {
 public:
  explicit OutBuffer(int fd);
  void put(const void* bytes, size_t n);
  void put_char(char c) {
    if (used_ == kSize) flush();
    buf_[used_++] = c;
  }
  void put_decimal(uint32_t v);
  // Writes out what is buffered. Returns 0, or -1 once any write has failed
  // (errno then holds the error of that write).
  int flush();
  bool failed() const { return failed_; }
  int error() const { return error_; }  // errno of the failed write

 private:
  static constexpr size_t kSize = size_t{1} << 20;
  int fd_;
  std::unique_ptr<char[]> buf_;
  size_t used_ = 0;
  bool failed_ = false;
  int error_ = 0;
};

#endif  // QUARLO_MINER_TTOQR_H_
