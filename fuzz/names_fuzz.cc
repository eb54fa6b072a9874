// Fuzz target: the names file. The input is written to a scratch file and
// read with Get_Names; a refusal through the reader's crash routine or the
// field-length limit is a normal outcome, anything else that goes wrong (a
// sanitizer report, an exit status the program never uses, a record that
// breaks its own invariants) is a finding.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_common.h"
#include "read_data.h"

namespace names_target {

// What every later stage assumes of a names record.
inline void Check_And_Free(dataset_info* info) {
  FUZZ_CHECK(info != nullptr);
  FUZZ_CHECK(info->num_classes >= 1);
  for (int i = 0; i < info->num_classes; ++i) {
    FUZZ_CHECK(info->class_names[i] != nullptr);
    free(info->class_names[i]);
  }
  free(info->class_names);
  for (int j = 0; j < info->num_attributes; ++j) {
    attribute_info* a = &info->attributes[j];
    FUZZ_CHECK(a->name != nullptr);
    int n = a->num_values;
    FUZZ_CHECK(n > 0 || n == kContinuous || n == kText || n == kIgnore ||
               n == kScoredText);
    if (n > 0) FUZZ_CHECK(a->values != nullptr);
    // Kind keywords keep their single value; discrete lists keep them all;
    // the slots of 'discrete N' are all empty (there may be very many).
    int held = n > 0 ? n : 1;
    if (a->values != nullptr)
      for (int v = 0; v < held && a->values[v] != nullptr; ++v) free(a->values[v]);
    free(a->values);
    free(a->name);
  }
  free(info->attributes);
  free(info);
}

inline int One_Input(const uint8_t* data, size_t size) {
  static const std::string path = fuzz::Scratch_Dir() + "/in.names";
  fuzz::Write_File(path, data, size);
  dataset_info* info = nullptr;
  int status = fuzz::Guarded([&] { info = Get_Names(path.c_str()); });
  if (status == -1) Check_And_Free(info);
  return 0;
}

}  // namespace names_target

#ifndef MHBOOST_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return names_target::One_Input(data, size);
}
#endif
