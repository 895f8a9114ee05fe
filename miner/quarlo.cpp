#include "quarlo.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "LabelTable.h"
#include "lattice.h"
#include "log.h"
#include "maxpat.h"
#include "qr.h"
#include "report.h"
#include "ttoqr.h"
#include "util.h"
#include "vscmdl.h"

namespace {

const char kSrc[] = "quarlo";
const char kRule[] =
    "********************************************************************************";
const char kLengthCountFormat[] = "  Number of Frequent Patterns[Length%5u]      %u";
// Source lines quoted in the reports, fixed so that the logs of every build agree.
constexpr unsigned kLineConvert = 78;
constexpr unsigned kLinePrune = 90;
constexpr unsigned kLineLattice = 106;
constexpr unsigned kLineMine = 127;
constexpr int kLineRemoveQr = 131;
constexpr unsigned kLineBackConvert = 136;
constexpr int kLineRemoveFpConv = 139;
constexpr int kLineRemoveConv = 140;
constexpr unsigned kLineTid = 254;
constexpr unsigned kLineEmptyFile = 259;
constexpr unsigned kLineGroupWrite = 272;

// Elapsed wall-clock seconds of the timed stages; the optional ones stay 0.0.
struct Timings {
  double transform = 0.0;
  double patterns = 0.0;
  double pc_list = 0.0;
  double pruning = 0.0;
};

void print_banner() {
  log_printf("%s", kRule);
  log_printf("quarlo %s - frequent itemsets under a length-decreasing minimum support",
             QUARLO_VERSION);
  log_printf("%s", "");
}

void print_timing(const Timings& t) {
  log_printf("%s", "");
  log_printf("Timing Information -------------------------------------------------------------");
  log_printf("  Input File Transformation:                    %.3f sec", t.transform);
  log_printf("  Generating Frequent Pattern File:             %.3f sec", t.patterns);
  if (want_pc_list() || want_maximal()) {
    log_printf("  Generating PC List File:                      %.3f sec", t.pc_list);
  }
  if (want_maximal()) {
    log_printf("  Pruning Non-Maximal Patterns:                 %.3f sec", t.pruning);
  }
  log_printf("%s", kRule);
}

// The reports below carry the source line of their caller, so that each
// removal and each of the two conversions is told apart in the log.
void remove_file(const char* name, int line) {
  if (unlink(name) != 0) log_perror("%s(%d) unlink(%s)", kSrc, line, name);
}

// The forward and the back conversion fail with the same text, naming the
// pattern files in both cases.
void report_conversion_failure(unsigned line) {
  log_printf("%s(%u) Fatal error in r_convert(%s, %s)", kSrc, line, get_fp_conv_file(),
             get_fp_file());
}

// The engine's side of the program: the input and option blocks once the
// input is counted, and the numbered pattern file as the sink.
class ReportingClient : public EngineClient {
 public:
  void counted(const Engine& e, uint32_t ntrans) override {
    log_printf("Transaction File Information ---------------------------------------------------");
    log_printf("  Transaction File Name:                        %s", get_input_file());
    log_printf("  Number of Input Transactions:                 %u", ntrans);
    log_printf("  Number of Distinct Items:                     %u", e.nitems);
    log_printf("  Average Number of Items In a Tran:            %.3f", e.stats.avg_items);
    log_printf("  Maximum Number of Items In a Tran:            %u", e.stats.max_items);
    log_printf("%s", "");
    print_options();
  }
  PatternSink* open_sink(Engine* e, uint32_t ntrans) override {
    return writer_.open(get_fp_conv_file(), ntrans, e->nitems, e->rep) == 0 ? &writer_ : nullptr;
  }
  bool close_sink(Engine* e, bool complete) override {
    if (!complete) {
      writer_.abandon();
      return false;
    }
    if (writer_.close() == 0) return true;
    // The line's first field is the file's name where other lines name their module.
    e->rep->printf("%s(%u) Failed to close %s", get_fp_conv_file(), 0u, "?");
    return false;
  }
  uint32_t written() const { return writer_.count(); }

