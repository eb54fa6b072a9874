// Options of the weak learner. They share the command line with the
// booster's options: the booster reads first, then this parser rescans the
// whole vector, skipping the booster's letters and their arguments.
#include "weak_parm.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "die.h"
#include "optscan.h"

namespace {

const char* const kExpertNames[] = {"SGRAM", "NGRAM", "FGRAM"};

// Every small letter is listed so that the booster's options are accepted;
// their arguments are passed over by the skip of non-dash arguments.
const char kOptions[] =
    "W:N:S:D:E:I:A:F:M:T:LBCRVabcdefghijklmnopqrstuvwxyz";

// Chooses one of the three pair combiners by name; false if unknown.
bool pick_pair(const char* arg, pair_combiner* out) {
  if (arg[0] == '+') {
    *out = add;
  } else if (strcmp(arg, "min") == 0) {
    *out = min;
  } else if (strcmp(arg, "max") == 0) {
    *out = max;
  } else {
    return false;
  }
  return true;
}

bool pick_score(const char* arg, score_combiner* out) {
  if (arg[0] == '+') {
    *out = adds;
  } else if (strcmp(arg, "min") == 0) {
    *out = mins;
  } else if (strcmp(arg, "max") == 0) {
    *out = maxs;
  } else {
    return false;
  }
  return true;
}

}  // namespace

void Usage(FILE* stream, const char* program_name) {
  fprintf(stream, "Usage: %s [paramaters] (use -h for a list of options)\n",
          program_name);
}

void Show_Parm(FILE* stream) {
  fprintf(stream, "\t-W N                   window length\n");
  fprintf(stream, "\t-N [sgram|ngram|fgram] text expert creation paradigm \n");
  fprintf(stream, "\t-I class               create experts from I'th class\n");
  fprintf(stream, "\t-S stem                input/output/shyp/ecoc file stem\n");
  fprintf(stream, "\t-D [0|1]               dictionary exclude(0)/include(1)\n");
  fprintf(stream, "\t-C                     classification mode\n");
  fprintf(stream, "\t-R                     use text experts which abstain on no match\n");
  fprintf(stream, "\t-E num                 smoothing parameter [def 0.5]\n");
  fprintf(stream, "\t-V                     verbose mode\n");
}

char* Weak_Parm(int argc, char** argv, text_expert_info* info) {
  if (argc < 2) {
    Usage(stderr, argv[0]);
    Exit_Run(1);
  }
  info->window = 1;
  info->class_index = -1;
  info->abstain = 0;
  info->classify_only = 0;
  info->dict_mode = 0;
  info->expert_kind = 0;
  info->smoothing = 0.5;
  info->verbose = 0;
  info->flag_L = 0;
  info->flag_B = 1;
  info->fand = add;
  info->fscore = adds;
  info->fmultiple = max;
  info->num_threads = 0;

  char* stem = nullptr;
  option_scanner* s = &g_opt;
  for (;;) {
    while (s->nextchar == 0 && s->optind < argc && argv[s->optind][0] != '-')
      s->optind++;
    int c = Scan_Option(s, argc, argv, kOptions);
    if (c == -1) break;
    const char* arg = s->optarg;
    switch (c) {
      case 'W':
        info->window = atoi(arg);
        break;
      case 'I': {
        int n = atoi(arg);
        info->class_index = n < 1 ? -1 : n - 1;  // no n - 1 overflow at INT_MIN
        if (info->class_index < 0) {
          fprintf(stderr, "Illegal class indx (%d)", n);
          Usage(stderr, argv[0]);
        }
        break;
      }
      case 'S':
        stem = const_cast<char*>(arg);
        break;
      case 'D':
        if (arg[0] == '0') {
          info->dict_mode = 2;
        } else if (arg[0] == '1') {
          info->dict_mode = 1;
        } else {
          fprintf(stderr, "Illegal dictionary mode\n");
          Usage(stderr, argv[0]);
          Exit_Run(1);
        }
        break;
      case 'E':
        info->smoothing = atof(arg);
        if (!std::isfinite(info->smoothing) || info->smoothing < 0) {
          fprintf(stderr, "Illegal smoothing value (%g)\n", info->smoothing);
          Usage(stderr, argv[0]);
          Exit_Run(1);
        }
        break;
      case 'N':
        if (arg[0] == '\0' || strcmp(arg + 1, "gram") != 0) {
          fprintf(stderr, "Only ngram based text experts are implemnted\n\n");
          Usage(stderr, argv[0]);
          Exit_Run(1);
        }
        if (arg[0] == 'n') {
          info->expert_kind = 1;
        } else if (arg[0] == 's') {
          info->expert_kind = 0;
        } else if (arg[0] == 'f') {
          info->expert_kind = 2;
        } else {
          fprintf(stderr, "Illegal ngram mode");
          Usage(stderr, argv[0]);
          Exit_Run(1);
        }
        break;
      case 'A':
        if (!pick_pair(arg, &info->fand)) {
          fprintf(stderr, "Unknown fand function\n");
          Usage(stderr, argv[0]);
        }
        break;
      case 'F':
        if (!pick_score(arg, &info->fscore)) {
          fprintf(stderr, "Unknown fscore function\n");
          Usage(stderr, argv[0]);
        }
        break;
      case 'M':
        if (!pick_pair(arg, &info->fmultiple)) {
          fprintf(stderr, "Unknown fmultiple  function\n");
          Usage(stderr, argv[0]);
        }
        break;
      case 'T': {
        // Scoring threads; 0 means every available core.
        char* end = nullptr;
        long n = strtol(arg, &end, 10);
        if (end == arg || *end != '\0' || n < 0 || n > 1024) {
          fprintf(stderr, "mhboost: -T expects a number of threads from 0 to 1024, got '%s'\n", arg);
          Usage(stderr, argv[0]);
          Exit_Run(1);
        }
        info->num_threads = static_cast<int>(n);
        break;
      }
      case 'L':
        info->flag_L = 1;
        break;
      case 'B':
        info->flag_B = 0;
        break;
      case 'C':
        info->classify_only = 1;
        break;
      case 'R':
        info->abstain = 1;
        break;
      case 'V':
        info->verbose = 1;
        break;
      case 'h':
        printf("Weak learner options are:\n");
        Show_Parm(stdout);
        Exit_Run(1);
      default:
        // Booster letters, and letters nobody lists, are passed over.
        break;
    }
  }
  if (info->verbose) {
    fprintf(stderr, "Weak Learner parameters:\n");
    fprintf(stderr, "------------------------\n");
    fprintf(stderr, "\tWindow     = %d\n", info->window);
    if (info->class_index < 0)
      fprintf(stderr, "\tClasses    = all\n");
    else
      fprintf(stderr, "\tClasses    = %d\n", info->class_index + 1);
    fprintf(stderr, "\tExpert     = %s\n", kExpertNames[info->expert_kind]);
    fprintf(stderr, "\n");
  }
  return stem;
}
