#include "engine/engine.h"

#include <cerrno>
#include <cstdint>

#include "engine/engine_tables.h"
#include "engine/threads.h"

namespace quarlo::detail {

Engine::Engine(Reporter* r) : rep(r), tables_(std::make_unique<EngineTables>()) {
  tables_->pool.rep = r;
}
Engine::~Engine() = default;
TranPool& Engine::pool() { return tables_->pool; }
const InputStats& Engine::stats() const { return tables_->stats; }
const MiningCounters& Engine::counters() const { return tables_->counters; }
uint32_t Engine::lowest_count() const { return tables_->support.lowest_minsup(); }

namespace {

// Reports "module(line) Fatal error in stage()" and passes `s` on; a tree
// builder that had no node block has said all there is to say.
Status fatal(Engine* e, const Site& site, const char* stage, Status s) {
  if (s.code() != Status::Code::kOutOfTreeNodes) {
    e->rep->printf("%s(%u) Fatal error in %s()", site.module, site.line, stage);
  }
  return s;
}

Status table_failure(Engine* e, Status s) {
  return fatal(e, sites::kEngineSupportTable, "init_freq_tbl", std::move(s));
}

}  // namespace

Status build_support_table(Engine* e, const SupportSpec& spec, uint32_t ntrans) {
  SupportTable& t = tables(*e).support;
  const uint32_t n = e->setup().nitems;
  switch (spec.kind) {
    case SupportSpec::kTableFile:
      if (Status s = t.load_file(spec.table_file.c_str(), ntrans, n, e->setup().min_size, e->rep);
          !s.ok()) {
        return table_failure(e, std::move(s));
      }
      return Status();
    case SupportSpec::kPercentPairs: {
      LengthCounts pairs;
      for (const auto& [len, pct] : spec.percent_pairs) {
        pairs.emplace_back(len, percent_to_count(pct, ntrans));
      }
      if (Status s = t.set_pairs(pairs, "(table)", ntrans, n, e->setup().min_size, e->rep);
          !s.ok()) {
        return table_failure(e, std::move(s));
      }
      return Status();
    }
    case SupportSpec::kCountPairs:
      if (Status s =
              t.set_pairs(spec.count_pairs, "(table)", ntrans, n, e->setup().min_size, e->rep);
          !s.ok()) {
        return table_failure(e, std::move(s));
      }
      return Status();
    case SupportSpec::kCount:
      t.set_constant(spec.count, ntrans, n, e->setup().min_size);
      return Status();
    case SupportSpec::kPercent:
      break;
  }
  t.set_constant(percent_to_count(spec.percent, ntrans), ntrans, n, e->setup().min_size);
  return Status();
}

Status prepare_scratch(Engine* e) {
  if (Status s = init_buf_pool(&tables(*e).pool, e->setup().nitems); !s.ok()) return s;
  if (Status s = alloc_avetbl(&tables(*e).prune, e->setup().nitems, 0, e->rep); !s.ok()) return s;
  return make_pattern_scratch(*e);
}

namespace {

// Opens the sink, mines `tree` (consumed) into it and closes it.
Status mine_into_sink(Engine* e, FPTree* tree, uint32_t ntrans, EngineClient* client) {
  tables(*e).sink = client->open_sink(e, ntrans);
  if (tables(*e).sink == nullptr) {
    const int error = errno;
    e->rep->printf("%s(%u) Failed to open %s", sites::kEngineSink.module, sites::kEngineSink.line,
                   client->sink_name());
    free_fptree(tree);
    return Status::io(error, client->sink_name());
  }
  const uint32_t threads = e->setup().threads;
  Status mined = threads > 1 ? mine_fptree_parallel(*e, tree, threads) : mine_fptree(*e, tree);
  Status closed = client->close_sink(e, mined.ok());
  tables(*e).sink = nullptr;
  if (!mined.ok()) return fatal(e, sites::kEngineMine, "mine_fptree", std::move(mined));
  return closed;
}

// Builds the tree of `db` (released here), opens the sink, mines, closes.
Status mine_tree(Engine* e, TranBuf* db, int32_t nfreq, const ItemEntry* list, uint32_t ntrans,
                 EngineClient* client) {
  tables(*e).prune.cur_pattern_length = 1;
  FPTree tree = {};
  Status built = create_fptree(*e, db, nfreq, list, &tree);
  free_buf(&tables(*e).pool, db);
  db->data = nullptr;
  if (!built.ok()) {
    free_fptree(&tree);
    return fatal(e, sites::kEngineTree, "create_fptree", std::move(built));
  }
  return mine_into_sink(e, &tree, ntrans, client);
}

// The frequent-item list of `db`, or of the precounted supports.
Status list_items(Engine* e, TranBuf* db, const Precounted* pre, int32_t* nfreq, ItemEntry** list) {
  const int32_t floor = static_cast<int32_t>(tables(*e).support.lowest_minsup());
  if (pre != nullptr) {
    return list_counted_items(&tables(*e).items, pre->supports, floor, e->setup().nitems, nfreq,
                              list, e->rep);
  }
  return create_freqitemlist(&tables(*e).items, &tables(*e).pool, db, floor, e->setup().nitems,
                             &tables(*e).stats, nfreq, list);
}

// Sizes the pruning tables (for a database of `nrecords` records), builds
// the support table for `ntrans` transactions and lists the frequent items.
Status count_items(Engine* e, TranBuf* db, const SupportSpec& spec, const Precounted* pre,
                   uint32_t nrecords, uint32_t ntrans, int32_t* nfreq, ItemEntry** list) {
  if (Status s = alloc_avetbl(&tables(*e).prune, e->setup().nitems, nrecords, e->rep); !s.ok()) {
    return fatal(e, sites::kEnginePruneTables, "alloc_avetbl", std::move(s));
  }
  if (Status s = build_support_table(e, spec, ntrans); !s.ok()) return s;
  if (Status s = list_items(e, db, pre, nfreq, list); !s.ok()) {
    return fatal(e, sites::kEngineItems, "create_freqitemlist", std::move(s));
  }
  return Status();
}

}  // namespace

Status mine_database(Engine* e, TranBuf* db, const SupportSpec& spec, const Precounted* pre,
                     EngineClient* client) {
  const uint32_t nrecords = count_tran(&tables(*e).pool, db);
  const uint32_t ntrans = pre != nullptr ? pre->ntrans : nrecords;
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  Status s = count_items(e, db, spec, pre, nrecords, ntrans, &nfreq, &list);
  if (s.ok()) {
    client->counted(*e, ntrans);
    if (nfreq > 0) return mine_tree(e, db, nfreq, list, ntrans, client);
  }
  free_buf(&tables(*e).pool, db);
  return s;
}

}  // namespace quarlo::detail
