// le_: little-endian coding of fixed-width unsigned integers in byte
// buffers. Whatever crosses a file or a message queue is laid down byte by
// byte in this order, so that nothing depends on the host's own order or on
// the alignment of the buffer. It knows nothing of what the bytes mean: the
// container records and the interest protocol's messages both use it.
#ifndef KQ_LE_H
#define KQ_LE_H

#include <cstdint>

inline void le_PutU16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

inline void le_PutU32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint16_t le_GetU16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

inline uint32_t le_GetU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

#endif  // KQ_LE_H
