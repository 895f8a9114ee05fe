#include "convert/records.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/io.h"
#include "base/sites.h"
#include "base/tokens.h"

namespace quarlo::detail {

namespace {}  // namespace

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
  rep->printf("%s(%u) Sequence with more than one itemsets detected", sites::kTwoItemsets.module,
              sites::kTwoItemsets.line);
  rep->printf("%s(%u) Fatal error in tseq_to_vsseq()", sites::kTwoItemsetsFatal.module,
              sites::kTwoItemsetsFatal.line);
}

}  // namespace quarlo::detail
