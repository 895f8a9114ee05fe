#include "cli/pattern_ids.h"

namespace quarlo::cli {

size_t read_plain_decimal(std::string_view text, uint32_t* value) {
  uint64_t x = 0;
  size_t n = 0;
  while (n < text.size() && n <= 10 && static_cast<unsigned char>(text[n] - '0') <= 9) {
    x = x * 10 + static_cast<uint64_t>(text[n++] - '0');
  }
  if (n == 0 || n > 10 || (n > 1 && text[0] == '0') || x > 0xffffffffull) return 0;
  *value = static_cast<uint32_t>(x);
  return n;
}

bool read_id_length(std::string_view line, uint32_t* l) {
  const size_t n = read_plain_decimal(line, l);
  return n > 0 && n < line.size() && line[n] == '-';
}

bool read_id(std::string_view text, uint32_t* l, uint32_t* n) {
  if (!read_id_length(text, l)) return false;
  const size_t at = text.find('-') + 1;
  return at < text.size() && read_plain_decimal(text.substr(at), n) == text.size() - at;
}

}  // namespace quarlo::cli
