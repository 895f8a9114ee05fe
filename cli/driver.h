// The run pipeline: one mining job from FILE to FILE.fp, stage by stage, with
// the console/log report and the exit status that names the failed stage.
// A Driver owns everything the program keeps for a run (the option record
// and file names, the console and log, the stage running, the temporary
// names); main builds one.
#ifndef QUARLO_CLI_DRIVER_H_
#define QUARLO_CLI_DRIVER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/sites.h"
#include "base/status.h"
#include "cli/labelled_patterns.h"
#include "cli/log.h"
#include "cli/options.h"
#include "convert/label_table.h"
#include "engine/engine.h"

namespace quarlo::cli {

// The program is written against the library's internals.
using namespace quarlo::detail;

// Exit statuses of a run.
enum RunStatus {
  kStatusOk = 0,
  kStatusLog = 1,       // log file cannot be opened (also -h / no FILE)
  kStatusConvert = 2,   // label conversion, mining or back-conversion failed
  kStatusBinary = 4,    // binary transaction file could not be written
  kStatusPrune = 8,     // the set for maximal pruning could not be created
  kStatusLattice = 16,  // the parent-children list could not be generated
  kStatusTidList = 32,  // -t was given
};

// The minimum support the options give (-S file or -s percentage).
SupportSpec support_of(const Options& options);

class Driver {
 public:
  // The stages a run goes through, in order.
  enum class Stage { kConvert, kBinary, kMine, kLattice, kPrune, kBackConvert };

  Driver() = default;
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // Parses argv. False after the usage text was printed: the run ends with
  // status 1.
  bool parse(int argc, char** argv);

  // Runs the whole job after parse(); returns the exit status.
  int run();

  // For a signal handler: removes the run's own files (async-signal-safe).
  void clean_up_on_signal() const;

 private:
  // Elapsed wall-clock seconds of the timed stages; the optional ones stay 0.0.
  struct Timings {
    double transform = 0.0;
    double patterns = 0.0;
    double pc_list = 0.0;
    double pruning = 0.0;
  };
  // What the pattern writer counted, per length (index L - 1): the patterns
  // and the bytes of their lines once labelled. Empty when nothing was written.
  struct WrittenSections {
    std::vector<uint32_t> counts;
    std::vector<uint64_t> bytes;
  };

  int check_input();
  void set_own_names();
  void enter_stage(Stage stage);
  int fail(Stage stage, const Status& status);
  int run_stages(LabelTable* labels);
  int transform_input(LabelTable* labels, uint32_t* nitems);
  Status mine_once(const LabelTable& labels, LabelledPatternWriter* labelled, bool quiet,
                   bool* labelled_used, uint32_t* count, WrittenSections* written);
  Status mine_numbered(const LabelTable& labels, WrittenSections* written);
  int mine(const LabelTable& labels, WrittenSections* written);
  int write_outputs(const LabelTable& labels, WrittenSections* written, bool* numbered);
  int place_sections(const LabelTable& labels, WrittenSections* written, bool* numbered);
  int post_process();
  int prune_unmaximal();
  int back_convert(const LabelTable& labels, const WrittenSections& written);
  bool put_in_place(const std::string& tmp, const std::string& file);
  void remove_file(const std::string& name, Site site);
  void print_banner();
  void print_timing();

  Options options_;
  Console console_;
  Stage stage_ = Stage::kConvert;
  Timings timings_;
  uint32_t nitems_ = 0;  // distinct items of the input
  // Set when mining wrote FILE.fp's text under its temporary name (a run
  // without -p and -x); its patterns per length (index L - 1).
  bool sections_written_ = false;
  std::vector<uint32_t> sections_;
  // Temporary names of the outputs and of the rewritten pattern files, and
  // every name a run of its own may leave half-made, for the cleanups.
  std::string fp_tmp_, pc_tmp_, fp_conv_tmp_, tid_tmp_;
  const char* own_[7] = {};
};

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_DRIVER_H_