 private:
  PatternFileWriter writer_;
};

SupportSpec support_of_options() {
  SupportSpec spec;
  if (get_supp_table_file() != nullptr) {
    spec.kind = SupportSpec::kTableFile;
    spec.table_file = get_supp_table_file();
  } else {
    spec.percent = get_min_support();
  }
  return spec;
}

void print_solution_block(uint32_t npatterns) {
  log_printf("Solution -----------------------------------------------------------------------");
  log_printf("  Frequent Pattern File:                        %s", get_fp_file());
  if (want_pc_list()) {
    log_printf("  PC List File:                                 %s", get_pc_file());
  }
  log_printf("  Number of Frequent Patterns:                  %u", npatterns);
}

// Label numbering, FILE.conv and FILE.qr. Returns 0 or the run's exit status.
int transform_input(LabelTable* labels, uint32_t* nitems, Timings* t, Reporter* rep) {
  labels->add_reserved_token("-1");
  labels->load_labels(get_input_file());
  if (labels->convert(get_input_file(), get_conv_file()) != 0) {
    report_conversion_failure(kLineConvert);
    return kStatusConvert;
  }
  t->transform = -wall_seconds();
  if (ttoqr(get_conv_file(), get_qr_file(), nitems, rep) != 0) return kStatusBinary;
  t->transform += wall_seconds();
  return kStatusOk;
}

// The mining stage, from FILE.qr to FILE.fp_conv. Returns 0 or the exit status.
int mine(uint32_t nitems, Reporter* rep) {
  Engine engine(rep);
  engine.nitems = nitems;
  engine.min_size = get_min_size();
  engine.max_size = get_max_size();
  ReportingClient client;
  if (find_frequent_patterns(&engine, get_qr_file(), support_of_options(), &client) != 0) {
    if (engine.node_block_failed) return kStatusLog;  // the tree builder's own status
    log_printf("%s(%u) Failed to find frequent patterns", kSrc, kLineMine);
    return kStatusConvert;
  }
  print_solution_block(client.written());
  return kStatusOk;
}

// Maximal pruning of FILE.fp_conv through the ids that FILE.pc names as parents.
int prune_unmaximal(Reporter* rep) {
  std::unique_ptr<IdSet> ids;
  if (create_unmaximal_set(&ids, rep) != 0) {
    log_printf("%s(%u) Failed to prune unmaximal patterns", kSrc, kLinePrune);
    return kStatusPrune;
  }
  load_unmaximal_ids(ids.get(), get_pc_file());
  log_printf("  Number of Maximal Frequent Patterns:          %u",
             remove_unmaximal_records(*ids, get_fp_conv_file(), rep));
  if (get_tid_file() != nullptr) remove_unmaximal_records(*ids, get_tid_file(), rep);
  destroy_unmaximal_set(&ids);
  return kStatusOk;
}

// The optional post-processing stages: PC list (-p or -x), maximal pruning (-x).
int post_process(Timings* t, Reporter* rep) {
  if (want_pc_list() || want_maximal()) {
    t->pc_list = -wall_seconds();
    if (generate_lattice(get_fp_conv_file(), get_pc_file(), rep) != 0) {
      log_printf("%s(%u) Failed to generate lattice data", kSrc, kLineLattice);
      return kStatusLattice;
    }
    t->pc_list += wall_seconds();
  }
  if (want_maximal()) {
    t->pruning = -wall_seconds();
    int status = prune_unmaximal(rep);
    if (status != kStatusOk) return status;
    t->pruning += wall_seconds();
  }
  return kStatusOk;
}

// Every stage after the banner; `labels` lives for the whole run.
int run_stages(LabelTable* labels) {
  LogReporter log_reporter;
  Reporter* rep = &log_reporter;
  Timings t;
  uint32_t nitems = 0;
  int status = transform_input(labels, &nitems, &t, rep);
  if (status != kStatusOk) return status;
  t.patterns = -wall_seconds();
  status = mine(nitems, rep);
  if (status != kStatusOk) return status;
  t.patterns += wall_seconds();
  remove_file(get_qr_file(), kLineRemoveQr);
  status = post_process(&t, rep);
  if (status != kStatusOk) return status;
  if (!group_by_length(get_fp_conv_file())) return kStatusConvert;
  if (labels->r_convert(get_fp_conv_file(), get_fp_file(), 3) != 0) {
    report_conversion_failure(kLineBackConvert);
    return kStatusConvert;
  }
  remove_file(get_fp_conv_file(), kLineRemoveFpConv);
  remove_file(get_conv_file(), kLineRemoveConv);
  print_timing(t);
  return kStatusOk;
}

}  // namespace

int run_pipeline() {
  if (log_open("quarlo.log") != 0) return kStatusLog;
  if (want_tid_list()) {
    log_printf("%s(%u) -t is not supported", kSrc, kLineTid);
    return kStatusTidList;
  }
  print_banner();
  if (get_fp_file() == nullptr) {
    log_printf("%s(%u) No file names can be derived from an empty FILE", kSrc, kLineEmptyFile);
    return kStatusConvert;
  }
  LabelTable labels;
  return run_stages(&labels);
}

bool group_by_length(const char* file) {
  std::vector<LengthCount> counts;
  if (!sort_by_length(file, &counts)) {
    log_perror("%s(%u) Failed to write %s", kSrc, kLineGroupWrite, file);
    return false;
  }
  for (const LengthCount& c : counts) log_printf(kLengthCountFormat, c.length, c.count);
  return true;
}
