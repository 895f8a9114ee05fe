// An independent reference for the parent-children list: reads pattern lines
// ("L-N support percent items"; a "-1" between items is skipped) and finds
// each pattern's parents by a breadth-first walk over plain sets, with none
// of the program's hashing, indexes or memos. Slow on purpose; for tests and
// fuzz targets only.
#ifndef QUARLO_TESTS_SUPPORT_PARENTS_REFERENCE_H_
#define QUARLO_TESTS_SUPPORT_PARENTS_REFERENCE_H_

#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace quarlo_test {

// The items of one pattern line: the tokens after the first three, read up to
// the first that is not an unsigned 32-bit decimal; "-1" and 4294967295 are
// itemset breaks and skipped. Sorted, without repeats.
inline std::vector<uint32_t> reference_items(const std::string& line) {
  std::istringstream in(line);
  std::string token;
  for (int field = 0; field < 3 && in >> token;) ++field;
  std::set<uint32_t> items;
  while (in >> token) {
    if (token == "-1") continue;
    uint64_t v = 0;
    bool number = !token.empty();
    for (char c : token) {
      number = number && c >= '0' && c <= '9' &&
               (v = v * 10 + static_cast<uint64_t>(c - '0')) <= 0xffffffffull;
    }
    if (!number) break;
    if (v != 0xffffffffull) items.insert(static_cast<uint32_t>(v));
  }
  return std::vector<uint32_t>(items.begin(), items.end());
}

// The PC list of a numbered pattern file's text.
inline std::string reference_pc_list(const std::string& text) {
  using Items = std::vector<uint32_t>;
  std::map<size_t, std::vector<Items>> groups;        // by length, file order
  std::map<size_t, std::map<Items, uint32_t>> first;  // by length: itemset -> first ordinal
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    Items items = reference_items(line);
    const size_t len = items.size();
    first[len].emplace(items, static_cast<uint32_t>(groups[len].size()));
    groups[len].push_back(items);
  }
  auto id = [](size_t len, uint32_t ordinal) {
    return std::to_string(static_cast<uint32_t>(len - 1)) + "-" + std::to_string(ordinal);
  };
  std::string out;
  for (auto g = groups.rbegin(); g != groups.rend(); ++g) {
    if (g->first == 0) continue;
    for (uint32_t i = 0; i < g->second.size(); ++i) {
      out += id(g->first, i);
      std::vector<Items> level = {g->second[i]};
      for (size_t j = g->first; j > 0 && !level.empty(); --j) {
        std::vector<Items> next;
        std::set<Items> written, queued;
        for (const Items& q : level) {
          for (size_t t = 0; t < q.size(); ++t) {
            Items s = q;
            s.erase(s.begin() + static_cast<long>(t));
            auto found = first[j - 1].find(s);
            if (found != first[j - 1].end()) {
              if (written.insert(s).second) out.append(1, ' ').append(id(j - 1, found->second));
            } else if (queued.insert(s).second) {
              next.push_back(s);
            }
          }
        }
        level.swap(next);
      }
      out += "\n";
    }
  }
  return out;
}

}  // namespace quarlo_test

#endif  // QUARLO_TESTS_SUPPORT_PARENTS_REFERENCE_H_
