// Command line of both miners: parse() fills one option record, with the
// derived file names of the run, before anything else runs; it also prints
// the usage texts and the "Options" block of the run report. No state: the
// driver owns the record.
#ifndef QUARLO_CLI_OPTIONS_H_
#define QUARLO_CLI_OPTIONS_H_

#include <cstdint>
#include <string>

namespace quarlo::cli {

class Console;

// The names derived from FILE; all empty when FILE is empty.
struct FileNames {
  std::string conv;     // FILE.conv: items as dense numbers
  std::string qr;       // FILE.qr: binary transactions
  std::string tid;      // FILE.tid: TID list (left empty by -x runs)
  std::string pc;       // FILE.pc: parent-children list
  std::string fp_conv;  // FILE.fp_conv: patterns in item numbers
  std::string fp;       // FILE.fp: patterns in the user's labels

  void derive(const std::string& file);
};

struct Options {
  std::string input_file;  // the FILE operand itself
  FileNames names;
  uint32_t min_size = 1;                  // -m
  uint32_t max_size = 4294967295u;        // -M
  double min_support = 0.0;               // -s, percent
  const char* supp_table_file = nullptr;  // -S (in argv), null when not given
  bool pc_list = false;                   // -p
  bool tid_list = false;                  // -t
  bool maximal = false;                   // -x
};

// Parses argv into *options (defaults first, so it may run again). selector 0
// picks this program's usage text, non-zero the sibling's. Returns false
// after printing the usage text (-h, or no FILE operand): the run then ends
// with status 1. An option getopt cannot place is reported on `console`.
bool parse(int argc, char** argv, int selector, Options* options, Console* console);

// Writes the usage text chosen by `selector` to standard output.
void print_usage(int selector);

// Writes the "Options" block of the run report.
void print_options(const Options& options, Console* console);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_OPTIONS_H_
