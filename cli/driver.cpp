#include "cli/driver.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "base/io.h"
#include "base/report.h"
#include "base/sites.h"
#include "cli/binary_file.h"
#include "cli/label_files.h"
#include "cli/labelled_patterns.h"
#include "cli/maximal_file.h"
#include "cli/pattern_file.h"
#include "cli/pc_list.h"

namespace quarlo::cli {

namespace {

const char kRule[] =
    "********************************************************************************";

// What a stage is called in reports and on the progress line, and the exit
// status its failure ends the run with.
struct StageInfo {
  const char* name;
  int status;
};
constexpr StageInfo kStages[] = {
    {"the label conversion", kStatusConvert},
    {"the binary transaction file", kStatusBinary},
    {"mining", kStatusConvert},
    {"the parent-children list", kStatusLattice},
    {"maximal pruning", kStatusPrune},
    {"the back-conversion", kStatusConvert},
};
const StageInfo& info(Driver::Stage stage) { return kStages[static_cast<int>(stage)]; }

// The run a signal handler cleans up after: the one place the program keeps
// a process-wide pointer, because a handler can reach nothing else.
const Driver* g_signalled_run = nullptr;

// On SIGINT, SIGTERM or SIGHUP the run removes its own files and ends with
// 128 + the signal number; the earlier FILE.fp and FILE.pc stay whole.
extern "C" void on_signal(int sig) {
  if (g_signalled_run != nullptr) g_signalled_run->clean_up_on_signal();
  _exit(128 + sig);
}

void catch_signals(const Driver* run) {
  g_signalled_run = run;
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
}

// One line on standard error that names the file a failed stage was about
// and the cause, beside the report line the stage must print.
void explain(const std::string& file, int err) {
  fflush(stdout);
  fprintf(stderr, "quarlo: %s: %s\n", file.c_str(), strerror(err));
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
    fprintf(stderr,
            "quarlo: QUARLO_THREADS=%s is not a number from 1 to 256; mining on one thread\n",
            text);
    return 1;
  }
  return static_cast<uint32_t>(n);
}

// The share of the top-level items mined, for the progress line.
class MiningProgress : public ProgressHook {
 public:
  explicit MiningProgress(Console* console) : console_(console) {}
  void top_items(uint32_t done, uint32_t total) override { console_->progress_share(done, total); }

 private:
  Console* console_;
};

// The engine's side of the program: the input and option blocks once the
// input is counted (unless quiet: a second run over the same input), and the
// pattern sink: the labelled sections when it is given them and they can be
// had, otherwise the numbered pattern file.
class ReportingClient : public EngineClient {
 public:
  ReportingClient(const Options& options, const LabelTable& labels, Console* console,
                  LabelledPatternWriter* labelled, bool quiet)
      : options_(options), labels_(labels), console_(console), labelled_(labelled), quiet_(quiet) {}
  void counted(const Engine& e, uint32_t ntrans) override {
    if (quiet_) return;
    Console& c = *console_;
    c.printf("Transaction File Information ---------------------------------------------------");
    c.printf("  Transaction File Name:                        %s", options_.input_file.c_str());
    c.printf("  Number of Input Transactions:                 %u", ntrans);
    c.printf("  Number of Distinct Items:                     %u", e.setup().nitems);
    c.printf("  Average Number of Items In a Tran:            %.3f", e.stats().avg_items);
    c.printf("  Maximum Number of Items In a Tran:            %u", e.stats().max_items);
    c.printf("%s", "");
    print_options(options_, console_);
  }
  PatternSink* open_sink(Engine* e, uint32_t ntrans) override {
    if (labelled_ != nullptr &&
        labelled_->open(labels_.labels(), ntrans, options_.names.fp)) {
      labelled_open_ = true;
      return labelled_;
    }
    if (!writer_.open(sink_name(), ntrans, e->setup().nitems, e->rep).ok()) return nullptr;
    std::vector<uint32_t> label_bytes(std::min<uint32_t>(e->setup().nitems, labels_.label_count()));
    for (uint32_t i = 0; i < label_bytes.size(); ++i) {
      label_bytes[i] = static_cast<uint32_t>(labels_.label_of(i).size());
    }
    writer_.measure_labels(std::move(label_bytes));
    measured_ = true;
    return &writer_;
  }
  Status close_sink(Engine* e, bool complete) override {
    if (labelled_open_) return Status();
    if (!complete) {
      writer_.abandon();
      return Status();
    }
    Status closed = writer_.close();
    // The line's first field is the file's name where other lines name their module.
    if (!closed.ok()) e->rep->printf("%s(%u) Failed to close %s", sink_name(), 0u, sink_name());
    return closed;
  }
  const char* sink_name() const override { return options_.names.fp_conv.c_str(); }
  // True when the patterns went to the labelled sections.
  bool labelled() const { return labelled_open_; }
  uint32_t written() const {
    return labelled_open_ ? static_cast<uint32_t>(labelled_->count()) : writer_.count();
  }
  void sections(std::vector<uint32_t>* counts, std::vector<uint64_t>* bytes) const {
    if (!measured_) return;
    *counts = writer_.counts();
    *bytes = writer_.labelled_bytes();
  }

