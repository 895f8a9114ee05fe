#include "util.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

char* name_join(const char* base, const char* suffix) {
  if (base == nullptr || suffix == nullptr || base[0] == '\0' || suffix[0] == '\0') return nullptr;
  size_t nb = strlen(base);
  size_t ns = strlen(suffix);
  char* out = static_cast<char*>(malloc(nb + ns + 3));
  if (out == nullptr) return nullptr;
  memcpy(out, base, nb);
  out[nb] = '.';
  memcpy(out + nb + 1, suffix, ns + 1);
  return out;
}

FILE* create_text_file(const char* name) {
  const int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0664);
  if (fd < 0) return nullptr;
  FILE* f = fdopen(fd, "w");
  if (f == nullptr) close(fd);
  return f;
}

double wall_seconds() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1000000.0;
}
