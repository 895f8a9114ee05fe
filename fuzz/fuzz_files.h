// What every fuzz target shares: the readers all take file paths, so each
// input is written to a scratch file of this process (the pid in its name,
// so parallel jobs never meet), read back where a target checks an output,
// and checked with FUZZ_CHECK, which aborts so that libFuzzer keeps the input.
#ifndef QUARLO_FUZZ_FUZZ_FILES_H_
#define QUARLO_FUZZ_FUZZ_FILES_H_

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#define FUZZ_CHECK(cond)                                                         \
  do {                                                                           \
    if (!(cond)) {                                                               \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                              \
    }                                                                            \
  } while (0)

// A scratch file "/tmp/quarlo-fuzz-PID-NAME", removed (with NAME.tmp) at exit.
// Targets keep theirs in function-local statics.
class Scratch {
 public:
  explicit Scratch(const char* name)
      : path_("/tmp/quarlo-fuzz-" + std::to_string(getpid()) + "-" + name) {}
  ~Scratch() {
    std::remove(path_.c_str());
    std::remove((path_ + ".tmp").c_str());
  }
  const char* c_str() const { return path_.c_str(); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline void write_file(const Scratch& file, const void* data, size_t size) {
  std::ofstream out(file.path(), std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  FUZZ_CHECK(out.good());
}

inline void write_file(const Scratch& file, const std::string& text) {
  write_file(file, text.data(), text.size());
}

inline std::string read_file(const Scratch& file) {
  std::ifstream in(file.path(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

#endif  // QUARLO_FUZZ_FUZZ_FILES_H_
