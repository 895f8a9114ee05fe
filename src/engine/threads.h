// Mining of a run's top items on several threads. The run's thread walks the
// top level and queues each item's conditional database; workers, each with an
// Engine of its own, mine them into per-item buffers that the run's thread hands
// to the run's sink in item order, so the output is that of one thread.
#ifndef QUARLO_ENGINE_THREADS_H_
#define QUARLO_ENGINE_THREADS_H_

#include <cstdint>

#include "engine/engine.h"

namespace quarlo::detail {

// Mines `tree` (the tree of the whole database, consumed) into e's sink as
// mine_fptree does, with `threads` workers for the items below the top level.
// The patterns, their order and e's counters come out as with one thread.
// A failure after a report or trace.
Status mine_fptree_parallel(Engine& e, FPTree* tree, uint32_t threads);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_THREADS_H_
