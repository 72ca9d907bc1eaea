// Items across processes: what one process stores another reads back byte
// for byte; deletion while another process holds the file; removal of an
// emptied container; attach and detach counted across processes. Every
// process talks to the same interest service of this test's run directory.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::Gate;

std::vector<uint8_t> Pattern(size_t n, uint32_t seed) { return sfltest::PseudoRandomBytes(n, seed, 7); }

sfl_ItemRef SourceFile(const std::vector<uint8_t>& bytes) {
  sfl_ItemRef ref{};
  int fd = im_GetNewDataItem(&ref);
  if (fd < 0) std::abort();
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) std::abort();
    done += static_cast<size_t>(n);
  }
  close(fd);
  return ref;
}

sfl_ItemRef FileOf(sfl_ItemRef ref) {
  ref.Flags = static_cast<uint16_t>(ref.Flags & ~SFL_ITEM_NUM_MASK);
  return ref;
}

std::string PathOf(const sfl_ItemRef& ref) {
  char path[4096];
  im_GetRealFileName(&ref, path, sizeof path);
  return path;
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

constexpr auto Slot = sfltest::SlotOf;
using sfltest::FileHeaderOf;

// Whether every block of a run is clear in the file's free map.
bool RunIsFree(int32_t bh, uint32_t offset, uint32_t blocks) {
  const std::vector<uint8_t> map = sfltest::FreeMapOf(bh);
  for (uint32_t b = offset / 128; b < offset / 128 + blocks; ++b)
    if (map[b / 8] & (1u << (b % 8))) return false;
  return true;
}

// ---- store here, read there ------------------------------------------------------------------

// How an item's bytes come about.
enum class Fill : uint32_t {
  SourceZeroFilled,  // a source half the size; the rest zero filled
  SourceNoZeroFill,  // a source of the full size, no zero fill
  ZeroFilled,        // no source; zero fill, nothing written
  Written,           // no source, no zero fill; the bytes written afterwards
};

struct Stored {
  uint32_t size;
  Fill fill;
  uint32_t seed;
  sfl_ItemRef ref;
};

std::vector<uint8_t> Expected(const Stored& s) {
  switch (s.fill) {
    case Fill::SourceZeroFilled: {
      std::vector<uint8_t> v = Pattern(s.size / 2, s.seed);
      v.resize(s.size, 0);
      return v;
    }
    case Fill::SourceNoZeroFill:
    case Fill::Written:
      return Pattern(s.size, s.seed);
    case Fill::ZeroFilled:
      return std::vector<uint8_t>(s.size, 0);
  }
  return {};
}

constexpr uint32_t kSizes[] = {0, 1, 127, 128, 129, 8191, 8192, 8193, 1u << 20};
constexpr Fill kFills[] = {Fill::SourceZeroFilled, Fill::SourceNoZeroFill, Fill::ZeroFilled,
                           Fill::Written};

// The writer: stores every case, moving on to the container the store
// fell back to whenever the current one is full. Returns what it stored.
std::vector<Stored> WriteAll(sfl_ItemRef file, int* containers) {
  std::vector<Stored> out;
  *containers = 1;
  uint32_t seed = 1;
  for (uint32_t size : kSizes) {
    for (Fill fill : kFills) {
      Stored s{size, fill, seed++, {}};
      const sfl_ItemRef* source = nullptr;
      sfl_ItemRef src{};
      uint32_t sizeArg = size;
      uint32_t noZeroFill = 0;
      if (fill == Fill::SourceZeroFilled) {
        src = SourceFile(Pattern(size / 2, s.seed));
        source = &src;
        if (size == 0) sizeArg = 0;  // an empty source gives an empty item
      } else if (fill == Fill::SourceNoZeroFill) {
        src = SourceFile(Pattern(size, s.seed));
        source = &src;
        sizeArg = 0;  // the size comes from the source
        noZeroFill = 1;
      } else if (fill == Fill::Written) {
        noZeroFill = 1;
      }
      int32_t h = sfl_AddItemToFile(&file, sizeArg, noZeroFill, source, 0, &s.ref);
      if (h < SFL_ITEM_HANDLE_FIRST) return {};
      if (fill == Fill::Written) {
        std::vector<uint8_t> bytes = Pattern(size, s.seed);
        for (uint32_t at = 0; at < size;) {
          uint32_t n = std::min<uint32_t>(65536, size - at);
          if (sfl_WriteSimpleData(h, at, n, bytes.data() + at) != static_cast<int32_t>(n)) return {};
          at += n;
        }
      }
      sfl_CloseItem(h);
      if (!sfl_SameFile(FileOf(s.ref), file)) {
        file = FileOf(s.ref);
        ++*containers;
      }
      out.push_back(s);
    }
  }
  return out;
}

// The reader: opens each item by reference and compares every byte, half
// of them read by position and half serially. Returns 0 when all match,
// else 1 + the index of the first item that did not.
int ReadAll(const std::vector<Stored>& stored) {
  for (size_t i = 0; i < stored.size(); ++i) {
    const Stored& s = stored[i];
    std::vector<uint8_t> want = Expected(s);
    int32_t h = sfl_OpenItem(&s.ref, 0);
    if (sfl_ItemHandle2Record(h)->Size != s.size) return static_cast<int>(i) + 1;
    std::vector<uint8_t> got(s.size + 1, 0xee);
    uint32_t at = 0;
    while (at < s.size) {
      uint32_t n = std::min<uint32_t>(40000, s.size - at);
      int32_t r = i % 2 == 0 ? sfl_ReadSimpleData(h, at, n, got.data() + at)
                             : sfl_ReadSerialData(h, got.data() + at, n);
      if (r <= 0) return static_cast<int>(i) + 1;
      at += static_cast<uint32_t>(r);
    }
    // Nothing lies beyond the end.
    if (i % 2 == 1 && sfl_ReadSerialData(h, got.data() + at, 1) != 0) return static_cast<int>(i) + 1;
    got.resize(s.size);
    sfl_CloseItem(h);
    if (got != want) return static_cast<int>(i) + 1;
  }
  return 0;
}

TEST(AcrossProcesses, WhatOneProcessStoresAnotherReadsBack) {
  const std::string list = sfltest::TestDir() + "/stored.bin";
  int writer = sfltest::RunInChild([&] {
    // The first container stays open here throughout; the ones the store
    // falls back to are opened and closed with their items.
    int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_ItemRef file{};
    sfl_GetSerFileItem(bh, &file);
    int containers = 0;
    std::vector<Stored> stored = WriteAll(file, &containers);
    sfl_CloseFile(bh);
    if (stored.size() != std::size(kSizes) * std::size(kFills)) return 1;
    // 36 items, 7 to a container: the fallback placed the rest.
    if (containers != 6) return 2;
    std::ofstream out(list, std::ios::binary);
    for (const Stored& s : stored) out.write(reinterpret_cast<const char*>(&s), sizeof s);
    return out.good() ? 0 : 3;
  });
  ASSERT_EQ(writer, 0);

  std::vector<Stored> stored;
  std::ifstream in(list, std::ios::binary);
  Stored s{};
  while (in.read(reinterpret_cast<char*>(&s), sizeof s)) stored.push_back(s);
  ASSERT_EQ(stored.size(), std::size(kSizes) * std::size(kFills));

  EXPECT_EQ(sfltest::RunInChild([&] { return ReadAll(stored); }), 0);
}

// ---- deletion while another process holds the file ---------------------------------------------

TEST(AcrossProcesses, ItemDeletedWhileHeldElsewhereStaysReadableUntilTheLastClose) {
  int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef file{};
  sfl_GetSerFileItem(bh, &file);
  sfl_ItemRef keep{}, victim{};
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 10, &keep, 0));
  std::vector<uint8_t> data = Pattern(5000, 99);
  int32_t h = sfl_StoreBasicItem(bh, nullptr, 5000, &victim, 0);
  ASSERT_EQ(sfl_WriteSimpleData(h, 0, 5000, data.data()), 5000);
  sfl_CloseItem(h);
  const uint32_t n = sfl_ItemNumOf(victim);
  const sfl_ItemInfo before = Slot(bh, n);
  sfl_CloseFile(bh);

  Gate opened, deleted;
  int reader = sfltest::StartChild([&] {
    int32_t r = sfl_OpenItem(&victim, 0);
    opened.Open();
    deleted.Wait();
    std::vector<uint8_t> got(5000);
    if (sfl_ReadSimpleData(r, 0, 5000, got.data()) != 5000) return 1;
    if (got != data) return 2;
    sfl_CloseItem(r);  // also the last close of the file anywhere
    return 0;
  });
  opened.Wait();

  h = sfl_OpenItem(&victim, 0);
  EXPECT_EQ(sfl_DetachOpenItem(h), 0u);
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
  bh = sfl_OpenSfl(&file, 0);
  sfl_ItemInfo s = Slot(bh, n);
  EXPECT_EQ(s.InUse, 1u);
  EXPECT_NE(s.Flags & DELETED, 0u);
  EXPECT_EQ(FileHeaderOf(bh).UsedItems, 2u);
  EXPECT_NE(FileHeaderOf(bh).Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(sfl_ItemExists(&victim), 0);
  sfl_CloseFile(bh);  // the reader still holds the file: nothing is released
  bh = sfl_OpenSfl(&file, 0);
  EXPECT_EQ(Slot(bh, n).InUse, 1u);
  sfl_CloseFile(bh);

  deleted.Open();
  EXPECT_EQ(sfltest::WaitChild(reader), 0);

  bh = sfl_OpenSfl(&file, 0);
  s = Slot(bh, n);
  EXPECT_EQ(s.InUse, 0u);
  sfl_FileHeader fh = FileHeaderOf(bh);
  EXPECT_EQ(fh.UsedItems, 1u);
  EXPECT_EQ(fh.Flags & ITEM_PEND_DEL, 0u);
  EXPECT_TRUE(RunIsFree(bh, before.FileOffset, before.UsedBlocks));
  EXPECT_EQ(sfl_ItemExists(&keep), 1);
  sfl_CloseFile(bh);
}

