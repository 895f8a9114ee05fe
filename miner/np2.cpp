#include "np2.h"

#include <cstdlib>

#include "log.h"

uint32_t* item_min_length = nullptr;
int32_t* item_cur_support = nullptr;
TranRef* tran_refs = nullptr;
uint32_t cur_pattern_length = 1;
uint32_t cur_tran_length = 0;

namespace {

const char kSrc[] = "np2";
void* g_block = nullptr;

}  // namespace

int alloc_avetbl(uint32_t nitems, uint32_t ntrans) {
  const size_t bytes = (static_cast<size_t>(nitems) + ntrans) * 8;
  void* block = malloc(bytes == 0 ? 1 : bytes);
  if (block == nullptr) {
    log_perror("%s(%u) malloc(%u)", kSrc, 42u, static_cast<unsigned>(bytes));
    return 1;
  }
  free(g_block);
  g_block = block;
  item_min_length = static_cast<uint32_t*>(block);
  item_cur_support = reinterpret_cast<int32_t*>(item_min_length + nitems);
  tran_refs = reinterpret_cast<TranRef*>(item_cur_support + nitems);
  return 0;
}
