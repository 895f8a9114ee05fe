#include "cli/pattern_file.h"
#include "cli/driver.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <new>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cli/label_files.h"
#include "convert/label_table.h"
#include "cli/pc_list.h"
#include "cli/log.h"
#include "cli/maximal_file.h"
#include "engine/engine.h"
#include "base/report.h"
#include "cli/binary_file.h"
#include "base/io.h"
#include "cli/options.h"

namespace quarlo::cli {

using namespace quarlo::detail;
using namespace quarlo::cli;

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
constexpr unsigned kLineRename = 280;
constexpr unsigned kLineNotRegular = 282;
constexpr unsigned kLineInUse = 284;
constexpr unsigned kLineOutOfMemory = 286;

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

// One line on standard error that names the file a failed stage was about
// and the cause in errno, beside the report line the stage must print.
void explain(const char* file) {
  const int err = errno;
  fflush(stdout);
  fprintf(stderr, "quarlo: %s: %s\n", file, strerror(err));
}

// The names of this run's own files besides those of the option record: the
// temporary names of the outputs and of the rewritten pattern files.
struct RunNames {
  std::string fp_tmp, pc_tmp, fp_conv_tmp, tid_tmp;
  // Every name a run of its own may leave half-made, for the cleanups.
  const char* own[7] = {};

  void set(const std::string& file) {
    fp_tmp = file + ".fp.tmp";
    pc_tmp = file + ".pc.tmp";
    fp_conv_tmp = file + ".fp_conv.tmp";
    tid_tmp = file + ".tid.tmp";
    const char* names[] = {get_conv_file(),     get_qr_file(),  get_fp_conv_file(),
                           fp_conv_tmp.c_str(), fp_tmp.c_str(), pc_tmp.c_str(), tid_tmp.c_str()};
    std::copy(std::begin(names), std::end(names), own);
  }
};
RunNames g_names;

// The stage running now and its exit status, for a failed allocation that
// reaches the driver.
const char* g_stage = "the label conversion";
int g_stage_status = kStatusConvert;

void enter_stage(const char* name, int status) {
  g_stage = name;
  g_stage_status = status;
  progress_stage(name);
}

// The share of the top-level items mined, for the progress line.
class MiningProgress : public ProgressHook {
 public:
  void top_items(uint32_t done, uint32_t total) override { progress_share(done, total); }
};

void report_out_of_memory(const char* stage) {
  log_printf("%s(%u) out of memory in %s", kSrc, kLineOutOfMemory, stage);
}

// FILE must be a regular file that no other run is using: a directory, FIFO,
// socket or device is refused before anything is written, and an advisory
// lock on FILE, held until the process ends, keeps a second run away.
// Returns 0 or the run's exit status.
int check_input() {
  const char* file = get_input_file();
  struct stat st;
  if (stat(file, &st) != 0) return kStatusOk;  // the conversion reports it
  if (!S_ISREG(st.st_mode)) {
    log_printf("%s(%u) %s: %s", kSrc, kLineNotRegular, file,
               S_ISDIR(st.st_mode) ? "is a directory" : "is not a regular file");
    return kStatusConvert;
  }
  const int fd = open(file, O_RDONLY | O_CLOEXEC);
  if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    log_printf("%s(%u) %s is in use by another run", kSrc, kLineInUse, file);
    close(fd);
    return kStatusConvert;
  }
  return kStatusOk;  // the descriptor keeps the lock until the process ends
}

// A run reads only what it wrote itself: the leftovers of a killed or failed
// run under this run's own names go first.
void remove_leftovers() {
  for (const char* name : g_names.own) unlink(name);
}

// Temporary outputs of a failed run: the earlier results stay as they were.
void remove_temporaries() {
  unlink(g_names.fp_tmp.c_str());
  unlink(g_names.pc_tmp.c_str());
}

// On SIGINT, SIGTERM or SIGHUP the run removes its own files and ends with
// 128 + the signal number; the earlier FILE.fp and FILE.pc stay whole.
extern "C" void on_signal(int sig) {
  progress_clear_on_signal();
  for (const char* name : g_names.own) unlink(name);
  _exit(128 + sig);
}

void catch_signals() {
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
}

// Moves a whole output from its temporary name over the earlier result.
// Returns false after a report when it cannot.
bool put_in_place(const char* tmp, const char* file) {
  if (rename(tmp, file) == 0) return true;
  log_perror("%s(%u) rename(%s, %s)", kSrc, kLineRename, tmp, file);
  explain(file);
  return false;
}