TEST(AcrossProcesses, ContainerWhoseItemsAreAllDeletedGoesWithItsLastClose) {
  int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef file{};
  sfl_GetSerFileItem(bh, &file);
  sfl_ItemRef a{}, b{};
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 100, &a, 0));
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 200, &b, 0));
  sfl_CloseFile(bh);
  const std::string path = PathOf(file);
  ASSERT_TRUE(Exists(path));

  Gate opened, done;
  int holder = sfltest::StartChild([&] {
    int32_t hb = sfl_OpenSfl(&file, 0);
    opened.Open();
    done.Wait();
    sfl_CloseFile(hb);
    return 0;
  });
  opened.Wait();
  for (const sfl_ItemRef& ref : {a, b}) {
    int32_t h = sfl_OpenItem(&ref, 0);
    sfl_DetachOpenItem(h);
    sfl_CloseItem(h);  // the last close deletes it, pending while held
  }
  EXPECT_TRUE(Exists(path));
  done.Open();
  EXPECT_EQ(sfltest::WaitChild(holder), 0);
  // The holder's close was the last: both items released, the file removed.
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(sfl_ItemExists(&a), 0);
}

TEST(AcrossProcesses, ContainerEmptiedByOneProcessAloneGoesAtItsClose) {
  int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef file{};
  sfl_GetSerFileItem(bh, &file);
  sfl_ItemRef a{};
  int32_t h = sfl_StoreBasicItem(bh, nullptr, 100, &a, 0);
  sfl_DetachOpenItem(h);
  sfl_DeleteItem(h);  // alone: at once
  EXPECT_EQ(FileHeaderOf(bh).UsedItems, 0u);
  sfl_CloseItem(h);
  const std::string path = PathOf(file);
  EXPECT_TRUE(Exists(path));
  sfl_CloseFile(bh);
  EXPECT_FALSE(Exists(path));
}

