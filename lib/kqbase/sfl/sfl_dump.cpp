// Diagnostic dumps: the on-disk records (file header, item header, index
// entries and index records) as text for people investigating a container,
// the blocks of a blocked item, and the open-files table. The open-items and
// stream tables are dumped beside their tables (sfl_ihands, sfl_l3hand).
// sfl_DumpContainer puts the record dumps together for a whole open file.
//
// The record dumps take the raw record bytes as they lie in the file and
// decode them field by field; they check nothing and change nothing, so a
// damaged record is shown as it is. Output errors are ignored.
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <vector>
#include <sys/stat.h>

#include "date.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"

namespace {

// %d conversions print the 32-bit fields as signed numbers, as the formats
// have always shown them.
int Signed(uint32_t v) { return static_cast<int>(v); }

// Eight '1'/'0' characters, least significant bit first, then a space.
void PutBits(FILE* out, uint8_t byte) {
  for (int bit = 0; bit < 8; ++bit) std::fputc((byte >> bit) & 1 ? '1' : '0', out);
  std::fputc(' ', out);
}

struct FlagName {
  uint32_t bit;
  const char* name;
};

// Prints "NAME " for every set bit in table order, and a newline after them
// when at least one was printed.
template <size_t N>
void PutFlagNames(FILE* out, uint32_t flags, const FlagName (&names)[N]) {
  bool any = false;
  for (const FlagName& f : names) {
    if ((flags & f.bit) == 0) continue;
    std::fprintf(out, "%s ", f.name);
    any = true;
  }
  if (any) std::fputc('\n', out);
}

// Bit 0x04 is listed twice on purpose: it is BEEN_COMPACTED in a file and
// USER_ASYNC in the creation flags, and the dump shows both readings.
constexpr FlagName kFileFlags[] = {
    {SINGLE_FILE, "SINGLE_FILE"},         {ASYNCHRONOUS, "ASYNCHRONOUS"},
    {BEEN_COMPACTED, "BEEN_COMPACTED"},   {USER_ASYNC, "USER_ASYNC"},
    {ITEM_PEND_DEL, "ITEM_PEND_DEL"},     {NEED_COMPACTION, "NEED_COMPACTION"},
    {HAS_BEEN_COMPACTED, "HAS_BEEN_COMPACTED"},
};

constexpr FlagName kItemFlags[] = {
    {BLOCKED_ITEM, "BLOCKED_ITEM"}, {HAS_INT_ITEM, "HAS_INT_ITEM"}, {INT_ITEM, "INT_ITEM"},
    {DELETED, "DELETED"},           {OTHER_LOCKS, "OTHER_LOCKS"},   {MEM_FREEMAP, "MEM_FREEMAP"},
};

// Reads exactly `N` bytes at `offset` of an open file or raises 28871.
template <size_t N>
std::array<uint8_t, N> ReadRaw(sfl_BaseRec* rec, uint32_t offset) {
  std::array<uint8_t, N> bytes{};
  if (sfl_PRead(rec, bytes.data(), N, offset) != static_cast<ssize_t>(N)) SFL_RAISE(SFL_R_SHORT_READ);
  return bytes;
}

// The largest block a blocked item can hold is longer than anyone reads
// whole in a listing; the listing only reports each block's length.
constexpr uint32_t kListBufferSize = 10000;

}  // namespace

extern "C" void sfl_DumpHeader(FILE* out, const uint8_t* header, uint32_t offset) {
  const sfl_FileHeader h =
      sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(header, SFL_FILE_HEADER_SIZE));
  std::fprintf(out, "=HHHHHHHHHHHHHHHHHHHHHHHH=\n");
  std::fprintf(out, "Location=0x%08x (%d)\n", offset, Signed(offset));
  std::fprintf(out, "HeaderSize=%d\n", Signed(h.HeaderSize));
  std::fprintf(out, "HeaderVersion=%d\n", Signed(h.HeaderVersion));
  std::fprintf(out, "UsedItems=%d\n", h.UsedItems);
  std::fprintf(out, "MaxItems=%d\n", h.MaxItems);
  std::fprintf(out, "Flags=0x%08x\n", h.Flags);
  PutFlagNames(out, h.Flags, kFileFlags);
  std::fprintf(out, "TableOffset=0x%08x\n", h.TableOffset);
  std::fprintf(out, "DataOffset=0x%08x\n", h.DataOffset);
  std::fprintf(out, "InUseItms BitMap=");
  PutBits(out, h.InUseItms);
  std::fputc('\n', out);
}

