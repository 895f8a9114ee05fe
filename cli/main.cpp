// quarlo: frequent itemsets under a length-decreasing minimum support.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "cli/driver.h"

int main(int argc, char** argv) {
  // A closed standard stream would hand its descriptor to the first file
  // opened (the log would get every report line twice): give it /dev/null.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", O_RDWR) != fd) return 1;
  }
  // The results go to files; a console that stops reading (quarlo ... | head)
  // must not end the run, so failed writes to standard output are ignored.
  signal(SIGPIPE, SIG_IGN);
  quarlo::cli::Driver driver;
  if (!driver.parse(argc, argv)) return 1;  // the usage text was printed
  return driver.run();
}
