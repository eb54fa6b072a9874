// mhboost: learns to categorise documents and attribute-described examples
// by boosting, writes the model it learnt, and classifies with it.
#include <cerrno>
#include <cstdio>
#include <new>

#include "boost.h"
#include "die.h"
#include "weak_learn.h"

int main(int argc, char** argv) {
  // Memory that the standard containers cannot get ends the run like Malloc.
  std::set_new_handler([] { errno = ENOMEM; perror("Malloc"); Exit_Run(1); });
  fprintf(stderr, "mhboost: boosting for multi-label text categorisation\n\n");
  parse_options(argc, argv);
  data = InitializeWeakLearner(argc, argv);
  if (!classify_new_test_mode) {
    boost();
    if (num_trials > 0) WriteStrongHypothesis(weak_hyp, &num_weak_hyps, ecoc_mode);
  } else {
    data->num_train = 0;
    use_old_hyp();
  }
  fflush(stdout);
  return 0;
}
