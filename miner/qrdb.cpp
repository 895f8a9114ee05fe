#include "qrdb.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

uint32_t tran_max_items = 0;
double tran_avg_items = 0.0;

namespace {

const char kSrc[] = "qrdb";

// The two reusable blocks and whether each is lent to a buffer.
int32_t* g_pool[2] = {nullptr, nullptr};
bool g_pool_used[2] = {false, false};

CurTran g_cur = {0, nullptr};

// Grows `buf` by one block, keeping its contents; a moved pool block stays the
// pool's. Prints the realloc diagnostic with `line` and returns -1 on failure.
int grow(TranBuf* buf, int line) {
  const uint32_t wanted = buf->capacity + kTranBlockBytes;
  int pool_index = -1;
  for (int i = 0; i < 2; ++i) {
    if (g_pool[i] != nullptr && g_pool[i] == buf->data) pool_index = i;
  }
  void* moved = realloc(buf->data, wanted);
  if (moved == nullptr) {
    fprintf(stderr, "%s(%d) : realloc(%u)\n", kSrc, line, wanted);
    return -1;
  }
  if (pool_index >= 0) g_pool[pool_index] = static_cast<int32_t*>(moved);
  buf->data = static_cast<int32_t*>(moved);
  buf->capacity = wanted;
  return 0;
}

// Unpacks the record whose first word is words[0]; returns its weight and sets
// *used to the number of words it takes (0 at the end word).
int32_t unpack(const int32_t* words, uint32_t* used) {
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
  g_cur.n = n;
  TranSlot* slot = g_cur.slot;
  for (int32_t i = 0; i < n; ++i) {
    slot[i].item = static_cast<uint32_t>(items[i]);
    slot[i].aux = 0;
  }
  *used = static_cast<uint32_t>(items - words) + static_cast<uint32_t>(n);
  return weight;
}

}  // namespace

int init_buf_pool(uint32_t nitems) {
  for (int i = 0; i < 2; ++i) {
    if (g_pool[i] != nullptr) continue;
    g_pool[i] = static_cast<int32_t*>(malloc(kTranBlockBytes));
    if (g_pool[i] == nullptr) {
      perror("malloc");
      fprintf(stderr, "%s(%d) : malloc(%d)\n", kSrc, 28, 2 * kTranBlockBytes);
      return -1;
    }
    g_pool_used[i] = false;
  }
  const size_t bytes = 8 * static_cast<size_t>(nitems) + 4;
  TranSlot* slots = static_cast<TranSlot*>(malloc(bytes));
  if (slots == nullptr) {
    perror("malloc");
    fprintf(stderr, "%s(%d) : malloc(%d)\n", kSrc, 40, static_cast<int>(bytes));
    return -1;
  }
  free(g_cur.slot);
  g_cur.slot = slots;
  g_cur.n = 0;
  return 0;
}

int init_buf(TranBuf* buf, uint32_t /*nitems*/) {
  buf->capacity = kTranBlockBytes;
  buf->data = nullptr;
  for (int i = 0; i < 2 && buf->data == nullptr; ++i) {
    if (g_pool[i] != nullptr && !g_pool_used[i]) {
      buf->data = g_pool[i];
      g_pool_used[i] = true;
    }
  }
  if (buf->data == nullptr) {
    buf->data = static_cast<int32_t*>(malloc(kTranBlockBytes));
    if (buf->data == nullptr) {
      perror("malloc");
      fprintf(stderr, "%s(%d) : malloc(%d)\n", kSrc, 201, kTranBlockBytes);
      return -1;
    }
  }
  buf->position = 0;
  buf->data[0] = 0;
  return 0;
}

void free_buf(TranBuf* buf) {
  for (int i = 0; i < 2; ++i) {
    if (g_pool[i] != nullptr && buf->data == g_pool[i]) {
      g_pool_used[i] = false;
      return;
    }
  }
  free(buf->data);
}

int load_trandb(const char* path, TranBuf* buf) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) {
    perror("open");
    fprintf(stderr, "%s(%d) : open\n", kSrc, 134);
    return -1;
  }
  uint32_t filled = 0;
  for (;;) {
    char* at = reinterpret_cast<char*>(buf->data) + filled;
    ssize_t got = read(fd, at, kTranBlockBytes);
    if (got < 0) {
      perror("read");
      fprintf(stderr, "%s(%d) : read\n", kSrc, 143);
      close(fd);
      return -1;
    }
    if (got == 0) break;
    filled += static_cast<uint32_t>(got);
    if (got == kTranBlockBytes || got + 4 > kTranBlockBytes) {
      if (grow(buf, 163) != 0) {
        close(fd);
        return -1;
      }
    }
    if (got < kTranBlockBytes) break;
  }
  close(fd);
  buf->data[filled / 4] = 0;
  return 0;
}

int insert_tran_to_trandb(TranBuf* buf, const uint32_t* items, uint32_t n, uint32_t w) {
  if (w == 0) return 0;
  const uint32_t head_words = (w == 1) ? 1 : 2;
  const uint64_t bytes = 4 * (uint64_t{n} + head_words);
  // One step per append as a rule; a record longer than a step takes more.
  while (buf->position + bytes >= buf->capacity) {
    if (grow(buf, w == 1 ? 247 : 274) != 0) return -1;
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

int32_t read_tran(TranBuf* buf, CurTran** tran) {
  *tran = &g_cur;
  uint32_t used = 0;
  int32_t weight = unpack(buf->data + buf->position / 4, &used);
  buf->position += 4 * used;
  return weight;
}

int32_t read_tran_at(const TranBuf* buf, CurTran** tran, uint32_t offset) {
  *tran = &g_cur;
  uint32_t used = 0;
  return unpack(buf->data + offset / 4, &used);
}

void count_tran(TranBuf* buf, uint32_t* ntrans) {
  buf->position = 0;
  uint32_t total = 0;
  CurTran* tran = nullptr;
  for (int32_t w; (w = read_tran(buf, &tran)) != 0;) total += static_cast<uint32_t>(w);
  *ntrans = total;
}
