// Encoding and decoding of the on-disk records, and block arithmetic.
#include <cstring>

#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_records.h"

void sfl_EncodeFileHeader(const sfl_FileHeader& h, std::span<uint8_t, SFL_FILE_HEADER_SIZE> out) {
  std::memset(out.data(), 0, out.size());
  uint8_t* p = out.data();
  sfl_PutU32(p + sfl_fh::Magic, h.Magic);
  sfl_PutU32(p + sfl_fh::Type, h.Type);
  sfl_PutU32(p + sfl_fh::HeaderSize, h.HeaderSize);
  sfl_PutU32(p + sfl_fh::HeaderVersion, h.HeaderVersion);
  sfl_PutU16(p + sfl_fh::UsedItems, h.UsedItems);
  sfl_PutU16(p + sfl_fh::MaxItems, h.MaxItems);
  sfl_PutU32(p + sfl_fh::Flags, h.Flags);
  sfl_PutU32(p + sfl_fh::TableOffset, h.TableOffset);
  sfl_PutU32(p + sfl_fh::DataOffset, h.DataOffset);
  p[sfl_fh::InUseItms] = h.InUseItms;
}

sfl_FileHeader sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE> in) {
  const uint8_t* p = in.data();
  sfl_FileHeader h;
  h.Magic = sfl_GetU32(p + sfl_fh::Magic);
  h.Type = sfl_GetU32(p + sfl_fh::Type);
  h.HeaderSize = sfl_GetU32(p + sfl_fh::HeaderSize);
  h.HeaderVersion = sfl_GetU32(p + sfl_fh::HeaderVersion);
  h.UsedItems = sfl_GetU16(p + sfl_fh::UsedItems);
  h.MaxItems = sfl_GetU16(p + sfl_fh::MaxItems);
  h.Flags = sfl_GetU32(p + sfl_fh::Flags);
  h.TableOffset = sfl_GetU32(p + sfl_fh::TableOffset);
  h.DataOffset = sfl_GetU32(p + sfl_fh::DataOffset);
  h.InUseItms = p[sfl_fh::InUseItms];
  return h;
}

void sfl_EncodeItemHeader(const sfl_ItemHeader& h, std::span<uint8_t, SFL_ITEM_HEADER_SIZE> out) {
  std::memset(out.data(), 0, out.size());
  uint8_t* p = out.data();
  sfl_PutU32(p + sfl_ih::Magic, h.Magic);
  sfl_PutU32(p + sfl_ih::Type, h.Type);
  sfl_PutU32(p + sfl_ih::AccCount, h.AccCount);
  sfl_PutU32(p + sfl_ih::FileSize, h.FileSize);
  sfl_PutU32(p + sfl_ih::UsedBlocks, h.UsedBlocks);
  sfl_PutU32(p + sfl_ih::ChangeDate, h.ChangeDate);
  sfl_PutU32(p + sfl_ih::FileOffset, h.FileOffset);
  sfl_PutU32(p + sfl_ih::IndexDepth, h.IndexDepth);
  sfl_PutU32(p + sfl_ih::Flags, h.Flags);
}

sfl_ItemHeader sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE> in) {
  const uint8_t* p = in.data();
  sfl_ItemHeader h;
  h.Magic = sfl_GetU32(p + sfl_ih::Magic);
  h.Type = sfl_GetU32(p + sfl_ih::Type);
  h.AccCount = sfl_GetU32(p + sfl_ih::AccCount);
  h.FileSize = sfl_GetU32(p + sfl_ih::FileSize);
  h.UsedBlocks = sfl_GetU32(p + sfl_ih::UsedBlocks);
  h.ChangeDate = sfl_GetU32(p + sfl_ih::ChangeDate);
  h.FileOffset = sfl_GetU32(p + sfl_ih::FileOffset);
  h.IndexDepth = sfl_GetU32(p + sfl_ih::IndexDepth);
  h.Flags = sfl_GetU32(p + sfl_ih::Flags);
  return h;
}

void sfl_EncodeIndex(const sfl_IndexRecord& r, std::span<uint8_t, SFL_INDEX_SIZE> out) {
  std::memset(out.data(), 0, out.size());
  uint8_t* p = out.data();
  sfl_PutU32(p + sfl_ix::Magic, r.Magic);
  sfl_PutU32(p + sfl_ix::Type, r.Type);
  sfl_PutU32(p + sfl_ix::Depth, r.Depth);
  sfl_PutU32(p + sfl_ix::Used, r.Used);
  sfl_PutU32(p + sfl_ix::EverUsed, r.EverUsed);
  sfl_PutU32(p + sfl_ix::BaseBlockNum, r.BaseBlockNum);
  sfl_PutU32(p + sfl_ix::ParentOff, r.ParentOff);
  sfl_PutU32(p + sfl_ix::FreeMap, r.FreeMap);
  for (uint32_t i = 0; i < SFL_INDEX_ENTRIES; ++i) {
    uint8_t* e = p + sfl_ix::Entries + i * sfl_ix::EntrySize;
    sfl_PutU32(e, r.Entries[i].SectionOffSet);
    sfl_PutU32(e + 4, r.Entries[i].SectionSize);
  }
}

sfl_IndexRecord sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE> in) {
  const uint8_t* p = in.data();
  sfl_IndexRecord r;
  r.Magic = sfl_GetU32(p + sfl_ix::Magic);
  r.Type = sfl_GetU32(p + sfl_ix::Type);
  r.Depth = sfl_GetU32(p + sfl_ix::Depth);
  r.Used = sfl_GetU32(p + sfl_ix::Used);
  r.EverUsed = sfl_GetU32(p + sfl_ix::EverUsed);
  r.BaseBlockNum = sfl_GetU32(p + sfl_ix::BaseBlockNum);
  r.ParentOff = sfl_GetU32(p + sfl_ix::ParentOff);
  r.FreeMap = sfl_GetU32(p + sfl_ix::FreeMap);
  for (uint32_t i = 0; i < SFL_INDEX_ENTRIES; ++i) {
    const uint8_t* e = p + sfl_ix::Entries + i * sfl_ix::EntrySize;
    r.Entries[i].SectionOffSet = sfl_GetU32(e);
    r.Entries[i].SectionSize = sfl_GetU32(e + 4);
  }
  return r;
}

sfl_ItemHeader sfl_NewItemHeader() {
  sfl_ItemHeader h;
  h.Magic = SFL_MAGIC;
  h.Type = SFL_TYPE_ITEM_HEADER;
  return h;
}

sfl_IndexRecord sfl_NewIndexRecord() {
  sfl_IndexRecord r;
  r.Magic = SFL_MAGIC;
  r.Type = SFL_TYPE_INDEX;
  return r;
}

extern "C" uint32_t sfl_CalculateBlocks(uint32_t size) {
  return size / SFL_BLOCK_SIZE + (size % SFL_BLOCK_SIZE != 0 ? 1 : 0);
}
