#include "engine/pattern_sink.h"

namespace quarlo::detail {

void append_pattern(std::vector<uint32_t>* to, const Pattern& p) {
  to->push_back(p.length);
  to->push_back(static_cast<uint32_t>(p.support));
  to->insert(to->end(), p.items, p.items + p.length);
}

bool replay_patterns(const uint32_t* w, size_t n, uint32_t nitems, PatternSink* sink) {
  for (size_t at = 0; at < n;) {
    const uint32_t len = w[at];
    if (n - at < 2 || len == 0 || len > n - at - 2 || len > nitems) return false;
    const uint32_t* items = w + at + 2;
    for (uint32_t i = 0; i < len; ++i) {
      if (items[i] >= nitems) return false;
    }
    // Sinks only read the items (a writer sorts a copy).
    sink->put(Pattern{len, static_cast<int32_t>(w[at + 1]), const_cast<uint32_t*>(items)});
    at += 2 + len;
  }
  return true;
}

}  // namespace quarlo::detail
