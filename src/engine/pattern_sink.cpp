#include "engine/pattern_sink.h"

#include <algorithm>

namespace quarlo::detail {

void sort_items(uint32_t* a, uint32_t n) {
  if (n > 16) {
    std::sort(a, a + n);
    return;
  }
  for (uint32_t i = 1; i < n; ++i) {
    const uint32_t v = a[i];
    uint32_t j = i;
    for (; j > 0 && a[j - 1] > v; --j) a[j] = a[j - 1];
    a[j] = v;
  }
}

}  // namespace quarlo::detail
