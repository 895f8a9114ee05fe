// Support-table files ("LEN F(LEN)" lines of percentages), loaded for a few
// database shapes, with the table checked as the engine reads it.
#include <cstdint>

#include "fuzz_files.h"
#include "base/report.h"
#include "support/support_table.h"

using namespace quarlo::detail;

namespace {

struct Shape {
  uint32_t ntrans, nitems, min_size;
};

void check(const Scratch& file, const Shape& shape) {
  SupportTable t;
  CollectingReporter rep;
  const bool loaded = t.load_file(file.c_str(), shape.ntrans, shape.nitems, shape.min_size, &rep).ok();
  FUZZ_CHECK(loaded == rep.lines().empty());
  if (!loaded || shape.nitems == 0) return;
  FUZZ_CHECK(t.lengths() == shape.nitems);
  FUZZ_CHECK(t.lowest_minsup() == t.bound_of_length(shape.nitems));
  // Lengths below the minimum size are out of reach; every other demands a
  // transaction at least, or any itemset would pass. The pruning bound is the
  // running minimum of the table.
  uint32_t least = UINT32_MAX;
  for (uint32_t len = 1; len <= shape.nitems; ++len) {
    const uint32_t count = t.minsup_of_length(len);
    FUZZ_CHECK(len < shape.min_size ? count == shape.ntrans + 1 : count >= 1);
    least = count < least ? count : least;
    FUZZ_CHECK(t.bound_of_length(len) == least);
  }
  // The lookup by support, cached or searched, answers a length of the table.
  for (int32_t s = -1; s < 140; s += 7) {
    const uint32_t len = t.min_length_of_support(s);
    FUZZ_CHECK(len >= 1 && len <= shape.nitems);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch table("table.supp");
  write_file(table, data, size);
  static constexpr Shape kShapes[] = {{100, 8, 1}, {7, 40, 3}, {0, 1, 1}, {3000000000u, 5, 2}};
  for (const Shape& shape : kShapes) check(table, shape);
  return 0;
}
