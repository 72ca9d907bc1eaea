// What a whole-file rebuild refuses to do in a store others can write to:
// follow or reuse what a neighbour put at its scratch name, take another
// container's name for its scratch file, or drop sound items because one
// item cannot be copied. Each refusal leaves every file as it was.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "er.h"
#include "im.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Data(size_t n, uint32_t salt) { return sfltest::PseudoRandomBytes(n, 11, salt); }

void PutSimple(int32_t bh, const Bytes& data) {
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, static_cast<uint32_t>(data.size()), nullptr, 0);
  sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(data.size()), data.data());
  sfl_CloseItem(h);
}

Bytes ReadItem(const sfl_ItemRef& file, uint32_t n, size_t len) {
  sfl_ItemRef ref = file;
  ref.Flags = static_cast<uint16_t>((ref.Flags & ~SFL_ITEM_NUM_MASK) | n);
  const int32_t h = sfl_OpenItem(&ref, 0);
  Bytes out(len);
  sfl_ReadSimpleData(h, 0, static_cast<uint32_t>(len), out.data());
  sfl_CloseItem(h);
  return out;
}

std::string ScratchOf(const sfl_ItemRef& ref) {
  char path[PATH_MAX];
  im_ScratchFName(&ref, path, sizeof path);
  return path;
}

struct stat StatOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

// A container of three simple items, closed.
sfl_ItemRef ThreeItems(Bytes items[3]) {
  auto c = sfltest::NewContainer();
  for (uint32_t i = 0; i < 3; ++i) {
    items[i] = Data(500 + 100 * i, i + 1);
    PutSimple(c.bh, items[i]);
  }
  sfl_CloseFile(c.bh);
  return c.ref;
}

// The file as it was but for the mark a rebuild sets before it starts (and
// leaves on failure, so that the next last close tries again).
Bytes Marked(Bytes bytes) {
  sfl_PutU32(bytes.data() + sfl_fh::Flags,
             sfl_GetU32(bytes.data() + sfl_fh::Flags) | NEED_COMPACTION);
  return bytes;
}

std::vector<std::string> g_logged;
void Keep(int, int, int, const char* text) { g_logged.emplace_back(text); }

}  // namespace

TEST(RebuildGuard, TheScratchNameIsNoContainerName) {
  auto c = sfltest::NewContainer();
  sfl_CloseFile(c.bh);
  for (const char* tag : {"", "new", "a", "n-_"}) {
    sfl_ItemRef ref = c.ref;
    std::memset(ref.Name, 0, sizeof ref.Name);
    std::memcpy(ref.Name, tag, std::strlen(tag));
    const std::string scratch = ScratchOf(ref);
    EXPECT_EQ(scratch, sfltest::ItemPath(ref) + "#.new");
    sfl_ItemRef parsed{};
    EXPECT_NE(sfltest::ReasonOf([&] { im_FName2ItemRef(scratch.c_str(), &parsed); }), 0) << scratch;
  }
}

TEST(RebuildGuard, APlantedLinkIsNeverFollowedAndTheContainerStaysWhole) {
  Bytes items[3];
  const sfl_ItemRef ref = ThreeItems(items);
  const std::string path = sfltest::ItemPath(ref);
  const Bytes before = sfltest::FileBytes(path);
  const ino_t ino = StatOf(path).st_ino;

  // The victim: someone else's file elsewhere, reached through links
  // planted at the scratch name and at "<path>.new".
  const std::string victim = sfltest::WritePlainFile("victim", "precious bytes of someone else");
  ASSERT_EQ(::chmod(victim.c_str(), 0604), 0);
  const struct stat victimBefore = StatOf(victim);
  const Bytes victimBytes = sfltest::FileBytes(victim);
  for (const std::string& at : {ScratchOf(ref), path + ".new"})
    ASSERT_EQ(::symlink(victim.c_str(), at.c_str()), 0) << at;

  EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_FAILED);
  er_Status st;
  er_GetStatus(&st);
  EXPECT_EQ(st.group, ER_GROUP_OS);
  EXPECT_EQ(st.reason, EEXIST);
  er_Clear();

  const struct stat victimAfter = StatOf(victim);
  EXPECT_EQ(sfltest::FileBytes(victim), victimBytes);
  EXPECT_EQ(victimAfter.st_mode, victimBefore.st_mode);
  EXPECT_EQ(victimAfter.st_uid, victimBefore.st_uid);
  EXPECT_EQ(victimAfter.st_gid, victimBefore.st_gid);
  // The container is the same file, byte for byte but for the mark, and
  // the links are left
  // where they were (they are not the rebuild's to remove).
  EXPECT_EQ(StatOf(path).st_ino, ino);
  EXPECT_TRUE(S_ISREG(StatOf(path).st_mode));
  EXPECT_EQ(sfltest::FileBytes(path), Marked(before));
  EXPECT_TRUE(S_ISLNK(StatOf(ScratchOf(ref)).st_mode));
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(ReadItem(ref, i + 1, items[i].size()), items[i]);
}

