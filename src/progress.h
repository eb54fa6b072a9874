// Progress of long reading and building steps, shown on standard error only
// when it is a terminal, and erased when the step ends. When standard error
// is a file or a pipe nothing at all is printed, so every output of a run
// that is captured stays exactly the same.
#ifndef MHBOOST_PROGRESS_H_
#define MHBOOST_PROGRESS_H_

/// Shows "<what>: <count> <unit> (<rate>/s)", at most a few times a second.
void Progress_Update(const char* what, long count, const char* unit);
/// Erases the progress line, if one is shown.
void Progress_Done();

#endif  // MHBOOST_PROGRESS_H_
