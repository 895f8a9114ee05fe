// Times the post-processing stages on one numbered pattern file:
//   lattice_bench PATTERNS RUNS
// Each run writes PATTERNS.pc with generate_lattice, then prunes a fresh copy of PATTERNS the way a -x run does.
// Prints the median wall and CPU seconds of each stage and the peak resident
// size (on a busy machine the CPU seconds are the steadier figure).
#include <sys/resource.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "cli/pc_list.h"
#include "cli/maximal_file.h"
#include "base/report.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

double now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6;
}

double cpu_now() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Prints what the library reported and returns the failure status.
int fail(const CollectingReporter& rep) {
  fprintf(stderr, "lattice_bench: %s\n", rep.summary().c_str());
  return 1;
}

bool copy_file(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary | std::ios::trunc);
  out << in.rdbuf();
  return static_cast<bool>(in) && static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: lattice_bench PATTERNS RUNS\n");
    return 2;
  }
  const std::string patterns = argv[1];
  const int runs = std::max(1, atoi(argv[2]));
  const std::string pc = patterns + ".pc";
  const std::string work = patterns + ".work";
  std::vector<double> lattice_s, prune_s, lattice_cpu, prune_cpu;
  CollectingReporter rep;
  uint32_t kept = 0;
  for (int r = 0; r < runs; ++r) {
    double t0 = now(), c0 = cpu_now();
    const bool ok = generate_lattice(patterns.c_str(), pc.c_str(), &rep).ok();
    lattice_s.push_back(now() - t0);
    lattice_cpu.push_back(cpu_now() - c0);
    if (!ok) return fail(rep);
    if (!copy_file(patterns, work)) return 1;
    t0 = now();
    c0 = cpu_now();
    std::unique_ptr<IdSet> ids;
    if (!create_unmaximal_set(&ids, &rep).ok()) return fail(rep);
    load_unmaximal_ids(ids.get(), pc.c_str());
    if (!remove_unmaximal_records(*ids, work.c_str(), true, &kept, &rep).ok()) return fail(rep);
    prune_s.push_back(now() - t0);
    prune_cpu.push_back(cpu_now() - c0);
  }
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  printf("lattice %.3f s (cpu %.3f)  prune %.3f s (cpu %.3f)  maximal %u  peak %ld KB\n",
         median(lattice_s), median(lattice_cpu), median(prune_s), median(prune_cpu), kept,
         ru.ru_maxrss);
  remove(work.c_str());
  return 0;
}
