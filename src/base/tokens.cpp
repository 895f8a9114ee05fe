#include "base/tokens.h"

namespace quarlo::detail {

bool read_number(std::string_view token, uint32_t* value) {
  if (token == "-1") {
    *value = kItemsetBreak;
    return true;
  }
  if (token.empty()) return false;
  uint64_t v = 0;
  for (char c : token) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
    if (v > kItemsetBreak) return false;
  }
  *value = static_cast<uint32_t>(v);
  return true;
}

}  // namespace quarlo::detail
