// Bit sets over byte arrays: least significant bit first, runs across byte
// and word boundaries, maps whose length is not a multiple of eight bytes,
// a 1 MiB scan.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ext.h"

namespace {

TEST(ExtBits, LeastSignificantBitFirst) {
  uint8_t map[2] = {0, 0};
  ext_SetBits(map, 2, 0, 1, 1);
  EXPECT_EQ(map[0], 0x01);
  ext_SetBits(map, 2, 3, 1, 1);
  EXPECT_EQ(map[0], 0x09);
  ext_SetBits(map, 2, 8, 1, 1);
  EXPECT_EQ(map[1], 0x01);
  ext_SetBits(map, 2, 15, 1, 1);
  EXPECT_EQ(map[1], 0x81);
  ext_SetBits(map, 2, 0, 16, 0);
  EXPECT_EQ(map[0] | map[1], 0);
  ext_SetBits(map, 2, 6, 4, 1);  // bits 6..9
  EXPECT_EQ(map[0], 0xC0);
  EXPECT_EQ(map[1], 0x03);
  EXPECT_TRUE(ext_CheckBits(map, 2, 6, 4, 1));
  EXPECT_FALSE(ext_CheckBits(map, 2, 5, 4, 1));
  EXPECT_TRUE(ext_CheckBits(map, 2, 10, 6, 0));
}

TEST(ExtBits, FindsTheLowestRun) {
  uint8_t map[4] = {0xFF, 0x0F, 0xFF, 0x00};  // clear: bits 12..15, 24..31
  EXPECT_EQ(ext_FindBits(map, 4, 4, 0), 12);
  EXPECT_EQ(ext_FindBits(map, 4, 5, 0), 24);
  EXPECT_EQ(ext_FindBits(map, 4, 8, 0), 24);
  EXPECT_EQ(ext_FindBits(map, 4, 9, 0), -1);
  EXPECT_EQ(ext_FindBits(map, 4, 1, 0), 12);
  EXPECT_EQ(ext_FindBits(map, 4, 12, 1), 0);
  EXPECT_EQ(ext_FindBits(map, 4, 13, 1), -1);
  EXPECT_EQ(ext_FindBits(map, 4, 0, 0), -1);
}

// The lowest start of `count` bits equal to `value`, one bit at a time.
int64_t FindBitsOneByOne(const std::vector<uint8_t>& map, uint32_t count, int value) {
  const uint64_t bits = uint64_t{map.size()} * 8;
  uint64_t run = 0;
  for (uint64_t b = 0; b < bits; ++b) {
    const int bit = (map[b / 8] >> (b % 8)) & 1;
    run = bit == value ? run + 1 : 0;
    if (count > 0 && run == count) return static_cast<int64_t>(b + 1 - count);
  }
  return -1;
}

TEST(ExtBits, FindAgreesWithABitByBitSearchOnFilledMaps) {
  // Maps that fill from the front, as free maps do: long stretches of
  // whole words without a wanted bit, then scattered holes, at lengths
  // that are and are not multiples of eight and of four words.
  std::srand(1234);
  for (uint32_t len : {1u, 7u, 8u, 31u, 32u, 33u, 40u, 64u, 100u, 257u, 1000u}) {
    for (int fill = 0; fill < 6; ++fill) {
      std::vector<uint8_t> map(len, 0xFF);
      const uint32_t front = len * static_cast<uint32_t>(fill) / 5;
      for (uint32_t i = front; i < len; ++i) map[i] = static_cast<uint8_t>(std::rand());
      for (int value : {0, 1}) {
        std::vector<uint8_t> m = map;
        if (value == 1)
          for (auto& b : m) b = static_cast<uint8_t>(~b);
        for (uint32_t count : {1u, 2u, 3u, 5u, 8u, 13u, 64u, 65u, 200u}) {
          EXPECT_EQ(ext_FindBits(m.data(), len, count, value), FindBitsOneByOne(m, count, value))
              << "len " << len << " fill " << fill << " value " << value << " count " << count;
        }
      }
    }
  }
}

TEST(ExtBits, AWantedBitAnywhereInALongFullStretchIsFound) {
  // Whole stretches without a wanted bit are skipped in large steps: one
  // wanted bit at any place in, at the edge of or just past such a step,
  // and a run that starts in one step and ends in the next, must still be
  // found where a bit-by-bit search finds them.
  const uint32_t len = 1100;
  for (int value : {0, 1}) {
    const uint8_t none = value ? 0x00 : 0xFF;
    for (uint32_t bit = 0; bit < len * 8; bit += 37) {
      std::vector<uint8_t> map(len, none);
      map[bit / 8] = static_cast<uint8_t>(map[bit / 8] ^ (1u << (bit % 8)));
      EXPECT_EQ(ext_FindBits(map.data(), len, 1, value), FindBitsOneByOne(map, 1, value))
          << "value " << value << " bit " << bit;
    }
    for (uint32_t edge : {255u, 256u, 511u, 512u, 767u, 1023u}) {
      std::vector<uint8_t> map(len, none);
      map[edge] = static_cast<uint8_t>(~none);
      map[edge + 1] = static_cast<uint8_t>(~none);
      for (uint32_t count : {1u, 9u, 16u, 17u}) {
        EXPECT_EQ(ext_FindBits(map.data(), len, count, value), FindBitsOneByOne(map, count, value))
            << "value " << value << " edge " << edge << " count " << count;
      }
    }
  }
}

TEST(ExtBits, RunsAcrossWordBoundaries) {
  std::vector<uint8_t> map(32, 0xFF);  // four 64-bit words
  ext_SetBits(map.data(), 32, 60, 10, 0);  // bits 60..69 straddle words 0 and 1
  EXPECT_EQ(ext_FindBits(map.data(), 32, 10, 0), 60);
  EXPECT_EQ(ext_FindBits(map.data(), 32, 11, 0), -1);
  EXPECT_TRUE(ext_CheckBits(map.data(), 32, 60, 10, 0));
  // A run covering a whole word and the ends of its neighbours.
  ext_SetBits(map.data(), 32, 120, 80, 0);  // 120..199
  EXPECT_EQ(ext_FindBits(map.data(), 32, 80, 0), 120);
  EXPECT_EQ(ext_FindBits(map.data(), 32, 11, 0), 120);
  EXPECT_EQ(map[15], 0x00);
  EXPECT_EQ(map[14], 0xFF);
  EXPECT_EQ(map[24], 0x00);
  EXPECT_EQ(map[25], 0xFF);
  EXPECT_TRUE(ext_CheckBits(map.data(), 32, 200, 56, 1));
}

TEST(ExtBits, LengthsThatAreNotWholeWords) {
  std::vector<uint8_t> map(13, 0xFF);  // 104 bits
  ext_SetBits(map.data(), 13, 96, 8, 0);  // the last byte
  EXPECT_EQ(ext_FindBits(map.data(), 13, 8, 0), 96);
  EXPECT_EQ(ext_FindBits(map.data(), 13, 9, 0), -1);  // nothing beyond the map counts
  ext_SetBits(map.data(), 13, 100, 50, 1);            // clipped at the end
  EXPECT_EQ(map[12], 0xF0);
  EXPECT_EQ(ext_FindBits(map.data(), 13, 1, 0), 96);
  EXPECT_EQ(ext_FindBits(map.data(), 13, 5, 0), -1);
  EXPECT_FALSE(ext_CheckBits(map.data(), 13, 100, 5, 1));  // reaches past 104
  EXPECT_TRUE(ext_CheckBits(map.data(), 13, 100, 4, 1));
  // A run of set bits ending at the last bit of an odd-sized map.
  std::vector<uint8_t> small(3, 0);
  ext_SetBits(small.data(), 3, 20, 4, 1);
  EXPECT_EQ(ext_FindBits(small.data(), 3, 4, 1), 20);
  EXPECT_EQ(ext_FindBits(small.data(), 3, 5, 1), -1);
  EXPECT_EQ(ext_FindBits(small.data(), 3, 20, 0), 0);
  EXPECT_EQ(ext_FindBits(small.data(), 3, 21, 0), -1);
}

TEST(ExtBits, OneMebibyteMapScan) {
  const uint32_t len = 1 << 20;
  std::vector<uint8_t> map(len, 0xFF);
  const uint32_t hole = len * 8 - 1000;
  ext_SetBits(map.data(), len, hole, 100, 0);
  ext_SetBits(map.data(), len, 12345, 50, 0);  // too short for 100
  EXPECT_EQ(ext_FindBits(map.data(), len, 100, 0), static_cast<int64_t>(hole));
  EXPECT_EQ(ext_FindBits(map.data(), len, 50, 0), 12345);
  EXPECT_EQ(ext_FindBits(map.data(), len, 101, 0), -1);
  EXPECT_TRUE(ext_CheckBits(map.data(), len, hole, 100, 0));
  std::vector<uint8_t> empty(len, 0);
  EXPECT_EQ(ext_FindBits(empty.data(), len, len * 8, 0), 0);
  EXPECT_EQ(ext_FindBits(empty.data(), len, 1, 1), -1);
}

}  // namespace
