#include "quarlo.h"

#include <cstdio>

#include "log.h"
#include "vscmdl.h"

namespace {

const char kSrc[] = "quarlo";
const char kRule[] =
    "********************************************************************************";

}  // namespace

int run_pipeline() {
  if (log_open("quarlo.log") != 0) return kStatusLog;
  if (want_tid_list()) {
    log_printf("%s(%u) -t is not supported", kSrc, __LINE__);
    return kStatusTidList;
  }
  log_printf("%s", kRule);
  log_printf("quarlo %s: frequent itemsets under a length-decreasing support constraint",
             QUARLO_VERSION);
  log_printf("%s", "");
  print_options();
  return kStatusOk;
}

void sort_by_length(const char*, const char*) {}
