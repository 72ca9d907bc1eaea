// The on-disk records of an SFL file: sizes, field offsets, the decoded
// forms the library works with, and their encoders and decoders (sfl_gen).
#ifndef SFL_RECORDS_H
#define SFL_RECORDS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

constexpr uint32_t SFL_MAGIC = 12345678;  // 0x00BC614E
constexpr uint32_t SFL_TYPE_FILE_HEADER = 16;
constexpr uint32_t SFL_TYPE_ITEM_HEADER = 17;
constexpr uint32_t SFL_TYPE_INDEX = 18;
constexpr uint32_t SFL_HEADER_VERSION = 2;

constexpr size_t SFL_BLOCK_SIZE = 128;
constexpr size_t SFL_FILE_HEADER_SIZE = 128;
constexpr size_t SFL_ITEM_HEADER_SIZE = 64;
constexpr size_t SFL_INDEX_SIZE = 384;
constexpr uint32_t SFL_INDEX_ENTRIES = 32;

// Creation layout.
constexpr uint32_t SFL_TABLE_OFFSET = 128;
constexpr uint32_t SFL_CONTAINER_MAX_ITEMS = 8;
constexpr uint32_t SFL_SINGLE_MAX_ITEMS = 2;
constexpr uint32_t SFL_CONTAINER_DATA_OFFSET = 640;
constexpr uint32_t SFL_SINGLE_DATA_OFFSET = 256;
constexpr uint32_t SFL_INITIAL_MAP_SIZE = 256;

// File header field offsets.
namespace sfl_fh {
constexpr size_t Magic = 0, Type = 4, HeaderSize = 8, HeaderVersion = 12, UsedItems = 16,
                 MaxItems = 18, Flags = 20, TableOffset = 24, DataOffset = 28, InUseItms = 32;
}
// Item header field offsets.
namespace sfl_ih {
constexpr size_t Magic = 0, Type = 4, AccCount = 8, FileSize = 12, UsedBlocks = 16,
                 ChangeDate = 20, FileOffset = 24, IndexDepth = 28, Flags = 32;
}
// Index record field offsets.
namespace sfl_ix {
constexpr size_t Magic = 0, Type = 4, Depth = 8, Used = 12, EverUsed = 16, BaseBlockNum = 20,
                 ParentOff = 24, FreeMap = 28, Entries = 32, EntrySize = 8;
}
static_assert(sfl_fh::InUseItms + 1 + 95 == SFL_FILE_HEADER_SIZE);
static_assert(sfl_ih::Flags + 4 + 28 == SFL_ITEM_HEADER_SIZE);
static_assert(sfl_ix::Entries + SFL_INDEX_ENTRIES * sfl_ix::EntrySize + 96 == SFL_INDEX_SIZE);
static_assert(SFL_TABLE_OFFSET + SFL_CONTAINER_MAX_ITEMS * SFL_ITEM_HEADER_SIZE ==
              SFL_CONTAINER_DATA_OFFSET);
static_assert(SFL_TABLE_OFFSET + SFL_SINGLE_MAX_ITEMS * SFL_ITEM_HEADER_SIZE ==
              SFL_SINGLE_DATA_OFFSET);

struct sfl_FileHeader {
  uint32_t Magic = 0;
  uint32_t Type = 0;
  uint32_t HeaderSize = 0;
  uint32_t HeaderVersion = 0;
  uint16_t UsedItems = 0;
  uint16_t MaxItems = 0;
  uint32_t Flags = 0;
  uint32_t TableOffset = 0;
  uint32_t DataOffset = 0;
  uint8_t InUseItms = 0;  // one-byte in-use map: bit n = slot n
};

struct sfl_ItemHeader {
  uint32_t Magic = 0;
  uint32_t Type = 0;
  uint32_t AccCount = 0;
  uint32_t FileSize = 0;
  uint32_t UsedBlocks = 0;
  uint32_t ChangeDate = 0;
  uint32_t FileOffset = 0;
  uint32_t IndexDepth = 0;
  uint32_t Flags = 0;
};

struct sfl_IndexEntry {
  uint32_t SectionOffSet = 0;
  uint32_t SectionSize = 0;
};

struct sfl_IndexRecord {
  uint32_t Magic = 0;
  uint32_t Type = 0;
  uint32_t Depth = 0;
  uint32_t Used = 0;
  uint32_t EverUsed = 0;
  uint32_t BaseBlockNum = 0;
  uint32_t ParentOff = 0;
  uint32_t FreeMap = 0;
  std::array<sfl_IndexEntry, SFL_INDEX_ENTRIES> Entries{};
};

using sfl_FileHeaderBytes = std::array<uint8_t, SFL_FILE_HEADER_SIZE>;
using sfl_ItemHeaderBytes = std::array<uint8_t, SFL_ITEM_HEADER_SIZE>;
using sfl_IndexBytes = std::array<uint8_t, SFL_INDEX_SIZE>;

// Encoders write every byte of the record (reserved bytes as zero).
void sfl_EncodeFileHeader(const sfl_FileHeader& h, std::span<uint8_t, SFL_FILE_HEADER_SIZE> out);
sfl_FileHeader sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE> in);
void sfl_EncodeItemHeader(const sfl_ItemHeader& h, std::span<uint8_t, SFL_ITEM_HEADER_SIZE> out);
sfl_ItemHeader sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE> in);
void sfl_EncodeIndex(const sfl_IndexRecord& r, std::span<uint8_t, SFL_INDEX_SIZE> out);
sfl_IndexRecord sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE> in);

// A fresh, valid record with magic and type filled in.
sfl_ItemHeader sfl_NewItemHeader();
sfl_IndexRecord sfl_NewIndexRecord();

#endif  // SFL_RECORDS_H