 private:
  const Options& options_;
  const LabelTable& labels_;
  Console* console_;
  LabelledPatternWriter* labelled_;
  bool quiet_;
  bool labelled_open_ = false;
  PatternFileWriter writer_;
  bool measured_ = false;
};

}  // namespace

SupportSpec support_of(const Options& options) {
  SupportSpec spec;
  if (options.supp_table_file != nullptr) {
    spec.kind = SupportSpec::kTableFile;
    spec.table_file = options.supp_table_file;
  } else {
    spec.percent = options.min_support;
  }
  return spec;
}

bool Driver::parse(int argc, char** argv) {
  return cli::parse(argc, argv, 0, &options_, &console_);
}

Driver::~Driver() {
  if (g_signalled_run == this) g_signalled_run = nullptr;
}

void Driver::clean_up_on_signal() const {
  console_.progress_clear_on_signal();
  for (const char* name : own_) unlink(name);
}

// The report lines and the exit status of a failed stage, all in one place.
// The modules have reported their own lines where the failure happened; this
// adds the driver's and names the cause on standard error where the stage
// was about a file.
int Driver::fail(Stage stage, const Status& status) {
  const Options& o = options_;
  const bool memory = status.is_out_of_memory();
  if (memory) {
    console_.printf("%s(%u) out of memory in %s", sites::kOutOfMemory.module,
                    sites::kOutOfMemory.line, info(stage).name);
  }
  switch (stage) {
    case Stage::kConvert:
    case Stage::kBackConvert: {
      if (!status.path().empty()) explain(status.path(), status.error_number());
      const Site site = stage == Stage::kConvert ? sites::kConvert : sites::kBackConvert;
      console_.printf("%s(%u) Fatal error in r_convert(%s, %s)", site.module, site.line,
                      o.names.fp_conv.c_str(), o.names.fp.c_str());
      break;
    }
    case Stage::kBinary:
      break;
    case Stage::kMine:
      // A tree builder without node blocks ends the run with its own status.
      if (status.code() == Status::Code::kOutOfTreeNodes) return kStatusLog;
      console_.printf("%s(%u) Failed to find frequent patterns", sites::kMine.module,
                      sites::kMine.line);
      break;
    case Stage::kLattice:
      console_.printf("%s(%u) Failed to generate lattice data", sites::kLattice.module,
                      sites::kLattice.line);
      break;
    case Stage::kPrune:
      console_.printf("%s(%u) Failed to prune unmaximal patterns", sites::kPrune.module,
                      sites::kPrune.line);
      break;
  }
  return info(stage).status;
}

void Driver::enter_stage(Stage stage) {
  stage_ = stage;
  console_.progress_stage(info(stage).name);
}

void Driver::print_banner() {
  console_.printf("%s", kRule);
  console_.printf("quarlo %s - frequent itemsets under a length-decreasing minimum support",
                  QUARLO_VERSION);
  console_.printf("%s", "");
}

void Driver::print_timing() {
  const Timings& t = timings_;
  console_.printf("%s", "");
  console_.printf(
      "Timing Information -------------------------------------------------------------");
  console_.printf("  Input File Transformation:                    %.3f sec", t.transform);
  console_.printf("  Generating Frequent Pattern File:             %.3f sec", t.patterns);
  if (options_.pc_list || options_.maximal) {
    console_.printf("  Generating PC List File:                      %.3f sec", t.pc_list);
  }
  if (options_.maximal) {
    console_.printf("  Pruning Non-Maximal Patterns:                 %.3f sec", t.pruning);
  }
  console_.printf("%s", kRule);
}

