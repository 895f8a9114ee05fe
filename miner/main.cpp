// quarlo: frequent itemsets under a length-decreasing minimum support.
#include <csignal>

#include "quarlo.h"
#include "vscmdl.h"

int main(int argc, char** argv) {
  // The results go to files; a console that stops reading (quarlo ... | head)
  // must not end the run, so failed writes to standard output are ignored.
  signal(SIGPIPE, SIG_IGN);
  parse(argc, argv, 0);
  return run_pipeline();
}
