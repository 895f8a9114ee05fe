// Command line of both miners: fills the process-wide option record `Options`
// (with the derived file names of the run) once, before anything else runs, and
// reads it back through one getter per field. Also prints the usage texts and
// the "Options" block of the run report.
#ifndef QUARLO_CLI_OPTIONS_H_
#define QUARLO_CLI_OPTIONS_H_

#include <cstdint>

namespace quarlo::cli {

// Parses argv. selector 0 picks this program's usage text, non-zero the
// sibling's. Returns with Options filled, or exits with status 1 after printing
// the usage text (-h, or no FILE operand). May be called again (tests): each
// call starts from the defaults.
void parse(int argc, char** argv, int selector);

// Writes the usage text chosen by `selector` to standard output.
void print_usage(int selector);

// Writes the "Options" block of the run report through log_printf.
void print_options();

// Getters. File names are null when FILE was empty or memory was short.
const char* get_input_file();
const char* get_conv_file();     // FILE.conv
const char* get_qr_file();       // FILE.qr
const char* get_tid_file();      // FILE.tid
const char* get_pc_file();       // FILE.pc
const char* get_fp_conv_file();  // FILE.fp_conv
const char* get_fp_file();       // FILE.fp
uint32_t get_min_size();         // -m, default 1
uint32_t get_max_size();         // -M, default 4294967295
double get_min_support();        // -s, percent, default 0.0
const char* get_supp_table_file();  // -S, null when not given
bool want_pc_list();             // -p
bool want_tid_list();            // -t
bool want_maximal();             // -x

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_OPTIONS_H_
