// Small helpers of the library and the program: files created afresh with a
// given mode, block-wise line reading and buffered writing of
// files of millions of lines, and the wall clock.
// Owns no process-wide state.
#ifndef QUARLO_BASE_IO_H_
#define QUARLO_BASE_IO_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

namespace quarlo::detail {

// Creates `name` anew for writing with `mode` (before the umask): whatever
// stands at the name, a stale file or a symbolic link, is removed first, and
// the file is made exclusively, never through a link. Returns the descriptor,
// or -1 with errno set.
int create_fresh(const char* name, unsigned mode);

// An unnamed file for writing and reading back, in the folder of `file` so
// that it takes room where the file does (on a file system without unnamed
// files, a named one removed at once). Returns the descriptor, or -1 with
// errno set.
int unnamed_file_beside(const char* file);

// Writes the n bytes at the descriptor's offset, retrying short writes.
// False, with errno set, when a write fails.
bool write_all(int fd, const void* bytes, size_t n);

// Appends n bytes of `from`, read from `offset` on, to `to`: in the kernel
// where it can, through a buffer where it cannot. False, with errno set,
// when a read or write fails or `from` ends before n bytes.
bool copy_range(int from, uint64_t offset, int to, uint64_t n);

// Writes v in decimal (at most 10 characters) at `out`; returns the end.
char* put_decimal(char* out, uint32_t v);

// Seconds since the epoch, with microseconds, from gettimeofday.
double wall_seconds();

// Reads a file descriptor line by line through one large buffer that grows
// only for a line longer than itself. Does not close the descriptor.
class LineReader {
 public:
  explicit LineReader(int fd);
  // The next line without its newline in *line (valid until the next call);
  // *terminated tells whether a newline ended it. False at end of file (a
  // read error counts as end of file).
  bool next(std::string_view* line, bool* terminated = nullptr);

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
  // `size` bytes of buffer: 1 MiB unless many buffers are open at once.
  explicit OutBuffer(int fd, size_t size = size_t{1} << 20);
  void put(const void* bytes, size_t n) {
    if (n <= size_ - used_) {  // the usual case: a token that fits
      memcpy(buf_.get() + used_, bytes, n);
      used_ += n;
    } else {
      put_spanning(bytes, n);
    }
  }
  void put_char(char c) {
    if (used_ == size_) flush();
    buf_[used_++] = c;
  }
  void put_decimal(uint32_t v);
  // The names std::string has, so that text can be built into either.
  void append(const char* bytes, size_t n) { put(bytes, n); }
  void push_back(char c) { put_char(c); }
  // Room for at least n <= 64 bytes at the write end: write them through the
  // pointer, then pass the end of what was written to commit().
  char* reserve(size_t n) {
    if (size_ - used_ < n) flush();
    return buf_.get() + used_;
  }
  void commit(const char* end) { used_ = static_cast<size_t>(end - buf_.get()); }
  // Writes out what is buffered. Returns 0, or -1 once any write has failed
  // (errno then holds the error of that write).
  int flush();
  bool failed() const { return failed_; }
  int error() const { return error_; }  // errno of the failed write

 private:
  void put_spanning(const void* bytes, size_t n);

  size_t size_;
  int fd_;
  std::unique_ptr<char[]> buf_;
  size_t used_ = 0;
  bool failed_ = false;
  int error_ = 0;
};

}  // namespace quarlo::detail

#endif  // QUARLO_BASE_IO_H_
