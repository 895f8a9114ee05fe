// Parts of a planned run and their results come back from other processes as
// bytes. The input is laid over a valid part, record and result of a small
// run (the first byte picks which, the rest is XORed in from a position the
// second byte gives), so near-valid bytes are explored: mine_part and merge
// must refuse what does not fit with quarlo::Error, never crash, and bytes
// left unchanged must give back the run's own Result.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_files.h"
#include "quarlo/quarlo.h"


namespace {

struct Run {
  quarlo::Plan plan;
  std::vector<std::string> mined;
  size_t rows = 0;
};

const Run& run() {
  static const Run r = [] {
    Run out;
    const auto t = quarlo::Transactions::from_numbers(
        {{1, 2, 3}, {1, 2}, {2, 3, 4}, {1, 3, 4}, {1, 2, 3, 4}, {2, 4}, {5}, {1, 5}});
    quarlo::Options o;
    o.support = quarlo::Support::count_table({{1, 2}, {3, 1}});
    out.plan = quarlo::plan(t, o, 2);
    for (const std::string& part : out.plan.parts) out.mined.push_back(quarlo::mine_part(part));
    out.rows = quarlo::mine(t, o).itemsets.size();
    return out;
  }();
  return r;
}

std::string overlay(std::string bytes, const uint8_t* data, size_t size, size_t at) {
  for (size_t i = 0; i < size && !bytes.empty(); ++i) bytes[(at + i) % bytes.size()] ^= static_cast<char>(data[i]);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const Run& r = run();
  const uint8_t which = data[0] % 3;
  quarlo::Options finish;  // what merge applies: parents and maximal pruning, now and then
  finish.parents = (data[0] / 3) % 2 == 1;
  finish.maximal = (data[0] / 6) % 2 == 1;
  const size_t at = data[1];
  data += 2;
  size -= 2;
  bool changed = false;
  for (size_t i = 0; i < size; ++i) changed = changed || data[i] != 0;
  try {
    std::vector<std::string> mined = r.mined;
    std::string record = r.plan.record;
    if (which == 0) {
      const std::string part = overlay(r.plan.parts[0], data, size, at);
      uint32_t nitems = 0;
      if (part.size() >= 8) std::memcpy(&nitems, part.data() + 4, 4);
      if (nitems > (1u << 16)) return 0;  // a huge item count only costs memory
      mined[0] = quarlo::mine_part(part);
    } else if (which == 1) {
      record = overlay(record, data, size, at);
    } else {
      mined[1] = overlay(mined[1], data, size, at);
    }
    const quarlo::Result result = quarlo::merge(record, mined, finish);
    if (!changed && !finish.maximal) FUZZ_CHECK(result.itemsets.size() == r.rows);
  } catch (const quarlo::Error&) {
    FUZZ_CHECK(changed);
  }
  return 0;
}
