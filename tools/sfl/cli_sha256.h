// SHA-256, for the checksums of copied files.
#ifndef SFL_TOOL_CLI_SHA256_H
#define SFL_TOOL_CLI_SHA256_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace cli {

class Sha256 {
 public:
  Sha256();
  void Add(const void* data, size_t len);
  // The digest in lower-case hexadecimal; ends the computation.
  std::string Hex();

 private:
  void Block(const uint8_t* p);

  uint32_t state_[8];
  uint8_t buf_[64] = {};
  size_t used_ = 0;
  uint64_t total_ = 0;
};

}  // namespace cli

#endif  // SFL_TOOL_CLI_SHA256_H