// The reports carry the site of their caller, so that each removal is told
// apart in the log.
void Driver::remove_file(const std::string& name, Site site) {
  if (unlink(name.c_str()) != 0) {
    console_.perror("%s(%u) unlink(%s)", site.module, site.line, name.c_str());
  }
}

// FILE must be a regular file that no other run is using: a directory, FIFO,
// socket or device is refused before anything is written, and an advisory
// lock on FILE, held until the process ends, keeps a second run away.
// Returns 0 or the run's exit status.
int Driver::check_input() {
  const char* file = options_.input_file.c_str();
  struct stat st;
  if (stat(file, &st) != 0) return kStatusOk;  // the conversion reports it
  if (!S_ISREG(st.st_mode)) {
    console_.printf("%s(%u) %s: %s", sites::kNotRegular.module, sites::kNotRegular.line, file,
                    S_ISDIR(st.st_mode) ? "is a directory" : "is not a regular file");
    return kStatusConvert;
  }
  const int fd = open(file, O_RDONLY | O_CLOEXEC);
  if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    console_.printf("%s(%u) %s is in use by another run", sites::kInUse.module, sites::kInUse.line,
                    file);
    close(fd);
    return kStatusConvert;
  }
  return kStatusOk;  // the descriptor keeps the lock until the process ends
}

void Driver::set_own_names() {
  const std::string& file = options_.input_file;
  fp_tmp_ = file + ".fp.tmp";
  pc_tmp_ = file + ".pc.tmp";
  fp_conv_tmp_ = file + ".fp_conv.tmp";
  tid_tmp_ = file + ".tid.tmp";
  const FileNames& n = options_.names;
  const char* names[] = {n.conv.c_str(),  n.qr.c_str(),    n.fp_conv.c_str(), fp_conv_tmp_.c_str(),
                         fp_tmp_.c_str(), pc_tmp_.c_str(), tid_tmp_.c_str()};
  std::copy(std::begin(names), std::end(names), own_);
}

// Moves a whole output from its temporary name over the earlier result.
// Returns false after a report when it cannot.
bool Driver::put_in_place(const std::string& tmp, const std::string& file) {
  if (rename(tmp.c_str(), file.c_str()) == 0) return true;
  const int err = errno;
  console_.perror("%s(%u) rename(%s, %s)", sites::kRename.module, sites::kRename.line, tmp.c_str(),
                  file.c_str());
  explain(file, err);
  return false;
}

// Label numbering, FILE.conv and FILE.qr. Returns 0 or the run's exit status.
int Driver::transform_input(LabelTable* labels, uint32_t* nitems) {
  const Options& o = options_;
  const int in = open(o.input_file.c_str(), O_RDONLY);
  if (in < 0) return fail(Stage::kConvert, Status::io(errno, o.input_file));
  close(in);
  labels->add_reserved_token("-1");
  labels->load_labels(o.input_file.c_str());
  Status status = convert_file(labels, o.input_file.c_str(), o.names.conv.c_str());
  if (!status.ok()) return fail(Stage::kConvert, status);
  enter_stage(Stage::kBinary);
  timings_.transform = -wall_seconds();
  LogReporter rep(&console_);
  status = ttoqr(o.names.conv.c_str(), o.names.qr.c_str(), nitems, &rep);
  if (!status.ok()) return fail(Stage::kBinary, status);
  timings_.transform += wall_seconds();
  return kStatusOk;
}

// Mines FILE.qr again into the numbered pattern file, quietly.
Status Driver::mine_numbered(const LabelTable& labels, WrittenSections* written) {
  bool labelled_used = false;
  uint32_t count = 0;
  *written = {};
  return mine_once(labels, nullptr, true, &labelled_used, &count, written);
}

// One mining run over FILE.qr into the labelled sections (when `labelled`
// is given) or FILE.fp_conv. *labelled_used tells which; *count and
// *written get what the sink counted.
Status Driver::mine_once(const LabelTable& labels, LabelledPatternWriter* labelled, bool quiet,
                         bool* labelled_used, uint32_t* count, WrittenSections* written) {
  LogReporter rep(&console_);
  MiningProgress progress(&console_);
  EngineSetup setup;
  setup.nitems = nitems_;
  setup.min_size = options_.min_size;
  setup.max_size = options_.max_size;
  setup.threads = threads_of_environment();
  setup.progress = &progress;
  Engine engine(&rep);
  engine.configure(setup);
  ReportingClient client(options_, labels, &console_, labelled, quiet);
  const Status status =
      find_frequent_patterns(&engine, options_.names.qr.c_str(), support_of(options_), &client);
  *labelled_used = client.labelled();
  *count = client.written();
  client.sections(&written->counts, &written->bytes);
  return status;
}