extern "C" void sfl_DumpItemHeader(FILE* out, const uint8_t* header, uint32_t offset) {
  const sfl_ItemHeader h =
      sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(header, SFL_ITEM_HEADER_SIZE));
  char when[date_TextLength(1) + 1];
  date_FormatDateAndTime(h.ChangeDate, " ", when, sizeof when);
  std::fprintf(out, "=IIIIIIIIIIIIIIIIIIIIIIII=\n");
  std::fprintf(out, "Location=0x%08x (%d)\n", offset, Signed(offset));
  std::fprintf(out, "AccCount=%d\n", Signed(h.AccCount));
  std::fprintf(out, "FileSize=0x%08x (%d)\n", h.FileSize, Signed(h.FileSize));
  std::fprintf(out, "UsedBlocks=%d\n", Signed(h.UsedBlocks));
  std::fprintf(out, "ChangeDate=%s\n", when);
  std::fprintf(out, "FileOffset=0x%08x (%d)\n", h.FileOffset, Signed(h.FileOffset));
  std::fprintf(out, "IndexDepth=%d\n", Signed(h.IndexDepth));
  std::fprintf(out, "Flags=0x%08x\n", h.Flags);
  PutFlagNames(out, h.Flags, kItemFlags);
}

extern "C" void sfl_DumpIndexRecord(FILE* out, const uint8_t* entry, int32_t entryNum) {
  const uint32_t offset = sfl_GetU32(entry);
  const uint32_t size = sfl_GetU32(entry + 4);
  if (offset == 0 && size == 0) return;
  std::fprintf(out, "%2d:SectionOffSet=0x%08x (%d)\n", entryNum, offset, Signed(offset));
  std::fprintf(out, "%2d:SectionSize  =0x%08x (%d)\n", entryNum, size, Signed(size));
}

extern "C" void sfl_DumpBlockedIndex(FILE* out, const uint8_t* record, uint32_t offset) {
  const sfl_IndexRecord r =
      sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE>(record, SFL_INDEX_SIZE));
  std::fprintf(out, "=XXXXXXXXXXXXXXXXXXXXXXXX=\n");
  std::fprintf(out, "Location=0x%08x (%d)\n", offset, Signed(offset));
  std::fprintf(out, "Depth=%d\n", Signed(r.Depth));
  std::fprintf(out, "Used=%d\n", Signed(r.Used));
  std::fprintf(out, "EverUsed=%d\n", Signed(r.EverUsed));
  std::fprintf(out, "BaseBlockNum=%d\n", Signed(r.BaseBlockNum));
  std::fprintf(out, "ParentOff=0x%08x (%d)\n", r.ParentOff, Signed(r.ParentOff));
  std::fprintf(out, "FreeMap=");
  for (size_t i = 0; i < 4; ++i) PutBits(out, record[sfl_ix::FreeMap + i]);
  std::fputc('\n', out);
  for (uint32_t e = 0; e < SFL_INDEX_ENTRIES; ++e)
    sfl_DumpIndexRecord(out, record + sfl_ix::Entries + e * sfl_ix::EntrySize,
                        static_cast<int32_t>(e));
}

