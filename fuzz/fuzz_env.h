// Fuzz support: each fuzz target runs in a private directory (store root,
// run directory of its own interest service, log file), set up on the first
// input and removed, with the service stopped, when the process exits. The
// fault lines of the integrity check and the dumps go to /dev/null.
#ifndef SFL_FUZZ_ENV_H
#define SFL_FUZZ_ENV_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "sfl.h"

namespace sflfuzz {

// Sets the environment up once per process.
void Init();
// A stream that swallows what is written to it.
FILE* Sink();
// A container reference not used before in this process (Domain 2 or, when
// `temporary`, Domain 4), whose file does not exist yet.
sfl_ItemRef FreshRef(bool temporary);
// Writes `data` as the whole content of the file `ref` names.
void WriteFile(const sfl_ItemRef& ref, const uint8_t* data, size_t size);
// Removes the file `ref` names, and anything a rebuild left beside it.
void RemoveFile(const sfl_ItemRef& ref);
// Runs `fn`; an escape is cleared. Returns whether one was raised.
template <typename Fn>
bool Quietly(Fn fn) {
  try {
    fn();
    return false;
  } catch (const er_Escape&) {
    er_Clear();
    return true;
  }
}

}  // namespace sflfuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif  // SFL_FUZZ_ENV_H
