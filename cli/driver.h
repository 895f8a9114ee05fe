// The run pipeline: one mining job from FILE to FILE.fp, stage by stage, with
// the console/log report and the exit status that names the failed stage.
// Reads everything from the option record; owns no process-wide state.
#ifndef QUARLO_CLI_DRIVER_H_
#define QUARLO_CLI_DRIVER_H_

#include "engine/engine.h"

namespace quarlo::cli {

// The program is written against the library's internals.
using namespace quarlo::detail;

// Exit statuses of a run.
enum RunStatus {
  kStatusOk = 0,
  kStatusLog = 1,         // log file cannot be opened (also -h / no FILE)
  kStatusConvert = 2,     // label conversion, mining or back-conversion failed
  kStatusBinary = 4,      // binary transaction file could not be written
  kStatusPrune = 8,       // the set for maximal pruning could not be created
  kStatusLattice = 16,    // the parent-children list could not be generated
  kStatusTidList = 32,    // -t was given
};

// The minimum support the parsed options give (-S file or -s percentage).
SupportSpec support_of_options();

// Runs the whole job after parse(); returns the exit status.
int run_pipeline();

// Groups the numbered pattern file `file` by length and prints one count
// line per length. Returns false after a report when the file could not be
// rewritten whole.
bool group_by_length(const char* file);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_DRIVER_H_
