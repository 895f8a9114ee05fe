#include "engine/transaction_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace quarlo::detail {

namespace {

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

}  // namespace

Status malloc_failure(Reporter* rep, const Site& site, size_t bytes) {
  rep->trace_errno("malloc");
  rep->tracef("%s(%u) : malloc(%d)\n", site.module, site.line, static_cast<int>(bytes));
  return Status::out_of_memory();
}

TranPool::~TranPool() {
  free(block[0]);
  free(block[1]);
  free(cur.slot);
}

Status init_buf_pool(TranPool* pool, uint32_t nitems) {
  for (int i = 0; i < 2; ++i) {
    if (pool->block[i] != nullptr) continue;
    pool->block[i] = static_cast<int32_t*>(malloc(kTranBlockBytes));
    if (pool->block[i] == nullptr) {
      return malloc_failure(pool->rep, sites::kPoolBlocks, 2 * kTranBlockBytes);
    }
    pool->used[i] = false;
  }
  const size_t bytes = 8 * static_cast<size_t>(nitems) + 4;
  TranSlot* slots = static_cast<TranSlot*>(malloc(bytes));
  if (slots == nullptr) return malloc_failure(pool->rep, sites::kCurrentTran, bytes);
  free(pool->cur.slot);
  pool->cur.slot = slots;
  pool->cur.n = 0;
  return Status();
}

Status init_buf(TranPool* pool, TranBuf* buf) {
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
    if (buf->data == nullptr) return malloc_failure(pool->rep, sites::kNewBuffer, kTranBlockBytes);
  }
  buf->position = 0;
  buf->data[0] = 0;
  return Status();
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

Status grow_buf(TranPool* pool, TranBuf* buf, const Site& site) {
  const uint32_t wanted = buf->capacity + kTranBlockBytes;
  int pool_index = -1;
  for (int i = 0; i < 2; ++i) {
    if (pool->block[i] != nullptr && pool->block[i] == buf->data) pool_index = i;
  }
  void* moved = realloc(buf->data, wanted);
  if (moved == nullptr) {
    pool->rep->tracef("%s(%u) : realloc(%u)\n", site.module, site.line, wanted);
    return Status::out_of_memory();
  }
  if (pool_index >= 0) pool->block[pool_index] = static_cast<int32_t*>(moved);
  buf->data = static_cast<int32_t*>(moved);
  buf->capacity = wanted;
  return Status();
}

void shrink_buf(TranPool* pool, TranBuf* buf) {
  if (buf->capacity > kTranBlockBytes) {
    void* kept = realloc(buf->data, kTranBlockBytes);
    if (kept != nullptr) {
      for (int i = 0; i < 2; ++i) {
        if (pool->block[i] != nullptr && pool->block[i] == buf->data) {
          pool->block[i] = static_cast<int32_t*>(kept);
        }
      }
      buf->data = static_cast<int32_t*>(kept);
      buf->capacity = kTranBlockBytes;
    }
  }
  buf->position = 0;
  buf->data[0] = 0;
}

Status make_room(TranPool* pool, TranBuf* buf, uint64_t bytes, const Site& site) {
  while (buf->position + bytes >= buf->capacity) {
    Status s = grow_buf(pool, buf, site);
    if (!s.ok()) return s;
  }
  return Status();
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
