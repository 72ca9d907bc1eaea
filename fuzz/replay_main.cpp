// Replays a fuzz target's corpus through its entry point with the normal
// compiler: every file under the directories given (in name order) is one
// input. Used by the test suite, so that what fuzzing found stays fixed.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_env.h"

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_regular_file(argv[i])) {
      files.push_back(argv[i]);
      continue;
    }
    for (const auto& e : fs::recursive_directory_iterator(argv[i]))
      if (e.is_regular_file()) files.push_back(e.path().string());
  }
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    std::fprintf(stderr, "no corpus inputs found\n");
    return 1;
  }
  for (const std::string& f : files) {
    std::ifstream in(f, std::ios::binary);
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", files.size());
  return 0;
}