// Reads the blocks by number from 0. An empty entry on the way (28875) is a
// hole and is listed as unused; a number at or past the highest entry ever
// used of its leaf (28876) ends the listing; anything else passes on.
//
// The tree comes from the file: a damaged one, deep and full of empty
// entries or of entries that all name the same records, could have the
// walk list billions of records. Each listed record is an entry of a leaf,
// a leaf holds 32 and is a 384-byte record of the file, so the walk lists
// at most 32 records for every 384 bytes of the file (and one leaf more);
// a tree that names more than that is more than the file holds, and the
// listing stops there and says so.
extern "C" void sfl_ListIndexTree(FILE* out, int32_t itemHandle) {
  ER_TRACE_PROC("sfl_ListIndexTree");
  const sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  struct stat st {};
  if (os_fstat(item->BaseRecord->FileDes, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  const uint64_t limit = uint64_t{SFL_INDEX_ENTRIES} * (static_cast<uint64_t>(st.st_size) / SFL_INDEX_SIZE + 1);
  std::vector<uint8_t> buffer(kListBufferSize);
  // Block numbers are 32-bit: a tree deep enough to cover more numbers than
  // that stops at the last one instead of wrapping round to block 0.
  for (uint64_t n = 0; n <= UINT32_MAX; ++n) {
    const uint32_t block = static_cast<uint32_t>(n);
    if (n == limit) {
      std::fprintf(out, "Listing stopped at record %d: the index names more records than the file can hold\n",
                   Signed(block));
      return;
    }
    if (block % SFL_INDEX_ENTRIES == 0) std::fprintf(out, "------> BaseBlock=%d\n", Signed(block));
    try {
      const uint32_t length =
          sfl_ReadBlockedData(itemHandle, block, kListBufferSize, buffer.data());
      if (length > 0) std::fprintf(out, "Record %5d is %5d Bytes\n", Signed(block), Signed(length));
    } catch (const er_Escape& e) {
      if (e.group() != ER_GROUP_SFL) throw;
      if (e.reason() == SFL_R_EMPTY_ENTRY) {
        er_Clear();
        std::fprintf(out, "Record %5d is UNUSED\n", Signed(block));
      } else if (e.reason() == SFL_R_BAD_SLOT) {
        er_Clear();
        return;
      } else {
        throw;
      }
    }
  }
}

extern "C" int32_t sfl_DumpBaseItems(void) {
  const sfl_FilesTable& table = sfl_OpenFiles();
  for (size_t i = 0; i < table.HighWater() && i < table.Allocated(); ++i) {
    const sfl_BaseRec* rec = table.At(i);
    if (rec->InUse != 1) continue;
    const sfl_ItemRef ref = sfl_RefOf(*rec);
    char name[PATH_MAX];
    im_ItemRef2FName(&ref, name, sizeof name);
    std::fprintf(stderr, "Entry Number: %5d : FileName %s\n",
                 SFL_BASE_HANDLE_FIRST + static_cast<int>(i), name);
    std::fprintf(stderr,
                 "Domain %13u, SubDomain %10u, Flags %4u, FileId %10u\n"
                 "FileDes %12u, IntItemsOpen %7u, ExternalOpens %5u\n"
                 "ITableOff %10X, DataOff %12X, ProcAccCount %5u\n\n",
                 unsigned{rec->Domain}, rec->SubDomain, unsigned{rec->RefFlags}, rec->FileId,
                 static_cast<unsigned>(rec->FileDes), static_cast<unsigned>(rec->IntItemsOpen),
                 static_cast<unsigned>(rec->ExternalOpens), rec->ITableOff, rec->DataOff,
                 rec->ProcAccCount);
  }
  return static_cast<int32_t>(table.HighWater());
}

// The file header and item table are read together under the shared
// file-header lock, then released: a blocked item's header and tree are read
// again under that item's own shared header lock (as every reader of a tree
// does), never while the file-header lock is held, so the dump waits on one
// lock at a time.
extern "C" void sfl_DumpContainer(FILE* out, int32_t baseHandle, int32_t item) {
  ER_TRACE_PROC("sfl_DumpContainer");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);

  sfl_Held fileLock;
  fileLock.Header(rec, SFL_LOCK_SHARED);
  const sfl_FileHeaderBytes headerBytes = ReadRaw<SFL_FILE_HEADER_SIZE>(rec, 0);
  const sfl_FileHeader fh = sfl_DecodeFileHeader(headerBytes);
  // The in-use map is one byte, so no file has more than eight slots to show.
  const uint32_t slots = std::min<uint32_t>(fh.MaxItems, 8);
  if (item < -1 || item >= static_cast<int32_t>(slots)) SFL_RAISE(SFL_R_NO_ITEM);
  std::vector<sfl_ItemHeaderBytes> table(slots);
  for (uint32_t i = 0; i < slots; ++i)
    table[i] = ReadRaw<SFL_ITEM_HEADER_SIZE>(rec, fh.TableOffset + i * SFL_ITEM_HEADER_SIZE);
  fileLock.Unlock();

  if (item == -1) sfl_DumpHeader(out, headerBytes.data(), 0);
  for (uint32_t i = 0; i < slots; ++i) {
    const bool inUse = ((fh.InUseItms >> i) & 1u) != 0;
    if (item == -1 ? !inUse : static_cast<uint32_t>(item) != i) continue;
    const uint32_t at = fh.TableOffset + i * SFL_ITEM_HEADER_SIZE;
    const sfl_ItemHeader first = sfl_DecodeItemHeader(table[i]);
    if ((first.Flags & BLOCKED_ITEM) == 0) {
      sfl_DumpItemHeader(out, table[i].data(), at);
      continue;
    }
    sfl_Held itemLock;
    if ((first.Flags & OTHER_LOCKS) == 0) itemLock.IntHeader(rec, at, SFL_LOCK_SHARED);
    const sfl_ItemHeaderBytes bytes = ReadRaw<SFL_ITEM_HEADER_SIZE>(rec, at);
    const sfl_ItemHeader h = sfl_DecodeItemHeader(bytes);
    sfl_DumpItemHeader(out, bytes.data(), at);
    if ((h.Flags & BLOCKED_ITEM) == 0 || h.FileOffset == 0) continue;
    sfl_WalkIndexTree(rec, h.FileOffset, [out](uint32_t off, const sfl_IndexRecord& r, uint64_t) {
      sfl_IndexBytes record{};
      sfl_EncodeIndex(r, record);
      sfl_DumpBlockedIndex(out, record.data(), off);
      return true;
    });
    itemLock.Unlock();
  }
}
