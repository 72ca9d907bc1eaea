// Bit updates at and past the end of a map: only the bits inside the map
// change, and a range that starts past its end changes nothing (a freed
// area taken from a damaged header may lie anywhere).
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ext.h"

namespace {

TEST(ExtRange, RangeStartingPastTheEndChangesNothing) {
  // Guard bytes around the map: a write past its end would change them.
  std::vector<uint8_t> buf(64, 0xAA);
  uint8_t* map = buf.data() + 16;
  ext_SetBits(map, 16, 16 * 8, 64, 0);
  ext_SetBits(map, 16, 16 * 8 + 3, 1, 1);
  ext_SetBits(map, 16, 0xFFFFFFF0u, 0xFFFFFFFFu, 0);
  for (uint8_t b : buf) EXPECT_EQ(0xAA, b);
}

TEST(ExtRange, RangeRunningPastTheEndStopsAtIt) {
  std::vector<uint8_t> buf(48, 0xAA);
  uint8_t* map = buf.data() + 16;
  ext_SetBits(map, 16, 100, 1000, 0);  // bits 100 to 127 of the map only
  for (size_t i = 0; i < 16; ++i) EXPECT_EQ(0xAA, buf[i]);
  for (size_t i = 16 + 16; i < buf.size(); ++i) EXPECT_EQ(0xAA, buf[i]);
  EXPECT_EQ(0x0A, map[12]);  // bits 96 to 99 kept, 100 to 103 cleared
  EXPECT_EQ(0x00, map[13]);
  EXPECT_EQ(0x00, map[15]);
  EXPECT_EQ(0xAA, map[11]);
}

}  // namespace