// The engine's side of the program: the input and option blocks once the
// input is counted, and the numbered pattern file as the sink.
// What the pattern writer counted, per length (index L - 1): the patterns
// and the bytes of their lines once labelled. Empty when nothing was written.
struct WrittenSections {
  std::vector<uint32_t> counts;
  std::vector<uint64_t> bytes;
};

class ReportingClient : public EngineClient {
 public:
  explicit ReportingClient(const LabelTable& labels) : labels_(labels) {}
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
    if (writer_.open(get_fp_conv_file(), ntrans, e->nitems, e->rep) != 0) return nullptr;
    std::vector<uint32_t> label_bytes(std::min<uint32_t>(e->nitems, labels_.label_count()));
    for (uint32_t i = 0; i < label_bytes.size(); ++i) {
      label_bytes[i] = static_cast<uint32_t>(labels_.label_of(i).size());
    }
    writer_.measure_labels(std::move(label_bytes));
    measured_ = true;
    return &writer_;
  }
  bool close_sink(Engine* e, bool complete) override {
    if (!complete) {
      writer_.abandon();
      return false;
    }
    if (writer_.close() == 0) return true;
    // The line's first field is the file's name where other lines name their module.
    e->rep->printf("%s(%u) Failed to close %s", get_fp_conv_file(), 0u, get_fp_conv_file());
    return false;
  }
  const char* sink_name() const override { return get_fp_conv_file(); }
  uint32_t written() const { return writer_.count(); }
  WrittenSections sections() const {
    if (!measured_) return {};
    return {writer_.counts(), writer_.labelled_bytes()};
  }

 private:
  const LabelTable& labels_;
  PatternFileWriter writer_;
  bool measured_ = false;
};

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
  const int in = open(get_input_file(), O_RDONLY);
  if (in < 0) {
    explain(get_input_file());
    report_conversion_failure(kLineConvert);
    return kStatusConvert;
  }
  close(in);
  labels->add_reserved_token("-1");
  labels->load_labels(get_input_file());
  if (convert_file(labels, get_input_file(), get_conv_file()) != 0) {
    explain(get_conv_file());
    report_conversion_failure(kLineConvert);
    return kStatusConvert;
  }
  enter_stage("the binary transaction file", kStatusBinary);
  t->transform = -wall_seconds();
  if (ttoqr(get_conv_file(), get_qr_file(), nitems, rep) != 0) return kStatusBinary;
  t->transform += wall_seconds();
  return kStatusOk;
}

// Threads that mine, from QUARLO_THREADS: 1 when unset or empty; a value
// that is not a number from 1 to 256 is named on standard error and mining
// goes on with one thread (the output is the same for any count).
uint32_t threads_of_environment() {
  const char* text = getenv("QUARLO_THREADS");
  if (text == nullptr || *text == '\0') return 1;
  char* end = nullptr;
  errno = 0;
  const long n = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || n < 1 || n > 256) {
    fprintf(stderr, "quarlo: QUARLO_THREADS=%s is not a number from 1 to 256; mining on one thread\n",
            text);
    return 1;
  }
  return static_cast<uint32_t>(n);
}

// The mining stage, from FILE.qr to FILE.fp_conv. Returns 0 or the exit status.
int mine(uint32_t nitems, const LabelTable& labels, WrittenSections* written, Reporter* rep) {
  Engine engine(rep);
  engine.nitems = nitems;
  engine.threads = threads_of_environment();
  MiningProgress progress;
  engine.progress = &progress;
  engine.min_size = get_min_size();
  engine.max_size = get_max_size();
  ReportingClient client(labels);
  if (Status s = find_frequent_patterns(&engine, get_qr_file(), support_of_options(), &client); !s.ok()) {
    if (s.code() == Status::Code::kOutOfMemory) report_out_of_memory("mining");
    log_printf("%s(%u) Failed to find frequent patterns", kSrc, kLineMine);
    return kStatusConvert;
  }
  print_solution_block(client.written());
  *written = client.sections();
  return kStatusOk;
}

