// Transaction store of the mining engine: growable buffers of encoded records
// (plain "n items", weighted "-w n items", end word 0), the readers that unpack
// one record into the run's current transaction, and two reusable 1 MiB
// blocks. A TranPool holds one run's blocks, current transaction and reporter.
#ifndef QUARLO_ENGINE_TRANSACTION_STORE_H_
#define QUARLO_ENGINE_TRANSACTION_STORE_H_

#include <cstdint>
#include <cstring>

#include "base/report.h"
#include "base/sites.h"
#include "base/status.h"

namespace quarlo::detail {

// Size of a pool block, of a buffer's first block and of every growth step.
constexpr uint32_t kTranBlockBytes = 1048576;

// A database of encoded records followed by one end word 0.
struct TranBuf {
  uint32_t capacity;  // bytes allocated for data
  uint32_t position;  // byte offset: write end while appending, read cursor while reading
  int32_t* data;
};

// One item of the current transaction; `aux` is scratch for the tree builder.
struct TranSlot {
  uint32_t item;
  uint32_t aux;
};

// The unpacked current transaction: n items in slot[0 .. n-1].
struct CurTran {
  int32_t n;
  TranSlot* slot;  // room for as many items as there are distinct items
};

// The two reusable blocks of a run, whether each is lent to a buffer, and the
// current transaction every reader unpacks into. Frees all of it on destruction.
struct TranPool {
  TranPool() = default;
  TranPool(const TranPool&) = delete;
  TranPool& operator=(const TranPool&) = delete;
  ~TranPool();

  int32_t* block[2] = {nullptr, nullptr};
  bool used[2] = {false, false};
  CurTran cur = {0, nullptr};
  Reporter* rep = nullptr;  // where allocation failures are traced
};

// Traces a failed malloc of `bytes` at `site` ("malloc: <errno text>", then
// "module(line) : malloc(bytes)") and returns the out-of-memory status.
Status malloc_failure(Reporter* rep, const Site& site, size_t bytes);

// Allocates the two pool blocks (once) and the current transaction for
// `nitems` items. Out of memory after a trace.
Status init_buf_pool(TranPool* pool, uint32_t nitems);

// Gives `buf` a free pool block, or a new 1 MiB block when both are lent out.
// Afterwards capacity is 1048576, position 0 and the first word 0.
// Out of memory after a trace.
Status init_buf(TranPool* pool, TranBuf* buf);

// Returns a pool block to the pool, or releases a block that is not the pool's.
void free_buf(TranPool* pool, TranBuf* buf);

// Empties `buf` and, when it has grown beyond one block, gives the rest
// back (the buffer keeps its first block; a pool block stays the pool's).
void shrink_buf(TranPool* pool, TranBuf* buf);

// Grows `buf` by one block, keeping its contents; a moved pool block stays
// the pool's. Out of memory after tracing the realloc at `site`.
Status grow_buf(TranPool* pool, TranBuf* buf, const Site& site);

// Grows `buf` until a record of `bytes` bytes and the end word fit behind its
// write end (one step per append as a rule; a longer record takes more).
Status make_room(TranPool* pool, TranBuf* buf, uint64_t bytes, const Site& site);

// Appends one record of `n` items with weight `w` at the write end (nothing
// for w == 0) and keeps the buffer terminated. Out of memory after a trace
// when the buffer cannot grow. Inline: collecting conditional databases calls
// it once per node, and on success the status costs nothing.
inline Status insert_tran_to_trandb(TranPool* pool, TranBuf* buf, const uint32_t* items, uint32_t n,
                                    uint32_t w) {
  if (w == 0) return Status();
  const uint32_t head_words = (w == 1) ? 1 : 2;
  const uint64_t bytes = 4 * (uint64_t{n} + head_words);
  if (buf->position + bytes >= buf->capacity) {
    Status s = make_room(pool, buf, bytes, w == 1 ? sites::kGrowPlain : sites::kGrowWeighted);
    if (!s.ok()) return s;
  }
  int32_t* out = buf->data + buf->position / 4;
  if (w == 1) {
    *out++ = static_cast<int32_t>(n);
  } else {
    *out++ = -static_cast<int32_t>(w);
    *out++ = static_cast<int32_t>(n);
  }
  memcpy(out, items, 4 * static_cast<size_t>(n));
  out[n] = 0;
  buf->position += 4 * (n + head_words);
  return Status();
}

// Unpacks the record at the read cursor into the current transaction, points
// *tran at it and moves the cursor past it. Returns the weight, or 0 at the
// end word (cursor unchanged).
int32_t read_tran(TranPool* pool, TranBuf* buf, CurTran** tran);

// As read_tran for the record at byte `offset`; the cursor is not moved.
int32_t read_tran_at(TranPool* pool, const TranBuf* buf, CurTran** tran, uint32_t offset);

// Rewinds `buf` and returns the sum of the weights of all its records.
uint32_t count_tran(TranPool* pool, TranBuf* buf);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_TRANSACTION_STORE_H_
