// Association rules end to end for the benchmark: reads FILE, mines at a
// constant count or under a support-table file, forms the rules and writes
// them one a line as the general miner does with '-v %a %b' ("Y <- X count
// antecedent-count", labels of each side in the library's order).
//   rules_run FILE COUNT|TABLE MIN_CONFIDENCE MAX_CONSEQUENT OUT
// MAX_CONSEQUENT 0 means any size. Prints the rule count and the seconds of
// mining and of forming the rules on standard error.
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quarlo/rules.h"

int main(int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: rules_run FILE COUNT|TABLE MIN_CONFIDENCE MAX_CONSEQUENT OUT\n");
    return 1;
  }
  quarlo::Options options;
  const bool count = argv[2][0] != '\0' && strspn(argv[2], "0123456789") == strlen(argv[2]);
  options.support =
      count ? quarlo::Support::count(static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)))
            : quarlo::Support::table_file(argv[2]);
  quarlo::RuleOptions ro;
  ro.min_threshold = strtod(argv[3], nullptr);
  const unsigned long heads = strtoul(argv[4], nullptr, 10);
  if (heads > 0) ro.max_consequent = static_cast<uint32_t>(heads);
  try {
    const quarlo::RuleSet rs = quarlo::rules(quarlo::Transactions::from_file(argv[1]), options, ro);
    FILE* out = fopen(argv[5], "wb");
    if (out == nullptr) {
      perror(argv[5]);
      return 2;
    }
    std::string buf;
    buf.reserve(1 << 20);
    auto side = [&](std::span<const uint32_t> items) {
      for (uint32_t item : items) {
        buf += ' ';
        buf += rs.labels[item];
      }
    };
    char number[16];
    auto put = [&](uint32_t n) {
      buf += ' ';
      buf.append(number, std::to_chars(number, number + sizeof number, n).ptr);
    };
    for (const quarlo::Rule& r : rs.rules) {
      side(rs.consequent(r));
      buf += " <-";
      side(rs.antecedent(r));
      put(r.count);
      put(r.antecedent_count);
      buf += '\n';
      if (buf.size() > (1 << 20) - 4096) {
        fwrite(buf.data(), 1, buf.size(), out);
        buf.clear();
      }
    }
    fwrite(buf.data(), 1, buf.size(), out);
    if (fclose(out) != 0) {
      perror(argv[5]);
      return 2;
    }
    fprintf(stderr, "%zu rules, %u counted apart, mining %.3f s, rules %.3f s\n", rs.rules.size(),
            rs.counted, rs.stats.seconds_load + rs.stats.seconds_mine, rs.stats.seconds_post);
  } catch (const quarlo::Error& e) {
    fprintf(stderr, "rules_run: %s\n", e.what());
    return 2;
  }
  return 0;
}
