#include "cli/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "cli/log.h"
#include "base/io.h"

namespace quarlo::cli {

using namespace quarlo::detail;

namespace {

const char kSrc[] = "../vscom/vscmdl";

// The usage texts are printed as they stand; their wording is part of the
// product. Both programs' texts are made of these pieces, in the order of the
// part lists below.
const char kHeadQuarlo[] =
    "Usage: quarlo [OPTIONS] FILE\n"
    "\n"
    " Required parameters\n"
    "\n";
const char kHeadVorsel[] =
    "Usage: vorsel [OPTIONS] FILE\n"
    "\n"
    " Required parameters\n"
    "\n";
const char kFileQuarlo[] =
    "    FILE    The name of a transaction file from which frequent patterns are to\n"
    "            be found.\n";
const char kFileVorsel[] =
    "    FILE    The name of a sequential transaction file from which frequent\n"
    "            patterns are be found.\n";
const char kOptionalHeader[] =
    "\n"
    " Optional parameters\n";
const char kBufferAndDir[] =
    "  -b, --bufsize=NUMBER\n"
    "    The size of internal buffer in mega bytes. 50MB by default.\n"
    "\n"
    "  -d, --dir=DIR\n"
    "    Use DIR as the directory where temporary files are written. Default is \n"
    "    the directory where FILE resides.\n"
    "\n";
const char kCommonOptions[] =
    "  -h, --help\n"
    "    Show this message.\n"
    "\n"
    "  -m, --minsize=NUMBER\n"
    "    Use NUMBER as the minimum size of frequent pattern to be output.\n"
    "\n"
    "  -M, --maxsize=NUMBER\n"
    "    Use NUMBER as the maximum size of frequent pattern to be output.\n"
    "\n"
    "  -p, --parent-children-list\n"
    "    Generate PC list for each frequent pattern.\n"
    "\n"
    "  -s, --support=NUMBER\n"
    "    Use NUMBER as the minimum support percentile.\n"
    "\n"
    "  -S, --supptable=FILE\n"
    "    Use FILE as the length decreasing support constraint. The length decreasing\n"
    "    support constraint F is a non-increasing function of sequence length. FILE\n"
    "    specifies this function in the following ascii format. Each line is a pair\n"
    "    of LEN and F(LEN) separeted by one space: LEN F(LEN)\n"
    "    All lines are sorted in the ascending order of LEN. If several F(LEN)\n"
    "    values are the same, all but the first line can be omitted. So\n"
    "                   1 1.0\n"
    "                   2 1.0\n"
    "                   3 1.0\n"
    "                   4 0.8\n"
    "    can be given in a shorter file as follows:\n"
    "                   1 1.0\n"
    "                   4 0.8\n"
    "    LEN is an integer (>= 1). F(LEN) is a floating point number \n"
    "    (0.0 <= F(LEN) <= 100.0). Given a sequence with length L, the sequence is\n"
    "    frequent if and only if its support is at least F(L). If both -s and -S \n"
    "    are given, -s is ignored.\n"
    "\n";
const char kTidList[] =
    "  -t, --tid-list\n"
    "    Generate TID list for each frequent pattern.\n"
    "\n";
const char kMaximal[] =
    "  -x, --maximal\n"
    "    Generate maximal patterns only.\n";

const char* const kUsageQuarlo[] = {kHeadQuarlo, kFileQuarlo, kOptionalHeader, kCommonOptions,
                                    kMaximal};
const char* const kUsageVorsel[] = {kHeadVorsel, kFileVorsel,    kOptionalHeader, kBufferAndDir,
                                    kCommonOptions, kTidList, kMaximal};

// Flags hold 1 when the option was not given and 2 when it was.
const unsigned char kFlagOff = 1;
const unsigned char kFlagOn = 2;

// The process-wide option record, in the order the report and the getters use.
struct Options {
  const char* input_file;      // the FILE operand itself
  char* conv_file;             // FILE.conv: items as dense numbers
  char* qr_file;               // FILE.qr: binary transactions
  char* tid_file;              // FILE.tid: TID list (left empty by -x runs)
  char* pc_file;               // FILE.pc: parent-children list
  char* fp_conv_file;          // FILE.fp_conv: patterns in item numbers
  char* fp_file;               // FILE.fp: patterns in the user's labels
  uint32_t min_size;           // -m
  uint32_t max_size;           // -M
  double min_support;          // -s, percent
  const char* supp_table_file; // -S
  unsigned char pc_flag;       // -p
  unsigned char tid_flag;      // -t
  unsigned char maximal_flag;  // -x
};

const Options kDefaults = {nullptr, nullptr, nullptr, nullptr,  nullptr,  nullptr, nullptr,
                           1,       4294967295u, 0.0, nullptr, kFlagOff, kFlagOff, kFlagOff};

Options g_opts = kDefaults;

const struct option kLongOptions[] = {
    {"bufsize", required_argument, nullptr, 'b'},
    {"dir", required_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {"minsize", required_argument, nullptr, 'm'},
    {"maxsize", required_argument, nullptr, 'M'},
    {"parent-children-list", no_argument, nullptr, 'p'},
    {"support", required_argument, nullptr, 's'},
    {"supptable", required_argument, nullptr, 'S'},
    {"tid-list", no_argument, nullptr, 't'},
    {"maximal", no_argument, nullptr, 'x'},
    {nullptr, 0, nullptr, 0},
};

uint32_t to_u32(const char* text) {
  return static_cast<uint32_t>(strtol(text, nullptr, 10));
}

// Applies one option returned by getopt_long to the record.
void apply_option(int c, int selector) {
  switch (c) {
    case 'b':  // accepted for the sibling's buffer size and directory; no effect here
    case 'd': break;
    case 'h': print_usage(selector); exit(1);
    case 'm': g_opts.min_size = to_u32(optarg); break;
    case 'M': g_opts.max_size = to_u32(optarg); break;
    case 'p': g_opts.pc_flag = kFlagOn; break;
    case 's': g_opts.min_support = strtod(optarg, nullptr); break;
    case 'S': g_opts.supp_table_file = optarg; break;
    case 't': g_opts.tid_flag = kFlagOn; break;
    case 'x': g_opts.maximal_flag = kFlagOn; break;
    case '?': break;  // getopt_long has already complained on stderr
    default:
      log_printf("%s(%u) getopt returned invalid character code 0x%x\n", kSrc, 157u,
                 static_cast<unsigned>(c));
  }
}

void free_names() {
  char** names[] = {&g_opts.conv_file, &g_opts.qr_file,      &g_opts.tid_file,
                    &g_opts.pc_file,   &g_opts.fp_conv_file, &g_opts.fp_file};
  for (char** n : names) {
    free(*n);
    *n = nullptr;
  }
}

void build_names(const char* file) {
  g_opts.conv_file = name_join(file, "conv");
  g_opts.qr_file = name_join(file, "qr");
  g_opts.tid_file = name_join(file, "tid");
  g_opts.pc_file = name_join(file, "pc");
  g_opts.fp_conv_file = name_join(file, "fp_conv");
  g_opts.fp_file = name_join(file, "fp");
}

}  // namespace

void parse(int argc, char** argv, int selector) {
  free_names();
  g_opts = kDefaults;
  optind = 0;  // full getopt re-initialisation, so parse can run more than once
  int c;
  while ((c = getopt_long(argc, argv, "b:d:hm:M:ps:S:tx", kLongOptions, nullptr)) != -1) {
    apply_option(c, selector);
  }
  if (optind >= argc) {
    print_usage(selector);
    exit(1);
  }
  g_opts.input_file = argv[optind++];
  build_names(g_opts.input_file);
}

void print_usage(int selector) {
  if (selector == 0) {
    for (const char* part : kUsageQuarlo) fputs(part, stdout);
  } else {
    for (const char* part : kUsageVorsel) fputs(part, stdout);
  }
  fflush(stdout);
}

void print_options() {
  log_printf("Options ------------------------------------------------------------------------");
  log_printf("  Minimum Output Pattern Size:                  %u", g_opts.min_size);
  log_printf("  Maximum Output Pattern Size:                  %u", g_opts.max_size);
  if (g_opts.supp_table_file == nullptr) {
    log_printf("  Constant Minimum Support:                     %f", g_opts.min_support);
  } else {
    log_printf("  Length-Decreasing Support Constraint File:    %s", g_opts.supp_table_file);
    if (g_opts.min_support != 0.0) {
      log_printf("  Constant Minimum Support:                     %f: Warning: Ignored: \"%s\" is given",
                 g_opts.min_support, g_opts.supp_table_file);
    }
  }
  log_printf("  PC List File Generation:                      %s",
             g_opts.pc_flag == kFlagOff ? "Skip" : "Generate");
  log_printf("  Non-Maximal Frequent Pattern Pruning:         %s",
             g_opts.maximal_flag == kFlagOff ? "Skip" : "Prune");
  log_printf("%s", "");
}

const char* get_input_file() { return g_opts.input_file; }
const char* get_conv_file() { return g_opts.conv_file; }
const char* get_qr_file() { return g_opts.qr_file; }
const char* get_tid_file() { return g_opts.tid_file; }
const char* get_pc_file() { return g_opts.pc_file; }
const char* get_fp_conv_file() { return g_opts.fp_conv_file; }
const char* get_fp_file() { return g_opts.fp_file; }
uint32_t get_min_size() { return g_opts.min_size; }
uint32_t get_max_size() { return g_opts.max_size; }
double get_min_support() { return g_opts.min_support; }
const char* get_supp_table_file() { return g_opts.supp_table_file; }
bool want_pc_list() { return g_opts.pc_flag == kFlagOn; }
bool want_tid_list() { return g_opts.tid_flag == kFlagOn; }
bool want_maximal() { return g_opts.maximal_flag == kFlagOn; }

}  // namespace quarlo::cli
