// Fuzz target: the integrity check over a container image, reporting only,
// then repairing, then reporting again, with its dumps on. The last byte of
// the input is taken off and chooses whether the repair runs, so an image
// is checked as it stands too.
#include "fuzz_env.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sflfuzz::Init();
  const bool repair = size > 0 && (data[size - 1] & 1) != 0;
  if (size > 0) --size;
  const sfl_ItemRef ref = sflfuzz::FreshRef(false);
  sflfuzz::WriteFile(ref, data, size);
  sflfuzz::Quietly([&] { sfl_CheckSflIntegrity2(&ref, 0, sflfuzz::Sink()); });
  if (repair) {
    sflfuzz::Quietly([&] { sfl_CheckSflIntegrity2(&ref, 1, sflfuzz::Sink()); });
    sflfuzz::Quietly([&] { sfl_CheckSflIntegrity2(&ref, 0, nullptr); });
  }
  sflfuzz::RemoveFile(ref);
  return 0;
}
