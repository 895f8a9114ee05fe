#include "engine/prune_tables.h"

#include <cerrno>
#include <new>

namespace quarlo::detail {

namespace {

const char kSrc[] = "np2";

}  // namespace

int alloc_avetbl(PruneTables* t, uint32_t nitems, uint32_t ntrans, Reporter* rep) {
  try {
    t->item_min_length.assign(nitems, 0);
    t->item_cur_support.assign(nitems, 0);
    t->tran_refs.assign(ntrans, TranRef{});
  } catch (const std::bad_alloc&) {
    const size_t bytes = (static_cast<size_t>(nitems) + ntrans) * 8;
    errno = ENOMEM;
    rep->perror("%s(%u) malloc(%u)", kSrc, 42u, static_cast<unsigned>(bytes));
    return 1;
  }
  return 0;
}

}  // namespace quarlo::detail
