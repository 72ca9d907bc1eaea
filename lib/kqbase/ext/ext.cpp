// ext_: bit-set search and update, scanning whole 64-bit words where it can.
#include "ext.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace {

// Loads the 64 bits starting at bit 64*w, with bits beyond the map set to
// the complement of `value` so that they never extend a run.
uint64_t loadWord(const uint8_t* map, uint32_t lenBytes, uint64_t w, int value) {
  uint64_t byte = w * 8;
  uint64_t word = 0;
  uint64_t avail = lenBytes - byte;
  if (avail >= 8) {
    std::memcpy(&word, map + byte, 8);  // host is little-endian, as is the map
    return word;
  }
  std::memcpy(&word, map + byte, static_cast<size_t>(avail));
  uint64_t validMask = avail == 0 ? 0 : (~uint64_t{0} >> (64 - avail * 8));
  return value ? (word & validMask) : (word | ~validMask);
}

// Stretches of a map without a single wanted bit: all ones when zeros are
// wanted, all zeros when ones are.
constexpr size_t kStretch = 256;
constexpr uint64_t kStretchWords = kStretch / 8;
constexpr std::array<uint8_t, kStretch> Filled(uint8_t v) {
  std::array<uint8_t, kStretch> a{};
  for (auto& b : a) b = v;
  return a;
}
constexpr std::array<uint8_t, kStretch> kAllOnes = Filled(0xFF);
constexpr std::array<uint8_t, kStretch> kAllZeros = Filled(0x00);

bool getBit(const uint8_t* map, uint64_t bit) { return (map[bit >> 3] >> (bit & 7)) & 1; }

}  // namespace

int64_t ext_FindBits(const uint8_t* map, uint32_t lenBytes, uint32_t count, int value) {
  if (count == 0) return -1;
  const uint64_t totalBits = uint64_t{lenBytes} * 8;
  if (count > totalBits) return -1;
  const uint64_t words = (uint64_t{lenBytes} + 7) / 8;
  uint64_t runStart = 0, runLen = 0;
  // Words wholly inside the map, which can be compared without loadWord's
  // care for a partial last word.
  const uint64_t fullWords = lenBytes / 8;
  const uint64_t noMatch = value ? 0 : ~uint64_t{0};  // a word without one wanted bit
  for (uint64_t w = 0; w < words; ++w) {
    if (runLen == 0) {
      // Outside a run, words without a wanted bit are skipped: in a map
      // that fills from the front, this is most of the map. Long stretches
      // go 256 bytes at a time through memcmp (which compares with vector
      // instructions where the processor has them), the rest four words
      // at a time.
      const uint8_t* none = value ? kAllZeros.data() : kAllOnes.data();
      while (w + kStretchWords <= fullWords && std::memcmp(map + w * 8, none, kStretch) == 0)
        w += kStretchWords;
      while (w + 4 <= fullWords) {
        uint64_t q[4];
        std::memcpy(q, map + w * 8, sizeof q);
        if (q[0] != noMatch || q[1] != noMatch || q[2] != noMatch || q[3] != noMatch) break;
        w += 4;
      }
      if (w >= words) break;
    }
    uint64_t word = loadWord(map, lenBytes, w, value);
    uint64_t match = value ? word : ~word;  // 1 where the bit equals value
    if (match == ~uint64_t{0}) {
      if (runLen == 0) runStart = w * 64;
      runLen += 64;
      if (runLen >= count) return static_cast<int64_t>(runStart);
      continue;
    }
    if (match == 0) {
      runLen = 0;
      continue;
    }
    // A word with both kinds of bits: its runs are taken whole, by
    // counting trailing bits, rather than bit by bit. A run carried in from
    // the previous word goes on with this word's lowest bits.
    unsigned pos = 0;
    if (runLen != 0) {
      const unsigned ones = static_cast<unsigned>(std::countr_one(match));
      if (runLen + ones >= count) return static_cast<int64_t>(runStart);
      runLen = 0;
      pos = ones;
    }
    while (pos < 64) {
      const uint64_t rest = match >> pos;
      if (rest == 0) break;
      pos += static_cast<unsigned>(std::countr_zero(rest));
      // Ones from pos up; a run that reaches the top continues next word.
      const unsigned ones = std::min(static_cast<unsigned>(std::countr_one(match >> pos)), 64 - pos);
      if (ones >= count) return static_cast<int64_t>(w * 64 + pos);
      if (pos + ones == 64) {
        runStart = w * 64 + pos;
        runLen = ones;
        break;
      }
      pos += ones;
    }
  }
  return -1;
}

void ext_SetBits(uint8_t* map, uint32_t lenBytes, uint32_t first, uint32_t count, int value) {
  const uint64_t totalBits = uint64_t{lenBytes} * 8;
  uint64_t bit = first;
  uint64_t end = std::min<uint64_t>(uint64_t{first} + count, totalBits);
  // Bits past the end of the map are not there to change; a range that
  // starts past it changes nothing (the run length below would wrap).
  if (bit >= end) return;
  while (bit < end && (bit & 7) != 0) {
    if (value) map[bit >> 3] |= static_cast<uint8_t>(1u << (bit & 7));
    else map[bit >> 3] &= static_cast<uint8_t>(~(1u << (bit & 7)));
    ++bit;
  }
  if (end - bit >= 8) {
    uint64_t bytes = (end - bit) / 8;
    std::memset(map + (bit >> 3), value ? 0xFF : 0x00, static_cast<size_t>(bytes));
    bit += bytes * 8;
  }
  while (bit < end) {
    if (value) map[bit >> 3] |= static_cast<uint8_t>(1u << (bit & 7));
    else map[bit >> 3] &= static_cast<uint8_t>(~(1u << (bit & 7)));
    ++bit;
  }
}

bool ext_CheckBits(const uint8_t* map, uint32_t lenBytes, uint32_t first, uint32_t count, int value) {
  const uint64_t totalBits = uint64_t{lenBytes} * 8;
  if (uint64_t{first} + count > totalBits) return false;
  for (uint64_t bit = first; bit < uint64_t{first} + count; ++bit) {
    if (getBit(map, bit) != (value != 0)) return false;
  }
  return true;
}
