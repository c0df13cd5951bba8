/* A harness under libFuzzer, the one that SC_FUZZ_HARNESS names. The environment variable
 * SC_FUZZ_FOLDER names the folder that inputs are written to. */
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sc_fuzz::confine(getenv("SC_FUZZ_FOLDER"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  sc_fuzz::run(SC_FUZZ_HARNESS, bytes, size);
  return 0;
}
