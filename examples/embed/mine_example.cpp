// mine_example FILE TABLE [FILE TABLE ...]
//
// Mines every FILE under its support-table file TABLE, all at the same time,
// one thread each, through the quarlo library, and writes FILE.embed.txt: one
// itemset a line, its labels in ascending byte order separated by one blank,
// a tab, then its support count.
#include <quarlo/quarlo.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// Mines one pair and writes its file; returns an error text, empty on success.
std::string mine_pair(const std::string& file, const std::string& table) {
  try {
    quarlo::Options options;
    options.support = quarlo::Support::table_file(table);
    const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_file(file), options);
    std::ofstream out(file + ".embed.txt");
    for (const quarlo::Itemset& s : r.itemsets) {
      std::vector<std::string> labels;
      for (uint32_t item : s.items) labels.push_back(r.labels[item]);
      std::sort(labels.begin(), labels.end());
      for (size_t i = 0; i < labels.size(); ++i) out << (i > 0 ? " " : "") << labels[i];
      out << '\t' << s.support << '\n';
    }
    out.close();
    if (!out) return file + ".embed.txt: cannot be written";
    return "";
  } catch (const quarlo::Error& e) {
    return e.what();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc % 2 == 0) {
    fprintf(stderr, "usage: mine_example FILE TABLE [FILE TABLE ...]\n");
    return 1;
  }
  const int pairs = (argc - 1) / 2;
  std::vector<std::string> errors(pairs);
  std::vector<std::thread> threads;
  for (int i = 0; i < pairs; ++i) {
    threads.emplace_back([&, i] { errors[i] = mine_pair(argv[1 + 2 * i], argv[2 + 2 * i]); });
  }
  for (std::thread& t : threads) t.join();
  int status = 0;
  for (const std::string& e : errors) {
    if (e.empty()) continue;
    fprintf(stderr, "mine_example: %s\n", e.c_str());
    status = 2;
  }
  return status;
}