// The mining stage, from FILE.qr to FILE.fp_conv, or for a run without -p
// and -x straight to FILE.fp's text under its temporary name. When the
// labelled text cannot be kept or written whole, mining runs again into the
// numbered file, which then decides what the run reports and leaves, as if
// it had been the only way. Returns 0 or the exit status.
int Driver::mine(const LabelTable& labels, WrittenSections* written) {
  std::unique_ptr<LabelledPatternWriter> labelled;
  if (!options_.pc_list && !options_.maximal) labelled = std::make_unique<LabelledPatternWriter>();
  bool labelled_used = false;
  uint32_t count = 0;
  Status status = mine_once(labels, labelled.get(), false, &labelled_used, &count, written);
  if (status.ok() && labelled_used) {
    if (!labelled->failed() && labelled->write_to(fp_tmp_).ok()) {
      sections_ = labelled->counts();
      sections_written_ = true;
    } else {
      unlink(fp_tmp_.c_str());
      labelled.reset();
      *written = {};
      status = mine_once(labels, nullptr, true, &labelled_used, &count, written);
    }
  }
  labelled.reset();
  if (!status.ok()) return fail(Stage::kMine, status);
  console_.printf(
      "Solution -----------------------------------------------------------------------");
  console_.printf("  Frequent Pattern File:                        %s", options_.names.fp.c_str());
  if (options_.pc_list) {
    console_.printf("  PC List File:                                 %s",
                    options_.names.pc.c_str());
  }
  console_.printf("  Number of Frequent Patterns:                  %u", count);
  return kStatusOk;
}

// Maximal pruning of FILE.fp_conv through the ids that FILE.pc names as parents.
int Driver::prune_unmaximal() {
  LogReporter rep(&console_);
  std::unique_ptr<IdSet> ids;
  Status status = create_unmaximal_set(&ids, &rep);
  if (!status.ok()) return fail(Stage::kPrune, status);
  load_unmaximal_ids(ids.get(), options_.names.pc.c_str());
  uint32_t kept = 0;
  status = remove_unmaximal_records(*ids, options_.names.fp_conv.c_str(), true, &kept, &rep);
  if (!status.ok()) return fail(Stage::kPrune, status);
  console_.printf("  Number of Maximal Frequent Patterns:          %u", kept);
  if (!options_.names.tid.empty()) {
    // FILE.tid is left empty by every such run; a failure is reported, not fatal.
    (void)remove_unmaximal_records(*ids, options_.names.tid.c_str(), false, &kept, &rep);
  }
  return kStatusOk;
}

// The optional post-processing stages: PC list (-p or -x), maximal pruning (-x).
int Driver::post_process() {
  if (options_.pc_list || options_.maximal) {
    enter_stage(Stage::kLattice);
    timings_.pc_list = -wall_seconds();
    LogReporter rep(&console_);
    Status status = generate_lattice(options_.names.fp_conv.c_str(), pc_tmp_.c_str(), &rep);
    if (status.ok() && !put_in_place(pc_tmp_, options_.names.pc)) {
      status = Status::io(errno, options_.names.pc);
    }
    if (!status.ok()) return fail(Stage::kLattice, status);
    timings_.pc_list += wall_seconds();
  }
  if (options_.maximal) {
    enter_stage(Stage::kPrune);
    timings_.pruning = -wall_seconds();
    const int status = prune_unmaximal();
    if (status != kStatusOk) return status;
    timings_.pruning += wall_seconds();
  }
  return kStatusOk;
}

// FILE.fp from the labelled text mining wrote: moved into place. Where that
// fails, the numbered pattern file is made after all (mining again, a slow
// path only a failure takes) and left grouped by length, as the numbered
// path leaves it; FILE.qr stays until then. Returns 0 or the exit status;
// *numbered tells whether FILE.fp_conv was made.
int Driver::place_sections(const LabelTable& labels, WrittenSections* written, bool* numbered) {
  print_length_counts(sections_, &console_);
  const bool placed = put_in_place(fp_tmp_, options_.names.fp);
  if (!placed) {
    *numbered = true;
    // A failure in mining leaves FILE.qr, as it does on the numbered path.
    if (Status again = mine_numbered(labels, written); !again.ok())
      return fail(Stage::kMine, again);
  }
  remove_file(options_.names.qr, sites::kRemoveQr);
  if (placed) return kStatusOk;
  std::vector<LengthCount> by_length;
  sort_by_length(options_.names.fp_conv.c_str(), &by_length);
  return fail(Stage::kBackConvert, Status());
}

