// Binary transaction files: loaded whole, then walked record by record. The
// loader and the record reader trust the file's structure, since the program
// only ever loads the file its own writer made in the same run; so records are
// read only while the one at the cursor lies wholly inside the loaded words.
#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_files.h"
#include "cli/binary_file.h"
#include "engine/transaction_store.h"
#include "base/report.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch file("db.qr");
  write_file(file, data, size);
  const size_t nwords = size / 4;
  std::vector<int32_t> words(nwords);
  if (nwords > 0) std::memcpy(words.data(), data, nwords * 4);

  CollectingReporter rep;
  TranPool pool;
  pool.rep = &rep;
  TranBuf buf = {};
  // No record of the file holds more items than the file has words.
  FUZZ_CHECK(init_buf_pool(&pool, static_cast<uint32_t>(nwords)).ok());
  FUZZ_CHECK(init_buf(&pool, &buf).ok());
  FUZZ_CHECK(load_trandb(&pool, file.c_str(), &buf).ok());
  FUZZ_CHECK(nwords == 0 || std::memcmp(buf.data, words.data(), nwords * 4) == 0);
  FUZZ_CHECK(buf.data[nwords] == 0);

  buf.position = 0;
  uint32_t total = 0;
  size_t at = 0;
  for (; at < nwords && words[at] != 0; ) {
    const int32_t head = words[at];
    if (head == INT_MIN || (head < 0 && at + 1 >= nwords)) break;
    const size_t first = head > 0 ? at + 1 : at + 2;
    const int64_t n = head > 0 ? head : words[at + 1];
    const int32_t weight = head > 0 ? 1 : -head;
    if (n < 0 || n > static_cast<int64_t>(nwords - first)) break;
    CurTran* tran = nullptr;
    FUZZ_CHECK(read_tran_at(&pool, &buf, &tran, static_cast<uint32_t>(4 * at)) == weight);
    FUZZ_CHECK(read_tran(&pool, &buf, &tran) == weight);
    FUZZ_CHECK(tran == &pool.cur && tran->n == n);
    for (int64_t i = 0; i < n; ++i) {
      FUZZ_CHECK(tran->slot[i].item == static_cast<uint32_t>(words[first + i]));
    }
    at = first + static_cast<size_t>(n);
    FUZZ_CHECK(buf.position == 4 * at);
    total += static_cast<uint32_t>(weight);
  }
  // Every record well formed up to the end word: the weights add up.
  if (at == nwords || words[at] == 0) FUZZ_CHECK(count_tran(&pool, &buf) == total);
  free_buf(&pool, &buf);
  return 0;
}
