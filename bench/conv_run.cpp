// Times the conversion stages alone on one transaction file: numbering the
// labels (first pass), writing FILE.conv (second pass), writing FILE.qr.
// Prints "<load> <convert> <ttoqr>" in seconds, then the number of labels and
// item_count, and leaves both files beside FILE.
#include <cstdint>
#include <cstdio>
#include <string>

#include "cli/label_files.h"
#include "convert/label_table.h"
#include "base/report.h"
#include "cli/binary_file.h"
#include "base/io.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: conv_run FILE\n");
    return 2;
  }
  const std::string file = argv[1];
  const std::string conv = file + ".conv";
  const std::string qr = file + ".qr";
  LabelTable table;
  table.add_reserved_token("-1");
  CollectingReporter rep;
  uint32_t item_count = 0;
  double t0 = wall_seconds();
  table.load_labels(file.c_str());
  double t1 = wall_seconds();
  if (!convert_file(&table, file.c_str(), conv.c_str()).ok()) return 1;
  double t2 = wall_seconds();
  if (!ttoqr(conv.c_str(), qr.c_str(), &item_count, &rep).ok()) {
    fprintf(stderr, "conv_run: %s\n", rep.summary().c_str());
    return 1;
  }
  double t3 = wall_seconds();
  printf("%.3f %.3f %.3f %u %u\n", t1 - t0, t2 - t1, t3 - t2, table.label_count(), item_count);
  return 0;
}
