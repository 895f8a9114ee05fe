#include "engine/engine.h"

#include <cstdint>

#include "engine/threads.h"

namespace quarlo::detail {

namespace {

const char kSrc[] = "qr";

int fatal(Engine* e, const char* stage, unsigned line) {
  e->rep->printf("%s(%u) Fatal error in %s()", kSrc, line, stage);
  return 1;
}

}  // namespace

int build_support_table(Engine* e, const SupportSpec& spec, uint32_t ntrans) {
  SupportTable& t = e->support;
  const uint32_t n = e->nitems;
  switch (spec.kind) {
    case SupportSpec::kTableFile:
      if (!t.load_file(spec.table_file, ntrans, n, e->min_size, e->rep)) {
        return fatal(e, "init_freq_tbl", 130);
      }
      return 0;
    case SupportSpec::kPercentPairs: {
      LengthCounts pairs;
      for (const auto& [len, pct] : spec.percent_pairs) {
        pairs.emplace_back(len, percent_to_count(pct, ntrans));
      }
      if (!t.set_pairs(pairs, "(table)", ntrans, n, e->min_size, e->rep)) {
        return fatal(e, "init_freq_tbl", 130);
      }
      return 0;
    }
    case SupportSpec::kCountPairs:
      if (!t.set_pairs(spec.count_pairs, "(table)", ntrans, n, e->min_size, e->rep)) {
        return fatal(e, "init_freq_tbl", 130);
      }
      return 0;
    case SupportSpec::kCount:
      t.set_constant(spec.count, ntrans, n, e->min_size);
      return 0;
    case SupportSpec::kPercent:
      break;
  }
  t.set_constant(percent_to_count(spec.percent, ntrans), ntrans, n, e->min_size);
  return 0;
}

namespace {

// Builds the tree of `db` (released here), opens the sink, mines, closes.
int mine_tree(Engine* e, TranBuf* db, int32_t nfreq, const ItemEntry* list, uint32_t ntrans,
              EngineClient* client) {
  e->prune.cur_pattern_length = 1;
  FPTree tree = {};
  const int built = create_fptree(*e, db, nfreq, list, &tree);
  free_buf(&e->pool, db);
  db->data = nullptr;
  if (built != 0) {
    free_fptree(&tree);
    return e->node_block_failed ? 1 : fatal(e, "create_fptree", 169);
  }
  e->sink = client->open_sink(e, ntrans);
  if (e->sink == nullptr) {
    e->rep->printf("%s(%u) Failed to open %s", kSrc, 177u, client->sink_name());
    free_fptree(&tree);
    return 1;
  }
  const int mined = e->threads > 1 ? mine_fptree_parallel(*e, &tree, e->threads)
                                    : mine_fptree(*e, &tree);
  const bool closed = client->close_sink(e, mined == 0);
  e->sink = nullptr;
  if (mined != 0) return e->node_block_failed ? 1 : fatal(e, "mine_fptree", 183);
  return closed ? 0 : 1;
}

// The frequent-item list of `db`, or of the precounted supports.
int list_items(Engine* e, TranBuf* db, const Precounted* pre, int32_t* nfreq, ItemEntry** list) {
  const int32_t floor = static_cast<int32_t>(e->support.lowest_minsup());
  if (pre != nullptr) {
    return list_counted_items(&e->items, pre->supports, floor, e->nitems, nfreq, list, e->rep);
  }
  return create_freqitemlist(&e->items, &e->pool, db, floor, e->nitems, &e->stats, nfreq, list);
}

}  // namespace

int mine_database(Engine* e, TranBuf* db, const SupportSpec& spec, const Precounted* pre,
                  EngineClient* client) {
  const uint32_t nrecords = count_tran(&e->pool, db);
  const uint32_t ntrans = pre != nullptr ? pre->ntrans : nrecords;
  int status = 0;
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  if (alloc_avetbl(&e->prune, e->nitems, nrecords, e->rep) != 0) {
    status = fatal(e, "alloc_avetbl", 120);
  } else if (build_support_table(e, spec, ntrans) != 0) {
    status = 1;
  } else if (list_items(e, db, pre, &nfreq, &list) != 0) {
    status = fatal(e, "create_freqitemlist", 143);
  } else {
    client->counted(*e, ntrans);
    if (nfreq > 0) return mine_tree(e, db, nfreq, list, ntrans, client);
  }
  free_buf(&e->pool, db);
  return status;
}

}  // namespace quarlo::detail