TEST(RebuildGuard, OnlyAPlainLeftoverOfTheOwnerIsRemovedAndItIsReported) {
  Bytes items[3];
  const sfl_ItemRef ref = ThreeItems(items);
  const std::string path = sfltest::ItemPath(ref);
  const std::string scratch = ScratchOf(ref);

  // A directory at the scratch name is not a leftover: refused, kept.
  ASSERT_EQ(::mkdir(scratch.c_str(), 0770), 0);
  const Bytes before = sfltest::FileBytes(path);
  EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_FAILED);
  er_Clear();
  EXPECT_TRUE(S_ISDIR(StatOf(scratch).st_mode));
  EXPECT_EQ(sfltest::FileBytes(path), Marked(before));
  ASSERT_EQ(::rmdir(scratch.c_str()), 0);

  // Another user's plain file is not one either (only root can make one).
  if (::getuid() == 0) {
    ASSERT_EQ(::close(::open(scratch.c_str(), O_CREAT | O_WRONLY, 0660)), 0);
    ASSERT_EQ(::chown(scratch.c_str(), 65534, 65534), 0);
    EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_FAILED);
    er_Clear();
    EXPECT_EQ(StatOf(scratch).st_uid, 65534u);
    EXPECT_EQ(sfltest::FileBytes(path), Marked(before));
    ASSERT_EQ(::unlink(scratch.c_str()), 0);
  }

  // What a crashed rebuild leaves: a plain file of this user. It is removed,
  // the removal logged, and the rebuild goes ahead.
  {
    const int fd = ::open(scratch.c_str(), O_CREAT | O_WRONLY, 0660);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "half a copy", 11), 11);
    ::close(fd);
  }
  g_logged.clear();
  const er_LogHook was = er_SetLogHook(Keep);
  EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_DONE);
  er_SetLogHook(was);
  bool reported = false;
  for (const std::string& line : g_logged)
    reported = reported || (line.find("leftover") != std::string::npos &&
                            line.find(scratch) != std::string::npos);
  EXPECT_TRUE(reported);
  EXPECT_NE(::access(scratch.c_str(), F_OK), 0);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(ReadItem(ref, i + 1, items[i].size()), items[i]);
}

TEST(RebuildGuard, AContainerTaggedNewIsNotTheScratchOfItsUntaggedNeighbour) {
  Bytes items[3];
  const sfl_ItemRef plain = ThreeItems(items);
  // The container the same numbers with the tag "new" name.
  sfl_ItemRef tagged = plain;
  std::memcpy(tagged.Name, "new", 4);
  const std::string taggedPath = sfltest::ItemPath(tagged);
  ASSERT_EQ(taggedPath, sfltest::ItemPath(plain) + ".new");
  const int fd = os_open(taggedPath.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);
  ASSERT_GE(fd, 0);
  const int32_t bh = sfl_CreateBaseSfl(&tagged, fd, 0);
  const Bytes its = Data(900, 9);
  PutSimple(bh, its);
  sfl_CloseFile(bh);
  const Bytes taggedBefore = sfltest::FileBytes(taggedPath);
  const ino_t taggedIno = StatOf(taggedPath).st_ino;

  EXPECT_EQ(sfl_CompactContainer(&plain), SFL_COMPACT_DONE);
  EXPECT_EQ(StatOf(taggedPath).st_ino, taggedIno);
  EXPECT_EQ(sfltest::FileBytes(taggedPath), taggedBefore);
  EXPECT_EQ(ReadItem(tagged, 1, its.size()), its);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(ReadItem(plain, i + 1, items[i].size()), items[i]);
}

TEST(RebuildGuard, AnItemThatCannotBeCopiedLeavesTheOldFileAsItWas) {
  Bytes items[3];
  const sfl_ItemRef ref = ThreeItems(items);
  const std::string path = sfltest::ItemPath(ref);
  // Slot 1's header claims more bytes than it reserved: it cannot be copied.
  {
    const int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    sfl_ItemHeaderBytes raw;
    const off_t at = SFL_TABLE_OFFSET + SFL_ITEM_HEADER_SIZE;
    ASSERT_EQ(::pread(fd, raw.data(), raw.size(), at), static_cast<ssize_t>(raw.size()));
    sfl_ItemHeader h = sfl_DecodeItemHeader(raw);
    h.FileSize = h.UsedBlocks * SFL_BLOCK_SIZE + 1;
    sfl_EncodeItemHeader(h, raw);
    ASSERT_EQ(::pwrite(fd, raw.data(), raw.size(), at), static_cast<ssize_t>(raw.size()));
    ::close(fd);
  }
  const Bytes before = sfltest::FileBytes(path);
  const ino_t ino = StatOf(path).st_ino;

  g_logged.clear();
  const er_LogHook was = er_SetLogHook(Keep);
  EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_FAILED);
  er_SetLogHook(was);
  er_Status st;
  er_GetStatus(&st);
  EXPECT_EQ(st.group, ER_GROUP_SFL);
  EXPECT_EQ(st.reason, SFL_R_BAD_ITEM_HEADER);
  er_Clear();
  bool named = false;
  for (const std::string& line : g_logged) named = named || line.find("item 1 ") != std::string::npos;
  EXPECT_TRUE(named) << "the report must say which item";

  // The old file keeps its name and every byte but the compaction mark, so
  // the next last close tries again; nothing is left at the scratch name.
  EXPECT_EQ(StatOf(path).st_ino, ino);
  const Bytes after = sfltest::FileBytes(path);
  ASSERT_EQ(after.size(), before.size());
  EXPECT_TRUE(after == Marked(before));
  EXPECT_NE(::access(ScratchOf(ref).c_str(), F_OK), 0);
  // The sound items are all still there, also after a close that retries.
  const int32_t bh = sfl_OpenSfl(&ref, 0);
  sfl_CloseFile(bh);
  er_Clear();
  ASSERT_EQ(::access(path.c_str(), F_OK), 0);
  for (uint32_t i = 1; i < 3; ++i) EXPECT_EQ(ReadItem(ref, i + 1, items[i].size()), items[i]);
}
