#include "convert/records.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/tokens.h"
#include "base/io.h"

namespace quarlo::detail {

namespace {

const char kSrc[] = "ttoqr";
const char kUtilSrc[] = "../vscom/util";  // an input that cannot be opened reports as util

uint32_t to_little_endian(uint32_t v) {
  if constexpr (std::endian::native == std::endian::big) return __builtin_bswap32(v);
  return v;
}

void raise_item_count(uint32_t item, uint32_t* item_count) {
  if (static_cast<int32_t>(item + 1) > static_cast<int32_t>(*item_count)) *item_count = item + 1;
}

}  // namespace

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

void normalize_record(std::vector<uint32_t>* items) {
  if (!std::is_sorted(items->begin(), items->end())) std::sort(items->begin(), items->end());
  items->erase(std::unique(items->begin(), items->end()), items->end());
}

void report_two_itemsets(Reporter* rep) {
  rep->printf("%s(%u) Sequence with more than one itemsets detected", kSrc, 26u);
  rep->printf("%s(%u) Fatal error in tseq_to_vsseq()", kSrc, 98u);
}

namespace {

// Appends the record of *items (normalized here) to `out`.
void put_record(std::vector<uint32_t>* items, OutBuffer* out, uint32_t* item_count) {
  normalize_record(items);
  const uint32_t n = to_little_endian(static_cast<uint32_t>(items->size()));
  out->put(&n, sizeof n);
  for (uint32_t item : *items) {
    raise_item_count(item, item_count);
    const uint32_t word = to_little_endian(item);
    out->put(&word, sizeof word);
  }
}

// Converts one line (or one piece of an over-long last line). Returns 0, or 1
// after a report.
unsigned convert_line(std::string_view line, std::vector<uint32_t>* items, OutBuffer* out,
                      uint32_t* item_count, Reporter* rep) {
  if (!collect_items(line, items)) {
    report_two_itemsets(rep);
    return 1;
  }
  if (items->empty()) return 0;
  put_record(items, out, item_count);
  if (out->failed()) {
    errno = out->error();
    rep->perror("%s(%u) write(*, *, %u)", kSrc, 103u, 4u);
    return 1;
  }
  return 0;
}

// Converts every line of `in`, piece by piece.
unsigned convert_lines(int in, OutBuffer* out, uint32_t* item_count, Reporter* rep) {
  LineReader reader(in);
  LinePieces pieces;
  std::vector<uint32_t> items;
  std::string_view line;
  bool terminated = false;
  while (reader.next(&line, &terminated)) {
    const bool ok = pieces.each(line, terminated, [&](std::string_view part) {
      return convert_line(part, &items, out, item_count, rep) == 0;
    });
    if (!ok) return 1;
  }
  return 0;
}

}  // namespace

unsigned ttoqr(const char* input, const char* output, uint32_t* item_count, Reporter* rep) {
  *item_count = 0;
  int in = open(input, O_RDONLY);
  if (in < 0) {
    rep->perror("%s(%u) fopen(%s, \"r\")", kUtilSrc, 104u, input);
    rep->printf("%s(%u) Fatal error in max_line_size(%s)", kSrc, 64u, input);
    return 1;
  }
  int out_fd = create_fresh(output, 0666);
  if (out_fd < 0) {
    rep->perror("%s(%u) open(%s)", kSrc, 82u, output);
    close(in);
    return 1;
  }
  OutBuffer out(out_fd);
  unsigned status = convert_lines(in, &out, item_count, rep);
  if (out.flush() != 0 && status == 0) {
    rep->perror("%s(%u) write(*, *, %u)", kSrc, 103u, 4u);
    status = 1;
  }
  if (close(in) != 0 && status == 0) {
    rep->perror("%s(%u) fclose()", kSrc, 111u);
    status = 1;
  }
  if (close(out_fd) != 0 && status == 0) {
    rep->perror("%s(%u) close()", kSrc, 115u);
    status = 1;
  }
  return status;
}

}  // namespace quarlo::detail
