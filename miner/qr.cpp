#include "qr.h"

#include <cstdint>

#include "cfptree.h"
#include "iopttn.h"
#include "log.h"
#include "np2.h"
#include "qrcf1.h"
#include "qrdb.h"
#include "suppfunc.h"
#include "ttoqr.h"
#include "util.h"
#include "vscmdl.h"

namespace {

const char kSrc[] = "qr";

int fatal(const char* stage, unsigned line) {
  log_printf("%s(%u) Fatal error in %s()", kSrc, line, stage);
  return 1;
}

int build_support_table(uint32_t ntrans, uint32_t nitems) {
  const char* table = get_supp_table_file();
  if (table != nullptr) {
    if (init_freq_tbl(table, ntrans, nitems) != 0) return fatal("init_freq_tbl", 130);
    return 0;
  }
  if (init_freq_tbl_with_minsup(get_min_support(), ntrans, nitems) != 0) {
    return fatal("init_freq_tbl_with_minsup", 135);
  }
  return 0;
}

void print_input_block(uint32_t ntrans, uint32_t nitems) {
  log_printf("Transaction File Information ---------------------------------------------------");
  log_printf("  Transaction File Name:                        %s", get_input_file());
  log_printf("  Number of Input Transactions:                 %u", ntrans);
  log_printf("  Number of Distinct Items:                     %u", nitems);
  log_printf("  Average Number of Items In a Tran:            %.3f", tran_avg_items);
  log_printf("  Maximum Number of Items In a Tran:            %u", tran_max_items);
  log_printf("%s", "");
}

void print_solution_block(uint32_t npatterns) {
  log_printf("Solution -----------------------------------------------------------------------");
  log_printf("  Frequent Pattern File:                        %s", get_fp_file());
  if (want_pc_list()) {
    log_printf("  PC List File:                                 %s", get_pc_file());
  }
  log_printf("  Number of Frequent Patterns:                  %u", npatterns);
}

// Steps 10 to 13: tree, pattern file, mining, close. Releases `db` once the
// tree is built.
int mine_database(TranBuf* db, int32_t nfreq, const ItemEntry* list, uint32_t ntrans,
                  uint32_t nitems) {
  cur_pattern_length = 1;
  FPTree tree = {};
  if (create_fptree(db, nfreq, list, &tree, nitems) != 0) return fatal("create_fptree", 169);
  free_buf(db);
  db->data = nullptr;
  if (open_pattern_file(get_fp_conv_file(), ntrans, nitems) != 0) {
    log_printf("%s(%u) Failed to open %s", kSrc, 177u, "?");
    free_fptree(&tree);
    return 1;
  }
  if (mine_fptree(&tree, nitems) != 0) return fatal("mine_fptree", 183);
  if (close_pattern_file() != 0) {
    log_printf("%s(%u) Failed to close %s", get_fp_conv_file(), 0u, "?");
    return 1;
  }
  return 0;
}

// Steps 5 to 13 on the loaded database; `db` is released here unless the
// tree builder consumed it.
int mine_loaded(TranBuf* db, uint32_t nitems) {
  wall_seconds();
  uint32_t ntrans = 0;
  count_tran(db, &ntrans);
  if (alloc_avetbl(nitems, ntrans) != 0) return fatal("alloc_avetbl", 120);
  if (build_support_table(ntrans, nitems) != 0) return 1;
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  if (create_freqitemlist(db, &nfreq, &list, nitems) != 0) {
    return fatal("create_freqitemlist", 143);
  }
  print_input_block(ntrans, nitems);
  print_options();
  if (nfreq <= 0) return 0;
  return mine_database(db, nfreq, list, ntrans, nitems);
}

}  // namespace

int find_frequent_patterns() {
  const uint32_t nitems = item_count;
  const uint32_t written_before = pattern_count();
  tran_max_items = 0;
  tran_avg_items = 0.0;
  if (init_buf_pool(nitems) != 0) return fatal("init_buf_pool", 96);
  TranBuf db = {};
  if (init_buf(&db, nitems) != 0) return fatal("init_buf", 101);
  if (load_trandb(get_qr_file(), &db) != 0) {
    free_buf(&db);
    return fatal("load_trandb", 106);
  }
  const int status = mine_loaded(&db, nitems);
  if (db.data != nullptr) free_buf(&db);
  if (status != 0) return 1;
  wall_seconds();
  print_solution_block(pattern_count() - written_before);
  free_freq_tbl();
  return 0;
}