// FILE.fp from FILE.fp_conv: grouped by length and in the user's labels.
int Driver::back_convert(const LabelTable& labels, const WrittenSections& written) {
  const FileNames& n = options_.names;
  enter_stage(Stage::kBackConvert);
  // The pattern file as written (maximal pruning rewrites it) converts and
  // groups in one pass; when that fails, the two passes below run as ever,
  // so they alone decide the report and the files a failure leaves.
  const bool one_pass =
      !options_.maximal && !written.bytes.empty() &&
      r_convert_sections(labels, n.fp_conv.c_str(), fp_tmp_.c_str(), written.bytes).ok();
  if (one_pass) {
    print_length_counts(written.counts, &console_);
  } else {
    unlink(fp_tmp_.c_str());
    // The grouping reports its own failure; the stage ends as a back-conversion.
    if (!group_by_length(n.fp_conv.c_str(), &console_)) return info(Stage::kBackConvert).status;
    const Status status = r_convert(labels, n.fp_conv.c_str(), fp_tmp_.c_str(), 3);
    if (!status.ok()) return fail(Stage::kBackConvert, status);
  }
  if (!put_in_place(fp_tmp_, n.fp)) {
    // The pattern file a failed back-conversion leaves is grouped by length.
    std::vector<LengthCount> counts;
    if (one_pass) sort_by_length(n.fp_conv.c_str(), &counts);
    return fail(Stage::kBackConvert, Status());
  }
  return kStatusOk;
}

// The output stages after mining: FILE.pc and maximal pruning when asked
// for, then FILE.fp. Returns 0 or the exit status; *numbered tells whether
// FILE.fp_conv was made.
int Driver::write_outputs(const LabelTable& labels, WrittenSections* written, bool* numbered) {
  if (sections_written_) {
    enter_stage(Stage::kBackConvert);
    return place_sections(labels, written, numbered);
  }
  *numbered = true;
  remove_file(options_.names.qr, sites::kRemoveQr);
  const int status = post_process();
  if (status != kStatusOk) return status;
  return back_convert(labels, *written);
}

// Every stage after the banner; `labels` lives for the whole run.
int Driver::run_stages(LabelTable* labels) {
  int status = transform_input(labels, &nitems_);
  if (status != kStatusOk) return status;
  enter_stage(Stage::kMine);
  timings_.patterns = -wall_seconds();
  WrittenSections written;
  status = mine(*labels, &written);
  if (status != kStatusOk) return status;
  timings_.patterns += wall_seconds();
  bool numbered = false;
  status = write_outputs(*labels, &written, &numbered);
  if (status != kStatusOk) return status;
  if (numbered) remove_file(options_.names.fp_conv, sites::kRemoveFpConv);
  remove_file(options_.names.conv, sites::kRemoveConv);
  print_timing();
  return kStatusOk;
}

int Driver::run() {
  if (!console_.open_log("quarlo.log")) return kStatusLog;
  if (options_.tid_list) {
    console_.printf("%s(%u) -t is not supported", sites::kTid.module, sites::kTid.line);
    return kStatusTidList;
  }
  print_banner();
  if (options_.names.fp.empty()) {
    console_.printf("%s(%u) No file names can be derived from an empty FILE",
                    sites::kEmptyFile.module, sites::kEmptyFile.line);
    return kStatusConvert;
  }
  int status = check_input();
  if (status != kStatusOk) return status;
  set_own_names();
  // A run reads only what it wrote itself: the leftovers of a killed or
  // failed run under this run's own names go first.
  for (const char* name : own_) unlink(name);
  catch_signals(this);
  console_.progress_start();
  console_.progress_stage(info(stage_).name);
  try {
    LabelTable labels;
    status = run_stages(&labels);
  } catch (const std::bad_alloc&) {
    console_.printf("%s(%u) out of memory in %s", sites::kOutOfMemory.module,
                    sites::kOutOfMemory.line, info(stage_).name);
    status = info(stage_).status;
  }
  console_.progress_clear();
  if (status != kStatusOk) {
    // Temporary outputs of a failed run: the earlier results stay as they were.
    unlink(fp_tmp_.c_str());
    unlink(pc_tmp_.c_str());
  }
  return status;
}

}  // namespace quarlo::cli