// Maximal pruning of FILE.fp_conv through the ids that FILE.pc names as parents.
int prune_unmaximal(Reporter* rep) {
  std::unique_ptr<IdSet> ids;
  if (create_unmaximal_set(&ids, rep) != 0) {
    report_out_of_memory("maximal pruning");
    log_printf("%s(%u) Failed to prune unmaximal patterns", kSrc, kLinePrune);
    return kStatusPrune;
  }
  load_unmaximal_ids(ids.get(), get_pc_file());
  uint32_t kept = 0;
  if (remove_unmaximal_records(*ids, get_fp_conv_file(), true, &kept, rep) != 0) {
    log_printf("%s(%u) Failed to prune unmaximal patterns", kSrc, kLinePrune);
    return kStatusPrune;
  }
  log_printf("  Number of Maximal Frequent Patterns:          %u", kept);
  if (get_tid_file() != nullptr) remove_unmaximal_records(*ids, get_tid_file(), false, &kept, rep);
  destroy_unmaximal_set(&ids);
  return kStatusOk;
}

// The optional post-processing stages: PC list (-p or -x), maximal pruning (-x).
int post_process(Timings* t, Reporter* rep) {
  if (want_pc_list() || want_maximal()) {
    enter_stage("the parent-children list", kStatusLattice);
    t->pc_list = -wall_seconds();
    if (generate_lattice(get_fp_conv_file(), g_names.pc_tmp.c_str(), rep) != 0 ||
        !put_in_place(g_names.pc_tmp.c_str(), get_pc_file())) {
      if (errno == ENOMEM) report_out_of_memory("the parent-children list");
      log_printf("%s(%u) Failed to generate lattice data", kSrc, kLineLattice);
      return kStatusLattice;
    }
    t->pc_list += wall_seconds();
  }
  if (want_maximal()) {
    enter_stage("maximal pruning", kStatusPrune);
    t->pruning = -wall_seconds();
    int status = prune_unmaximal(rep);
    if (status != kStatusOk) return status;
    t->pruning += wall_seconds();
  }
  return kStatusOk;
}

void print_length_counts(const std::vector<uint32_t>& counts) {
  for (size_t k = 0; k < counts.size(); ++k) {
    if (counts[k] > 0) log_printf(kLengthCountFormat, static_cast<uint32_t>(k + 1), counts[k]);
  }
}

// Groups the pattern file by length in place, then converts it to labels.
int group_and_convert(const LabelTable& labels) {
  unlink(g_names.fp_tmp.c_str());
  if (!group_by_length(get_fp_conv_file())) return kStatusConvert;
  if (r_convert(labels, get_fp_conv_file(), g_names.fp_tmp.c_str(), 3) != 0) {
    explain(g_names.fp_tmp.c_str());
    report_conversion_failure(kLineBackConvert);
    return kStatusConvert;
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
  enter_stage("mining", kStatusConvert);
  t.patterns = -wall_seconds();
  WrittenSections written;
  status = mine(nitems, *labels, &written, rep);
  if (status != kStatusOk) return status;
  t.patterns += wall_seconds();
  remove_file(get_qr_file(), kLineRemoveQr);
  status = post_process(&t, rep);
  if (status != kStatusOk) return status;
  enter_stage("the back-conversion", kStatusConvert);
  // The pattern file as written (maximal pruning rewrites it) converts and
  // groups in one pass; when that fails, the two passes below run as ever,
  // so they alone decide the report and the files a failure leaves.
  const bool one_pass = !want_maximal() && !written.bytes.empty() &&
      r_convert_sections(*labels, get_fp_conv_file(), g_names.fp_tmp.c_str(), written.bytes) == 0;
  if (one_pass) {
    print_length_counts(written.counts);
  } else {
    status = group_and_convert(*labels);
    if (status != kStatusOk) return status;
  }
  if (!put_in_place(g_names.fp_tmp.c_str(), get_fp_file())) {
    // The pattern file a failed back-conversion leaves is grouped by length.
    std::vector<LengthCount> counts;
    if (one_pass) sort_by_length(get_fp_conv_file(), &counts);
    report_conversion_failure(kLineBackConvert);
    return kStatusConvert;
  }
  remove_file(get_fp_conv_file(), kLineRemoveFpConv);
  remove_file(get_conv_file(), kLineRemoveConv);
  print_timing(t);
  return kStatusOk;
}

}  // namespace

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
  int status = check_input();
  if (status != kStatusOk) return status;
  g_names.set(get_input_file());
  remove_leftovers();
  catch_signals();
  progress_start();
  progress_stage(g_stage);
  try {
    LabelTable labels;
    status = run_stages(&labels);
  } catch (const std::bad_alloc&) {
    report_out_of_memory(g_stage);
    status = g_stage_status;
  }
  progress_clear();
  if (status != kStatusOk) remove_temporaries();
  return status;
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

}  // namespace quarlo::cli
