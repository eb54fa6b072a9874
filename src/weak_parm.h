// The weak learner's options: its parameter record, the parser Weak_Parm that
// reads them from the same argument vector as the booster, and its help text.
#ifndef MHBOOST_WEAK_PARM_H_
#define MHBOOST_WEAK_PARM_H_

#include <cstdio>

#include "text_util.h"

struct text_expert_info {
  int window;            // -W
  int class_index;       // -I, 0-based; negative = all classes
  int abstain;           // -R
  int classify_only;     // -C
  int dict_mode;         // 0 none, 1 keep dictionary words, 2 drop them
  int expert_kind;       // -N: 0 sgram, 1 ngram, 2 fgram
  double smoothing;      // -E
  int verbose;           // -V
  int flag_L;            // -L: linear experts on continuous attributes
  int flag_B;            // cleared by -B
  pair_combiner fand;    // -A
  score_combiner fscore; // -F
  pair_combiner fmultiple;  // -M
  int num_threads;       // -T; 0 = every available core
};

/// Fills `info` from argv; returns the file stem of -S (null if absent).
char* Weak_Parm(int argc, char** argv, text_expert_info* info);
void Show_Parm(FILE* stream);
void Usage(FILE* stream, const char* program_name);

#endif  // MHBOOST_WEAK_PARM_H_
