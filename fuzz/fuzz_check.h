// FUZZ_CHECK(cond): a property a fuzz target asserts about one input. On a
// failure it names the target file, line and condition, then traps, so
// libFuzzer saves the input as a crash.
#ifndef ZERVA_FUZZ_FUZZ_CHECK_H_
#define ZERVA_FUZZ_FUZZ_CHECK_H_

#include <cstdio>

#define FUZZ_CHECK(cond)                                                                 \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", __FILE__, __LINE__, #cond); \
      __builtin_trap();                                                                  \
    }                                                                                    \
  } while (0)

#endif  // ZERVA_FUZZ_FUZZ_CHECK_H_
