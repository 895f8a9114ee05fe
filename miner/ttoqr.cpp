#include "ttoqr.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "log.h"
#include "util.h"

uint32_t item_count = 0;

namespace {

const char kSrc[] = "ttoqr";
const char kUtilSrc[] = "../vscom/util";  // the line-sizing helper reports as util
constexpr size_t kChunk = size_t{1} << 20;
constexpr uint32_t kItemsetBreak = 4294967295u;

uint32_t to_little_endian(uint32_t v) {
  if constexpr (std::endian::native == std::endian::big) return __builtin_bswap32(v);
  return v;
}

void raise_item_count(uint32_t item) {
  if (static_cast<int32_t>(item + 1) > static_cast<int32_t>(item_count)) item_count = item + 1;
}

// Reads the items of one converted line into *items, in line order, as
// parse_sequence reads them: up to the first token that is not a number, or up
// to a NUL byte (the line is text, so a NUL ends it). Returns false when a
// "-1" stands between two items, that is, when the line holds two itemsets.
bool collect_items(std::string_view line, std::vector<uint32_t>* items) {
  items->clear();
  bool after_break = false;
  const char* p = line.data();
  const char* const end = p + line.size();
  while (p < end) {
    while (p < end && is_white_space(*p)) ++p;
    const char* token = p;
    while (p < end && !is_white_space(*p) && *p != '\0') ++p;
    uint32_t v = 0;
    if (p == token || !read_number(std::string_view(token, p - token), &v)) break;
    if (v == kItemsetBreak) {
      after_break = !items->empty();
    } else {
      if (after_break) return false;
      items->push_back(v);
    }
    if (p < end && *p == '\0') break;
  }
  return true;
}

// Sorts and deduplicates *items, then appends their record to `out`.
void put_record(std::vector<uint32_t>* items, OutBuffer* out) {
  if (!std::is_sorted(items->begin(), items->end())) std::sort(items->begin(), items->end());
  items->erase(std::unique(items->begin(), items->end()), items->end());
  const uint32_t n = to_little_endian(static_cast<uint32_t>(items->size()));
  out->put(&n, sizeof n);
  for (uint32_t item : *items) {
    raise_item_count(item);
    const uint32_t word = to_little_endian(item);
    out->put(&word, sizeof word);
  }
}

// Converts one line (or one piece of an over-long last line). Returns 0, or 1
// after a report.
unsigned convert_line(std::string_view line, std::vector<uint32_t>* items, OutBuffer* out) {
  if (!collect_items(line, items)) {
    log_printf("%s(%u) Sequence with more than one itemsets detected", kSrc, 26u);
    log_printf("%s(%u) Fatal error in tseq_to_vsseq()", kSrc, 98u);
    return 1;
  }
  if (items->empty()) return 0;
  put_record(items, out);
  if (out->failed()) {
    errno = out->error();
    log_perror("%s(%u) write(*, *, %u)", kSrc, 103u, 4u);
    return 1;
  }
  return 0;
}

// Converts every line of `in`. The last line, when it has no newline and is
// longer than the longest newline-terminated line plus one byte, is taken in
// pieces of that many bytes, as a line buffer sized by max_line_size reads it.
unsigned convert_lines(int in, OutBuffer* out) {
  LineReader reader(in);
  std::vector<uint32_t> items;
  std::string_view line;
  bool terminated = false;
  size_t longest = 0;
  while (reader.next(&line, &terminated)) {
    if (terminated) longest = std::max(longest, line.size());
    const size_t piece = terminated ? line.size() + 1 : longest + 1;
    do {
      std::string_view part = line.substr(0, piece);
      line.remove_prefix(part.size());
      if (convert_line(part, &items, out) != 0) return 1;
    } while (!line.empty());
  }
  return 0;
}

}  // namespace

unsigned ttoqr(const char* input, const char* output) {
  item_count = 0;
  int in = open(input, O_RDONLY);
  if (in < 0) {
    log_perror("%s(%u) fopen(%s, \"r\")", kUtilSrc, 104u, input);
    log_printf("%s(%u) Fatal error in max_line_size(%s)", kSrc, 64u, input);
    return 1;
  }
  int out_fd = open(output, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (out_fd < 0) {
    log_perror("%s(%u) open(%s)", kSrc, 82u, output);
    close(in);
    return 1;
  }
  OutBuffer out(out_fd);
  unsigned status = convert_lines(in, &out);
  if (out.flush() != 0 && status == 0) {
    log_perror("%s(%u) write(*, *, %u)", kSrc, 103u, 4u);
    status = 1;
  }
  if (close(in) != 0 && status == 0) {
    log_perror("%s(%u) fclose()", kSrc, 111u);
    status = 1;
  }
  if (close(out_fd) != 0 && status == 0) {
    log_perror("%s(%u) close()", kSrc, 115u);
    status = 1;
  }
  return status;
}

uint32_t max_line_size(const char* name) {
  int fd = open(name, O_RDONLY);
  if (fd < 0) {
    log_perror("%s(%u) fopen(%s, \"r\")", kUtilSrc, 104u, name);
    return 4294967295u;
  }
  std::vector<char> buf(kChunk);
  size_t current = 0;
  size_t longest = 0;
  ssize_t n;
  while ((n = read(fd, buf.data(), buf.size())) > 0 || (n < 0 && errno == EINTR)) {
    const char* p = buf.data();
    const char* const end = p + std::max<ssize_t>(n, 0);
    while (p < end) {
      const char* nl = static_cast<const char*>(memchr(p, '\n', end - p));
      if (nl == nullptr) {
        current += end - p;
        break;
      }
      longest = std::max(longest, current + (nl - p));
      current = 0;
      p = nl + 1;
    }
  }
  close(fd);
  return static_cast<uint32_t>(longest + 2);
}

unsigned tseq_to_vsseq(const Sequence& seq, uint32_t** block) {
  if (seq.itemsets.size() > 1) {
    log_printf("%s(%u) Sequence with more than one itemsets detected", kSrc, 26u);
    return 1;
  }
  const uint32_t n = length(seq);
  const uint32_t bytes = 4 * n + 4;
  uint32_t* words = static_cast<uint32_t*>(malloc(bytes));
  if (words == nullptr) {
    log_perror("%s(%u) malloc(%u)", kSrc, 34u, bytes);
    return 1;
  }
  words[0] = to_little_endian(n);
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t item = seq.itemsets[0][i];
    raise_item_count(item);
    words[i + 1] = to_little_endian(item);
  }
  *block = words;
  return 0;
}

