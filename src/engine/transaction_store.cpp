#include "engine/transaction_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace quarlo::detail {

namespace {

const char kSrc[] = "qrdb";

// Unpacks the record whose first word is words[0] into `cur`; returns its
// weight and sets *used to the number of words it takes (0 at the end word).
int32_t unpack(const int32_t* words, CurTran* cur, uint32_t* used) {
  int32_t head = words[0];
  if (head == 0) {
    *used = 0;
    return 0;
  }
  int32_t weight = 1;
  int32_t n = head;
  const int32_t* items = words + 1;
  if (head < 0) {
    weight = -head;
    n = words[1];
    items = words + 2;
  }
  cur->n = n;
  TranSlot* slot = cur->slot;
  for (int32_t i = 0; i < n; ++i) {
    slot[i].item = static_cast<uint32_t>(items[i]);
    slot[i].aux = 0;
  }
  *used = static_cast<uint32_t>(items - words) + static_cast<uint32_t>(n);
  return weight;
}

// Traces a failed malloc of `bytes` reported at `line`.
int malloc_failure(Reporter* rep, int line, size_t bytes) {
  rep->trace_errno("malloc");
  rep->tracef("%s(%d) : malloc(%d)\n", kSrc, line, static_cast<int>(bytes));
  return -1;
}

}  // namespace

TranPool::~TranPool() {
  free(block[0]);
  free(block[1]);
  free(cur.slot);
}

int init_buf_pool(TranPool* pool, uint32_t nitems) {
  for (int i = 0; i < 2; ++i) {
    if (pool->block[i] != nullptr) continue;
    pool->block[i] = static_cast<int32_t*>(malloc(kTranBlockBytes));
    if (pool->block[i] == nullptr) return malloc_failure(pool->rep, 28, 2 * kTranBlockBytes);
    pool->used[i] = false;
  }
  const size_t bytes = 8 * static_cast<size_t>(nitems) + 4;
  TranSlot* slots = static_cast<TranSlot*>(malloc(bytes));
  if (slots == nullptr) return malloc_failure(pool->rep, 40, bytes);
  free(pool->cur.slot);
  pool->cur.slot = slots;
  pool->cur.n = 0;
  return 0;
}

int init_buf(TranPool* pool, TranBuf* buf) {
  buf->capacity = kTranBlockBytes;
  buf->data = nullptr;
  for (int i = 0; i < 2 && buf->data == nullptr; ++i) {
    if (pool->block[i] != nullptr && !pool->used[i]) {
      buf->data = pool->block[i];
      pool->used[i] = true;
    }
  }
  if (buf->data == nullptr) {
    buf->data = static_cast<int32_t*>(malloc(kTranBlockBytes));
    if (buf->data == nullptr) return malloc_failure(pool->rep, 201, kTranBlockBytes);
  }
  buf->position = 0;
  buf->data[0] = 0;
  return 0;
}

void free_buf(TranPool* pool, TranBuf* buf) {
  for (int i = 0; i < 2; ++i) {
    if (pool->block[i] != nullptr && buf->data == pool->block[i]) {
      pool->used[i] = false;
      return;
    }
  }
  free(buf->data);
}

int grow_buf(TranPool* pool, TranBuf* buf, int line) {
  const uint32_t wanted = buf->capacity + kTranBlockBytes;
  int pool_index = -1;
  for (int i = 0; i < 2; ++i) {
    if (pool->block[i] != nullptr && pool->block[i] == buf->data) pool_index = i;
  }
  void* moved = realloc(buf->data, wanted);
  if (moved == nullptr) {
    pool->rep->tracef("%s(%d) : realloc(%u)\n", kSrc, line, wanted);
    return -1;
  }
  if (pool_index >= 0) pool->block[pool_index] = static_cast<int32_t*>(moved);
  buf->data = static_cast<int32_t*>(moved);
  buf->capacity = wanted;
  return 0;
}

int insert_tran_to_trandb(TranPool* pool, TranBuf* buf, const uint32_t* items, uint32_t n,
                          uint32_t w) {
  if (w == 0) return 0;
  const uint32_t head_words = (w == 1) ? 1 : 2;
  const uint64_t bytes = 4 * (uint64_t{n} + head_words);
  // One step per append as a rule; a record longer than a step takes more.
  while (buf->position + bytes >= buf->capacity) {
    if (grow_buf(pool, buf, w == 1 ? 247 : 274) != 0) return -1;
  }
  int32_t* out = buf->data + buf->position / 4;
  if (w == 1) {
    *out++ = static_cast<int32_t>(n);
  } else {
    *out++ = -static_cast<int32_t>(w);
    *out++ = static_cast<int32_t>(n);
  }
  memcpy(out, items, 4 * static_cast<size_t>(n));
  out += n;
  *out = 0;
  buf->position += 4 * (n + head_words);
  return 0;
}

int32_t read_tran(TranPool* pool, TranBuf* buf, CurTran** tran) {
  *tran = &pool->cur;
  uint32_t used = 0;
  int32_t weight = unpack(buf->data + buf->position / 4, &pool->cur, &used);
  buf->position += 4 * used;
  return weight;
}

int32_t read_tran_at(TranPool* pool, const TranBuf* buf, CurTran** tran, uint32_t offset) {
  *tran = &pool->cur;
  uint32_t used = 0;
  return unpack(buf->data + offset / 4, &pool->cur, &used);
}

uint32_t count_tran(TranPool* pool, TranBuf* buf) {
  buf->position = 0;
  uint32_t total = 0;
  CurTran* tran = nullptr;
  for (int32_t w; (w = read_tran(pool, buf, &tran)) != 0;) total += static_cast<uint32_t>(w);
  return total;
}

}  // namespace quarlo::detail