// ---- attach and detach across processes ---------------------------------------------------------

TEST(AcrossProcesses, AttachAndDetachCountAcrossProcesses) {
  int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef file{};
  sfl_GetSerFileItem(bh, &file);
  sfl_ItemRef keep{}, ref{};
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 10, &keep, 0));
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 300, &ref, 0));
  sfl_CloseFile(bh);
  const uint32_t n = sfl_ItemNumOf(ref);

  EXPECT_EQ(sfltest::RunInChild([&] { return static_cast<int>(sfl_AttachItem(&ref)); }), 2);
  EXPECT_EQ(sfltest::RunInChild([&] { return static_cast<int>(sfl_AttachItem(&ref)); }), 3);
  EXPECT_EQ(sfl_DetachItem(&ref), 2u);
  EXPECT_EQ(sfltest::RunInChild([&] {
              struct stat st;
              sfl_StatItem(&ref, &st);
              return static_cast<int>(st.st_nlink);
            }),
            2);
  EXPECT_EQ(sfltest::RunInChild([&] { return static_cast<int>(sfl_DetachItem(&ref)); }), 1);

  // The last owner goes while another process holds the file.
  Gate opened, done;
  int holder = sfltest::StartChild([&] {
    int32_t hb = sfl_OpenSfl(&file, 0);
    opened.Open();
    done.Wait();
    sfl_CloseFile(hb);
    return 0;
  });
  opened.Wait();
  EXPECT_EQ(sfltest::RunInChild([&] { return static_cast<int>(sfl_DetachItem(&ref)); }), 0);
  bh = sfl_OpenSfl(&file, 0);
  sfl_ItemInfo s = Slot(bh, n);
  EXPECT_EQ(s.AccCount, 0u);
  EXPECT_NE(s.Flags & DELETED, 0u);
  EXPECT_EQ(s.InUse, 1u);
  EXPECT_NE(FileHeaderOf(bh).Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(sfl_ItemExists(&ref), 0);
  sfl_CloseFile(bh);

  done.Open();
  EXPECT_EQ(sfltest::WaitChild(holder), 0);
  bh = sfl_OpenSfl(&file, 0);
  EXPECT_EQ(Slot(bh, n).InUse, 0u);
  EXPECT_EQ(FileHeaderOf(bh).UsedItems, 1u);
  sfl_CloseFile(bh);
  EXPECT_EQ(sfl_ItemExists(&keep), 1);
}

}  // namespace
