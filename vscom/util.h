// Small helpers shared by both miners: derived file names and the wall clock.
// Owns no process-wide state.
#ifndef QUARLO_VSCOM_UTIL_H_
#define QUARLO_VSCOM_UTIL_H_

// Returns a new malloc'ed "base.suffix", or null when either part is empty or
// memory is short. The caller owns the result.
char* name_join(const char* base, const char* suffix);

// Seconds since the epoch, with microseconds, from gettimeofday.
double wall_seconds();

#endif  // QUARLO_VSCOM_UTIL_H_
