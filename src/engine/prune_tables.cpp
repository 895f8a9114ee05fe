#include "engine/prune_tables.h"

#include <cerrno>
#include <new>

#include "base/sites.h"

namespace quarlo::detail {

Status alloc_avetbl(PruneTables* t, uint32_t nitems, uint32_t nrecords, Reporter* rep) {
  try {
    t->item_min_length.assign(nitems, 0);
    t->item_cur_support.assign(nitems, 0);
  } catch (const std::bad_alloc&) {
    const size_t bytes = (static_cast<size_t>(nitems) + nrecords) * 8;
    errno = ENOMEM;  // the line names the cause as a failed malloc would
    rep->perror("%s(%u) malloc(%u)", sites::kPruneTables.module, sites::kPruneTables.line,
                static_cast<unsigned>(bytes));
    return Status::out_of_memory();
  }
  return Status();
}

}  // namespace quarlo::detail
