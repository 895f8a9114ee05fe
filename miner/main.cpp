// quarlo: frequent itemsets under a length-decreasing minimum support.
#include "quarlo.h"
#include "vscmdl.h"

int main(int argc, char** argv) {
  parse(argc, argv, 0);
  return run_pipeline();
}
