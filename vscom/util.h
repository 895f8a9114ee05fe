// Small helpers shared by both miners: derived file names, text files created
// with the product's mode, and the wall clock.
// Owns no process-wide state.
#ifndef QUARLO_VSCOM_UTIL_H_
#define QUARLO_VSCOM_UTIL_H_

#include <cstdio>

// Returns a new malloc'ed "base.suffix", or null when either part is empty or
// memory is short. The caller owns the result.
char* name_join(const char* base, const char* suffix);

// Creates or truncates `name` as a text stream for writing, with mode 0664
// before the umask (fopen would give 0666). Null when it cannot be opened.
FILE* create_text_file(const char* name);

// Seconds since the epoch, with microseconds, from gettimeofday.
double wall_seconds();

#endif  // QUARLO_VSCOM_UTIL_H_
