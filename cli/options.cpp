#include "cli/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/sites.h"
#include "cli/log.h"

namespace quarlo::cli {

using namespace quarlo::detail;

namespace {

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
const char* const kUsageVorsel[] = {kHeadVorsel,    kFileVorsel, kOptionalHeader, kBufferAndDir,
                                    kCommonOptions, kTidList,    kMaximal};

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

uint32_t to_u32(const char* text) { return static_cast<uint32_t>(strtol(text, nullptr, 10)); }

// Applies one option returned by getopt_long to the record. False for -h.
bool apply_option(int c, Options* o, Console* console) {
  switch (c) {
    case 'b':  // accepted for the sibling's buffer size and directory; no effect here
    case 'd':
      break;
    case 'h':
      return false;
    case 'm':
      o->min_size = to_u32(optarg);
      break;
    case 'M':
      o->max_size = to_u32(optarg);
      break;
    case 'p':
      o->pc_list = true;
      break;
    case 's':
      o->min_support = strtod(optarg, nullptr);
      break;
    case 'S':
      o->supp_table_file = optarg;
      break;
    case 't':
      o->tid_list = true;
      break;
    case 'x':
      o->maximal = true;
      break;
    case '?':
      break;  // getopt_long has already complained on stderr
    default:
      console->printf("%s(%u) getopt returned invalid character code 0x%x\n", sites::kGetopt.module,
                      sites::kGetopt.line, static_cast<unsigned>(c));
  }
  return true;
}

}  // namespace

void FileNames::derive(const std::string& file) {
  if (file.empty()) return;  // no names can be derived from an empty FILE
  conv = file + ".conv";
  qr = file + ".qr";
  tid = file + ".tid";
  pc = file + ".pc";
  fp_conv = file + ".fp_conv";
  fp = file + ".fp";
}

bool parse(int argc, char** argv, int selector, Options* options, Console* console) {
  *options = Options();
  optind = 0;  // full getopt re-initialisation, so parse can run more than once
  int c;
  while ((c = getopt_long(argc, argv, "b:d:hm:M:ps:S:tx", kLongOptions, nullptr)) != -1) {
    if (!apply_option(c, options, console)) {
      print_usage(selector);
      return false;
    }
  }
  if (optind >= argc) {
    print_usage(selector);
    return false;
  }
  options->input_file = argv[optind++];
  options->names.derive(options->input_file);
  return true;
}

void print_usage(int selector) {
  if (selector == 0) {
    for (const char* part : kUsageQuarlo) fputs(part, stdout);
  } else {
    for (const char* part : kUsageVorsel) fputs(part, stdout);
  }
  fflush(stdout);
}

void print_options(const Options& o, Console* console) {
  console->printf(
      "Options ------------------------------------------------------------------------");
  console->printf("  Minimum Output Pattern Size:                  %u", o.min_size);
  console->printf("  Maximum Output Pattern Size:                  %u", o.max_size);
  if (o.supp_table_file == nullptr) {
    console->printf("  Constant Minimum Support:                     %f", o.min_support);
  } else {
    console->printf("  Length-Decreasing Support Constraint File:    %s", o.supp_table_file);
    if (o.min_support != 0.0) {
      console->printf(
          "  Constant Minimum Support:                     %f: Warning: Ignored: \"%s\" is given",
          o.min_support, o.supp_table_file);
    }
  }
  console->printf("  PC List File Generation:                      %s",
                  o.pc_list ? "Generate" : "Skip");
  console->printf("  Non-Maximal Frequent Pattern Pruning:         %s",
                  o.maximal ? "Prune" : "Skip");
  console->printf("%s", "");
}

}  // namespace quarlo::cli
