// Creating, opening and closing container files: the exact initial layout,
// the records a process keeps, refusals and their clean-up, the deferred and
// final closes, release of pending deletions, removal of emptied files, and
// two processes sharing a file through the interest service.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "im.h"
#include "mdc.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr auto EscapeOf = sfltest::GroupAndReasonOf;

std::pair<int, int> Sfl(int reason) { return {ER_GROUP_SFL, reason}; }

sfl_ItemRef RefOf(int32_t handle) {
  sfl_ItemRef ref;
  sfl_GetSerFileItem(handle, &ref);
  return ref;
}

constexpr auto PathOfRef = sfltest::ItemPath;
constexpr auto PathOf = sfltest::ItemPathOf;
using sfltest::FileBytes;

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

// Patches bytes of a file through a descriptor of the test's own.
void Patch(const std::string& path, off_t off, const std::vector<uint8_t>& bytes) {
  int fd = open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), off), static_cast<ssize_t>(bytes.size()));
  close(fd);
}

void OrU32(const std::string& path, off_t off, uint32_t bits) {
  std::vector<uint8_t> b = FileBytes(path);
  ASSERT_GE(b.size(), static_cast<size_t>(off) + 4);
  std::vector<uint8_t> v(4);
  sfl_PutU32(v.data(), sfl_GetU32(b.data() + off) | bits);
  Patch(path, off, v);
}

uint32_t U32At(const std::string& path, size_t off) {
  std::vector<uint8_t> b = FileBytes(path);
  EXPECT_GE(b.size(), off + 4);
  return b.size() >= off + 4 ? sfl_GetU32(b.data() + off) : 0;
}

int OpenDescriptors() {
  int n = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd");
       it != std::filesystem::directory_iterator(); ++it)
    ++n;
  return n;
}

bool MapBit(const std::string& path, uint32_t block) {
  std::vector<uint8_t> b = FileBytes(path);
  const uint32_t mapOff = sfl_GetU32(b.data() + 128 + 24);
  const uint32_t mapLen = sfl_GetU32(b.data() + 128 + 12);
  if (block / 8 >= mapLen) return false;
  return ((b[mapOff + block / 8] >> (block % 8)) & 1) != 0;
}

// Stores a simple item of `size` bytes and closes its handle; returns its
// slot.
uint32_t StoreItem(int32_t base, uint32_t size) {
  sfl_ItemRef ref{};
  int32_t item = sfl_StoreBasicItem(base, nullptr, size, &ref, 0);
  EXPECT_GE(item, SFL_ITEM_HANDLE_FIRST);
  sfl_CloseItem(item);
  return ref.Flags & SFL_ITEM_NUM_MASK;
}

// Marks a slot's item DELETED and the file as having pending deletions, as
// a deletion deferred by another process's interest leaves them.
void MarkDeleted(const std::string& path, uint32_t slot) {
  OrU32(path, 128 + slot * 64 + 32, DELETED);
  OrU32(path, 20, ITEM_PEND_DEL);
}

class BaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    filesBefore_ = sfl_OpenFiles().InUseCount();
    itemsBefore_ = sfl_OpenItems().InUseCount();
  }
  void TearDown() override { os_ClearFaults(); }
  int filesBefore_ = 0;
  int itemsBefore_ = 0;
};

// ---- creating --------------------------------------------------------------------

TEST_F(BaseTest, FreshContainerIsExactly896BytesOfHeaderTableAndMap) {
  const uint32_t before = mdc_time();
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const uint32_t after = mdc_time();
  std::vector<uint8_t> got = FileBytes(PathOf(h));
  ASSERT_EQ(got.size(), 896u);

  // The creation time is the only value not known in advance.
  const uint32_t when = got[128 + 20] | (got[128 + 21] << 8) | (got[128 + 22] << 16) |
                        (static_cast<uint32_t>(got[128 + 23]) << 24);
  EXPECT_GE(when, before);
  EXPECT_LE(when, after);

  std::vector<uint8_t> want(896, 0);
  const uint8_t header[] = {
      0x4E, 0x61, 0xBC, 0x00,  // magic 12345678
      0x10, 0x00, 0x00, 0x00,  // type 16
      0x80, 0x00, 0x00, 0x00,  // HeaderSize 128
      0x02, 0x00, 0x00, 0x00,  // HeaderVersion 2
      0x00, 0x00,              // UsedItems 0
      0x08, 0x00,              // MaxItems 8
      0x00, 0x00, 0x00, 0x00,  // Flags 0
      0x80, 0x00, 0x00, 0x00,  // TableOffset 128
      0x80, 0x02, 0x00, 0x00,  // DataOffset 640
      0x01,                    // in-use map: slot 0
  };
  std::memcpy(want.data(), header, sizeof header);
  const uint8_t slot0[] = {
      0x4E, 0x61, 0xBC, 0x00,  // magic
      0x11, 0x00, 0x00, 0x00,  // type 17
      0x01, 0x00, 0x00, 0x00,  // AccCount 1
      0x00, 0x01, 0x00, 0x00,  // FileSize 256
      0x02, 0x00, 0x00, 0x00,  // UsedBlocks 2
      static_cast<uint8_t>(when), static_cast<uint8_t>(when >> 8),
      static_cast<uint8_t>(when >> 16), static_cast<uint8_t>(when >> 24),  // ChangeDate
      0x80, 0x02, 0x00, 0x00,  // FileOffset 640
      0x00, 0x00, 0x00, 0x00,  // IndexDepth 0
      0x00, 0x00, 0x00, 0x00,  // Flags 0
  };
  std::memcpy(want.data() + 128, slot0, sizeof slot0);
  want[640] = 0x7F;  // blocks 0 to 6 in use
  for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(got[i], want[i]) << "byte " << i;
}

TEST_F(BaseTest, FreshSingleItemFileIsHeaderAndTwoEmptySlots) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  std::vector<uint8_t> got = FileBytes(PathOf(h));
  std::vector<uint8_t> want(256, 0);
  const uint8_t header[] = {
      0x4E, 0x61, 0xBC, 0x00, 0x10, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00,
      0x02, 0x00, 0x00, 0x00,  // version 2
      0x00, 0x00, 0x02, 0x00,  // UsedItems 0, MaxItems 2
      0x01, 0x00, 0x00, 0x00,  // Flags SINGLE_FILE
      0x80, 0x00, 0x00, 0x00,  // TableOffset 128
      0x00, 0x01, 0x00, 0x00,  // DataOffset 256
      0x01,
  };
  std::memcpy(want.data(), header, sizeof header);
  EXPECT_EQ(got, want);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_EQ(rec->FreeMapItem, nullptr);
  EXPECT_EQ(rec->IntItemsOpen, 0);
  EXPECT_EQ(rec->DataOff, 256u);
  EXPECT_EQ(rec->MaxItems, 2u);
}

TEST_F(BaseTest, CreatorsRecord) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  EXPECT_GE(h, SFL_BASE_HANDLE_FIRST);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_EQ(rec->Domain, SFL_TYPE_DATA_ITEM);
  EXPECT_EQ(rec->ITableOff, 128u);
  EXPECT_EQ(rec->DataOff, 640u);
  EXPECT_EQ(rec->MaxItems, 8u);
  EXPECT_EQ(rec->ExternalOpens, 1);
  EXPECT_EQ(rec->CreatedHere, 1u);
  EXPECT_EQ(rec->NewlyCreated, 1u);
  EXPECT_EQ(rec->OpenMode, 0u);
  EXPECT_EQ(rec->FileFlags, 0u);
  EXPECT_EQ(rec->UserAsync, 0u);
  EXPECT_EQ(rec->ProcAccCount, 1u);
  ASSERT_NE(rec->FreeMapItem, nullptr);
  EXPECT_EQ(sfl_ItemHandle2Record(rec->FreeMapHandle), rec->FreeMapItem);
  EXPECT_EQ(rec->FreeMapItem->ItemNum, 0u);
  EXPECT_EQ(rec->FreeMapItem->Offset, 640u);
  EXPECT_EQ(rec->FreeMapItem->Size, 256u);
  EXPECT_EQ(rec->IntItemsOpen, 1);  // the free-map item
  EXPECT_NE(fcntl(rec->FileDes, F_GETFD) & FD_CLOEXEC, 0);
  // The header lock is not left held.
  sfl_ItemRef ref = RefOf(h);
  EXPECT_EQ(sfltest::RunInChild([&] {
              int fd = im_OpenItem(&ref);
              return os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 128, 0) ==
                             1
                         ? 0
                         : 1;
            }),
            0);
}

TEST_F(BaseTest, UserAsyncStaysInTheCreatingProcess) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, USER_ASYNC);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_EQ(rec->UserAsync, 1u);
  EXPECT_EQ(rec->FileFlags, 0u);
  EXPECT_EQ(U32At(PathOf(h), 20), 0u);  // header Flags

  int32_t h2 = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, USER_ASYNC | ASYNCHRONOUS);
  EXPECT_EQ(U32At(PathOf(h2), 20), static_cast<uint32_t>(ASYNCHRONOUS));
  EXPECT_EQ(sfl_Handle2Record(h2)->FileFlags, static_cast<uint32_t>(ASYNCHRONOUS));

  sfl_ItemRef ref = RefOf(h);
  EXPECT_EQ(sfltest::RunInChild([&] {
              int32_t o = sfl_OpenSfl(&ref, 0);
              sfl_BaseRec* r = sfl_Handle2Record(o);
              int rc = (r->UserAsync == 0 && r->FileFlags == 0) ? 0 : 1;
              sfl_CloseFile(o);
              return rc;
            }),
            0);
}

TEST_F(BaseTest, TemporaryFilesUseDomain4) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_TEMP_ITEM, 0);
  EXPECT_EQ(sfl_Handle2Record(h)->Domain, 4);
  EXPECT_EQ(FileBytes(PathOf(h)).size(), 896u);
}

TEST_F(BaseTest, UnknownTypeRefused) {
  const int fds = OpenDescriptors();
  EXPECT_EQ(EscapeOf([] { sfl_CreateSfl(0, 3, 0); }), std::make_pair(int(ER_GROUP_CALL), 22));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
  EXPECT_TRUE(std::filesystem::is_empty(sfltest::StoreRoot()));
}

TEST_F(BaseTest, FailedCreateLeavesNothingBehind) {
  const int fds = OpenDescriptors();
  // The item table is the second positioned write of the creation.
  os_ShortNth(os_Op::Pwrite, 2, 10);
  EXPECT_EQ(EscapeOf([] { sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0); }), Sfl(SFL_R_SHORT_WRITE));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
  for (auto& e : std::filesystem::recursive_directory_iterator(sfltest::StoreRoot()))
    EXPECT_FALSE(e.is_regular_file()) << e.path();
}

TEST_F(BaseTest, FailedBaseCreateLeavesTheDescriptorToTheCaller) {
  sfl_ItemRef ref{};
  int fd = im_GetNewDataItem(&ref);
  os_ShortNth(os_Op::Pwrite, 2, 10);
  EXPECT_EQ(EscapeOf([&] { sfl_CreateBaseSfl(&ref, fd, 0); }), Sfl(SFL_R_SHORT_WRITE));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);  // still open
  // The header lock went with the failure: another process can take it.
  EXPECT_EQ(sfltest::RunInChild([&] {
              int other = im_OpenItem(&ref);
              return os_TryLockPart(other, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 128,
                                    0) == 1
                         ? 0
                         : 1;
            }),
            0);
  close(fd);
}

// ---- opening ---------------------------------------------------------------------

// A container with one item, made and closed by another process, so that
// this process has no record of it; returns its reference.
sfl_ItemRef ContainerFromChild() {
  const std::string out = sfltest::TestDir() + "/made-ref";
  int rc = sfltest::RunInChild([&] {
    int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    StoreItem(h, 300);
    char text[64];
    sfl_ItemRef ref = RefOf(h);
    im_ItemRef2Text(&ref, text, sizeof text);
    sfl_CloseFile(h);
    std::ofstream(out) << text;
    return 0;
  });
  EXPECT_EQ(rc, 0);
  std::string text;
  std::ifstream(out) >> text;
  sfl_ItemRef ref{};
  im_FormItemRef(text.c_str(), &ref);
  return ref;
}

TEST_F(BaseTest, OpenersRecord) {
  sfl_ItemRef ref = ContainerFromChild();
  int32_t h = sfl_OpenSfl(&ref, 1);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_EQ(rec->ITableOff, 128u);
  EXPECT_EQ(rec->DataOff, 640u);
  EXPECT_EQ(rec->MaxItems, 8u);
  EXPECT_EQ(rec->OpenMode, 1u);
  EXPECT_EQ(rec->ExternalOpens, 1);
  EXPECT_EQ(rec->CreatedHere, 0u);
  EXPECT_EQ(rec->NewlyCreated, 0u);
  EXPECT_EQ(rec->InColdStore, 0u);
  EXPECT_EQ(rec->ProcAccCount, 1u);
  ASSERT_NE(rec->FreeMapItem, nullptr);
  EXPECT_EQ(rec->FreeMapItem->Offset, 640u);
  EXPECT_EQ(rec->IntItemsOpen, 1);
  EXPECT_NE(fcntl(rec->FileDes, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_ + 1);
}

TEST_F(BaseTest, OpenOfTheColdCopyClosesItForGood) {
  int32_t made = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  StoreItem(made, 300);
  sfl_ItemRef ref = RefOf(made);
  sfl_CloseFile(made);
  const int32_t cold = FilesInColdStore;
  EXPECT_GE(cold, 1);
  int32_t h = sfl_OpenSfl(&ref, 0);
  EXPECT_EQ(FilesInColdStore, cold - 1);
  EXPECT_EQ(sfl_Handle2Record(h)->InColdStore, 0u);
}

TEST_F(BaseTest, SecondOpenInOneProcessRefused) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref = RefOf(h);
  const int files = sfl_OpenFiles().InUseCount();
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), Sfl(SFL_R_FILE_OPEN));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), files);
}

TEST_F(BaseTest, ReferenceToAnItemRefused) {
  sfl_ItemRef ref = ContainerFromChild();
  for (uint16_t item = 1; item <= 7; ++item) {
    sfl_ItemRef r = ref;
    r.Flags = item;
    EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&r, 0); }), Sfl(SFL_R_REF_IS_ITEM));
  }
}

TEST_F(BaseTest, WrongVersionRefusedWithoutLeftovers) {
  sfl_ItemRef ref = ContainerFromChild();
  Patch(PathOfRef(ref), 12, {1, 0, 0, 0});
  const int fds = OpenDescriptors();
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), Sfl(SFL_R_BAD_FILE));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
  Patch(PathOfRef(ref), 12, {3, 0, 0, 0});
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), Sfl(SFL_R_BAD_FILE));
}

TEST_F(BaseTest, BadMagicAndShortFileRefused) {
  sfl_ItemRef ref = ContainerFromChild();
  Patch(PathOfRef(ref), 0, {0, 0, 0, 0});
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), Sfl(SFL_R_BAD_FILE_HEADER));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  ASSERT_EQ(truncate(PathOfRef(ref).c_str(), 100), 0);
  const int fds = OpenDescriptors();
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), Sfl(SFL_R_SHORT_READ));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_F(BaseTest, MissingFileRefused) {
  sfl_ItemRef ref{};
  ref.Domain = 2;
  ref.FileId = 12345;
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), std::make_pair(int(ER_GROUP_OS), ENOENT));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
}

TEST_F(BaseTest, FailureAfterTheFreeMapItemReleasesEverything) {
  sfl_ItemRef ref = ContainerFromChild();
  // Make sure the interest service's queues are known before the fault is
  // armed, so that the receive that fails is the open's own reply.
  sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
  const int fds = OpenDescriptors();
  os_FailNth(os_Op::Msgrcv, 1, EIO, 3);  // every try of the receive
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), std::make_pair(int(ER_GROUP_OS), EIO));
  os_ClearFaults();
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_F(BaseTest, CorruptFreeMapHeaderRefusedWithoutLeftovers) {
  sfl_ItemRef ref = ContainerFromChild();
  Patch(PathOfRef(ref), 128, {0, 0, 0, 0});  // slot 0's magic
  const int fds = OpenDescriptors();
  EXPECT_EQ(EscapeOf([&] { sfl_OpenSfl(&ref, 0); }), Sfl(SFL_R_BAD_ITEM_HEADER));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
  // No lock was left on the header or on slot 0.
  EXPECT_EQ(sfltest::RunInChild([&] {
              int fd = im_OpenItem(&ref);
              int a = os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 192, 0);
              return a == 1 ? 0 : 1;
            }),
            0);
}

TEST_F(BaseTest, CompactedFileIsOpenedAgainByName) {
  // A plain open first, as the measure of what one open costs (the
  // interest exchange may open files of its own).
  sfl_ItemRef plain = ContainerFromChild();
  sfl_ItemRef ref = ContainerFromChild();
  OrU32(PathOfRef(ref), 20, HAS_BEEN_COMPACTED);
  sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
  os_ResetCallCounts();
  sfl_OpenSfl(&plain, 0);
  const uint64_t plainOpens = os_CallCount(os_Op::Open);
  const uint64_t plainCloses = os_CallCount(os_Op::Close);

  // What opening a container by name costs (its directories are opened
  // on the way, and closed).
  os_ResetCallCounts();
  ::close(im_OpenItem(&ref));
  const uint64_t byNameOpens = os_CallCount(os_Op::Open);
  const uint64_t byNameCloses = os_CallCount(os_Op::Close);

  const int fds = OpenDescriptors();
  os_ResetCallCounts();
  int32_t h = sfl_OpenSfl(&ref, 0);
  // Opened, closed and opened again by name.
  EXPECT_EQ(os_CallCount(os_Op::Open), plainOpens + byNameOpens);
  EXPECT_EQ(os_CallCount(os_Op::Close), plainCloses + byNameCloses + 1);
  EXPECT_EQ(OpenDescriptors(), fds + 1);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_NE(rec->FileFlags & HAS_BEEN_COMPACTED, 0u);
  struct stat a, b;
  ASSERT_EQ(fstat(rec->FileDes, &a), 0);
  ASSERT_EQ(stat(PathOfRef(ref).c_str(), &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);
  EXPECT_NE(rec->FreeMapItem, nullptr);
}

// ---- closing ---------------------------------------------------------------------

TEST_F(BaseTest, EmptyContainerRemovedAtItsFinalClose) {
  const int fds = OpenDescriptors();
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const std::string path = PathOf(h);
  ASSERT_TRUE(Exists(path));
  sfl_CloseFile(h);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
  EXPECT_EQ(EscapeOf([&] { sfl_Handle2Record(h); }),
            std::make_pair(int(ER_GROUP_TABLE), int(SFL_R_BAD_HANDLE)));
}

TEST_F(BaseTest, FinalCloseOfAFileWithItemsKeepsItCold) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  StoreItem(h, 500);
  const std::string path = PathOf(h);
  const int32_t cold = FilesInColdStore;
  const uint32_t frozen = FrozenCount;
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  sfl_CloseFile(h);
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(rec->InUse, 1u);
  EXPECT_EQ(rec->InColdStore, 1u);
  EXPECT_EQ(rec->FreezeSeq, frozen);
  EXPECT_EQ(FrozenCount, frozen + 1);
  EXPECT_EQ(FilesInColdStore, cold + 1);
  EXPECT_NE(fcntl(rec->FileDes, F_GETFD), -1);  // the descriptor stays open
  EXPECT_NE(rec->FreeMapItem, nullptr);
  EXPECT_EQ(rec->ExternalOpens, 0);
}

TEST_F(BaseTest, CloseWithAnItemOpenOnlyLowersTheCounts) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef itemRef{};
  int32_t item = sfl_StoreBasicItem(h, nullptr, 100, &itemRef, 0);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  const int fds = OpenDescriptors();
  sfl_CloseFile(h);
  EXPECT_EQ(sfl_Handle2Record(h), rec);
  EXPECT_EQ(rec->ExternalOpens, 0);
  EXPECT_EQ(rec->IntItemsOpen, 2);
  EXPECT_EQ(rec->OpenMode, 1u);
  EXPECT_EQ(rec->InColdStore, 0u);
  EXPECT_EQ(OpenDescriptors(), fds);
  EXPECT_TRUE(Exists(PathOf(h)));
  // Closing the item now completes the deferred close.
  sfl_CloseItem(item);
  EXPECT_EQ(rec->InColdStore, 1u);
}

TEST_F(BaseTest, CloseBeforeTheLastOpenOnlyLowersExternalOpens) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  rec->ExternalOpens = 2;  // a second opener shares the handle
  sfl_CloseFile(h);
  EXPECT_EQ(rec->ExternalOpens, 1);
  EXPECT_EQ(rec->InColdStore, 0u);
  EXPECT_TRUE(Exists(PathOf(h)));
  sfl_CloseFile(h);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
}

TEST_F(BaseTest, PendingDeletionsReleasedAtTheFinalClose) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const uint32_t a = StoreItem(h, 300);  // blocks 7..9
  const uint32_t b = StoreItem(h, 500);  // blocks 10..13
  ASSERT_EQ(a, 1u);
  ASSERT_EQ(b, 2u);
  const std::string path = PathOf(h);
  ASSERT_TRUE(MapBit(path, 7));
  MarkDeleted(path, a);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  sfl_CloseFile(h);

  ASSERT_TRUE(Exists(path));
  std::vector<uint8_t> bytes = FileBytes(path);
  sfl_FileHeader fh = sfl_DecodeFileHeader(std::span<const uint8_t, 128>(bytes.data(), 128));
  EXPECT_EQ(fh.Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(fh.UsedItems, 1);
  EXPECT_EQ(fh.InUseItms, 0x05);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(bytes[128 + 64 + i], 0) << i;  // slot 1 wiped
  EXPECT_EQ(sfl_GetU32(bytes.data() + 128 + 128), SFL_MAGIC);          // slot 2 kept
  for (uint32_t blk = 7; blk < 10; ++blk) EXPECT_FALSE(MapBit(path, blk)) << blk;
  for (uint32_t blk = 10; blk < 14; ++blk) EXPECT_TRUE(MapBit(path, blk)) << blk;
  EXPECT_EQ(rec->InColdStore, 1u);
  EXPECT_EQ(rec->IntItemsOpen, 1);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_ + 1);  // the free-map item only
}

TEST_F(BaseTest, ContainerWhoseEveryItemWasDeletedIsRemoved) {
  const int fds = OpenDescriptors();
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const uint32_t a = StoreItem(h, 300);
  const uint32_t b = StoreItem(h, 128);
  const std::string path = PathOf(h);
  MarkDeleted(path, a);
  MarkDeleted(path, b);
  sfl_CloseFile(h);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), filesBefore_);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore_);
  EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_F(BaseTest, PendingBlockedItemGivesBackItsTree) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const uint32_t keep = StoreItem(h, 128);  // block 7
  sfl_ItemRef ref{};
  int32_t blocked = sfl_CreateBlockedItem(h, &ref);
  // A new blocked item's root is laid down as zeros; give it a valid empty
  // root so that blocks can be written under it.
  sfl_ItemRec* rec = sfl_ItemHandle2Record(blocked);
  sfl_IndexRecord root = sfl_NewIndexRecord();
  root.ParentOff = rec->HeaderOff;
  sfl_IndexBytes rootBytes;
  sfl_EncodeIndex(root, rootBytes);
  Patch(PathOf(h), rec->Offset, std::vector<uint8_t>(rootBytes.begin(), rootBytes.end()));
  std::vector<uint8_t> data(300, 0x5C);
  ASSERT_EQ(EscapeOf([&] { sfl_WriteBlockedData(blocked, 0, 300, data.data()); }), std::make_pair(0, 0));
  ASSERT_EQ(EscapeOf([&] { sfl_WriteBlockedData(blocked, 1, 300, data.data()); }), std::make_pair(0, 0));
  sfl_CloseItem(blocked);
  const std::string path = PathOf(h);
  ASSERT_TRUE(MapBit(path, 8));  // the root and the two blocks are in use
  MarkDeleted(path, ref.Flags & SFL_ITEM_NUM_MASK);
  sfl_CloseFile(h);
  ASSERT_TRUE(Exists(path));
  EXPECT_EQ(keep, 1u);
  EXPECT_TRUE(MapBit(path, 7));
  for (uint32_t blk = 8; blk < 64; ++blk) EXPECT_FALSE(MapBit(path, blk)) << blk;
}

TEST_F(BaseTest, EscapeDuringCloseReleasesTheHeaderLock) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  StoreItem(h, 128);
  sfl_ItemRef ref = RefOf(h);
  // The file header read under the close's header lock fails.
  os_FailNth(os_Op::Pread, 1, EIO);
  EXPECT_NE(EscapeOf([&] { sfl_CloseFile(h); }).first, 0);
  os_ClearFaults();
  EXPECT_EQ(sfltest::RunInChild([&] {
              int fd = im_OpenItem(&ref);
              return os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 640, 0) ==
                             1
                         ? 0
                         : 1;
            }),
            0);
}

// ---- two processes ------------------------------------------------------------------

// A one-way channel between the test and a child. Each side closes the end
// it does not use, so that a side that dies or fails early is seen as end of
// file by the other instead of leaving it waiting.
struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe(fd), 0); }
  ~Pipe() {
    CloseRead();
    CloseWrite();
  }
  void CloseRead() {
    if (fd[0] >= 0) close(fd[0]);
    fd[0] = -1;
  }
  void CloseWrite() {
    if (fd[1] >= 0) close(fd[1]);
    fd[1] = -1;
  }
  void Send(char c) { EXPECT_EQ(write(fd[1], &c, 1), 1); }
  char Receive() {
    char c = 0;
    return read(fd[0], &c, 1) == 1 ? c : 0;
  }
};

// The ends each side keeps: the test writes `toChild` and reads `toParent`.
void ChildEnds(Pipe& toChild, Pipe& toParent) {
  toChild.CloseWrite();
  toParent.CloseRead();
}
void ParentEnds(Pipe& toChild, Pipe& toParent) {
  toChild.CloseRead();
  toParent.CloseWrite();
}

TEST_F(BaseTest, ItemDeletedAtOnceLeavesAnEmptyFileThatIsRemoved) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const std::string path = PathOf(h);
  sfl_ItemRef itemRef{};
  int32_t item = sfl_StoreBasicItem(h, nullptr, 700, &itemRef, 0);
  EXPECT_EQ(sfl_DetachOpenItem(item), 0u);
  sfl_CloseItem(item);  // alone with the file: the deletion is immediate
  EXPECT_EQ(U32At(path, 20) & ITEM_PEND_DEL, 0u);
  EXPECT_TRUE(Exists(path));
  sfl_CloseFile(h);
  EXPECT_FALSE(Exists(path));
}

TEST_F(BaseTest, ShortMapWriteAtCreationIsNotLookedAt) {
  // Header, table, then the map: the third positioned write comes up short
  // and the creation goes on regardless.
  os_ShortNth(os_Op::Pwrite, 3, 10);
  int32_t h = -1;
  EXPECT_EQ(EscapeOf([&] { h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0); }), std::make_pair(0, 0));
  ASSERT_GE(h, SFL_BASE_HANDLE_FIRST);
  EXPECT_EQ(FileBytes(PathOf(h)).size(), 640u + 10u);
  EXPECT_NE(sfl_Handle2Record(h)->FreeMapItem, nullptr);
}

// ---- the compaction decision at close --------------------------------------------------

// Closes a file and reports whether its last close rebuilt it (a rebuilt
// file lies under its name as a new inode).
bool CloseAndSeeIfRebuilt(int32_t h) {
  const std::string path = PathOf(h);
  struct stat before {};
  if (::stat(path.c_str(), &before) != 0) return false;
  sfl_CloseFile(h);
  struct stat after {};
  return ::stat(path.c_str(), &after) == 0 && after.st_ino != before.st_ino;
}

// Closes a one-item container created with `flags` (after marking it as
// needing compaction) and reports whether it was rebuilt.
bool CloseNeedingCompaction(int32_t type, int32_t flags) {
  int32_t h = sfl_CreateSfl(0, type, flags);
  StoreItem(h, 300);
  OrU32(PathOf(h), 20, NEED_COMPACTION);
  return CloseAndSeeIfRebuilt(h);
}

TEST_F(BaseTest, FileNeedingCompactionIsRebuiltWithoutAnalysisAtItsLastClose) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  StoreItem(h, 300);
  const std::string path = PathOf(h);
  OrU32(path, 20, NEED_COMPACTION);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_EQ(sfl_AnalyseFreeMap(rec), 0u);  // a small file: only the mark asks for it
  const int32_t cold = FilesInColdStore;
  EXPECT_TRUE(CloseAndSeeIfRebuilt(h));
  // Closed for good rather than kept: the descriptor was the old file's.
  EXPECT_EQ(FilesInColdStore, cold);
  EXPECT_EQ(U32At(path, 20) & (NEED_COMPACTION | HAS_BEEN_COMPACTED), 0u);
}

TEST_F(BaseTest, CompactionNeverTriedForTemporaryOrAsynchronousFiles) {
  EXPECT_TRUE(CloseNeedingCompaction(SFL_TYPE_DATA_ITEM, 0));
  EXPECT_FALSE(CloseNeedingCompaction(SFL_TYPE_TEMP_ITEM, 0));
  EXPECT_FALSE(CloseNeedingCompaction(SFL_TYPE_DATA_ITEM, ASYNCHRONOUS));
  EXPECT_FALSE(CloseNeedingCompaction(SFL_TYPE_DATA_ITEM, SINGLE_FILE));
}

TEST_F(BaseTest, CompactionNotTriedWhileAnotherProcessHoldsTheFile) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  StoreItem(h, 300);
  const sfl_ItemRef ref = RefOf(h);
  OrU32(PathOf(h), 20, NEED_COMPACTION);
  Pipe toChild, toParent;
  int pid = sfltest::StartChild([&] {
    ChildEnds(toChild, toParent);
    int32_t o = sfl_OpenSfl(&ref, 0);
    toParent.Send('o');
    if (toChild.Receive() != 'c') return 2;
    sfl_CloseFile(o);
    return 0;
  });
  ParentEnds(toChild, toParent);
  ASSERT_EQ(toParent.Receive(), 'o');
  const std::string path = PathOf(h);
  struct stat held {};
  ASSERT_EQ(::stat(path.c_str(), &held), 0);
  EXPECT_FALSE(CloseAndSeeIfRebuilt(h));
  toChild.Send('c');
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  // The holder's last close rebuilt it.
  struct stat after {};
  ASSERT_EQ(::stat(path.c_str(), &after), 0);
  EXPECT_NE(after.st_ino, held.st_ino);
}

TEST_F(BaseTest, TwoProcessesShareAFileAndTheLastCloseIsFinal) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const sfl_ItemRef ref = RefOf(h);
  const std::string path = PathOf(h);
  Pipe toChild, toParent;
  int pid = sfltest::StartChild([&] {
    ChildEnds(toChild, toParent);
    int32_t o = sfl_OpenSfl(&ref, 0);
    sfl_BaseRec* rec = sfl_Handle2Record(o);
    if (rec->ProcAccCount != 2) return 1;
    toParent.Send('o');
    if (toChild.Receive() != 'c') return 2;
    // The parent has closed: this process alone holds the file now.
    sfl_CheckBaseInterest(rec);
    if (rec->ProcAccCount != 1) return 3;
    if (!Exists(path)) return 4;
    sfl_CloseFile(o);
    return Exists(path) ? 5 : 0;
  });
  ParentEnds(toChild, toParent);
  ASSERT_EQ(toParent.Receive(), 'o');
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  sfl_CheckBaseInterest(rec);
  EXPECT_EQ(rec->ProcAccCount, 2u);
  sfl_CloseFile(h);
  // Another process still holds the empty file: it is left alone.
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(rec->InColdStore, 1u);
  toChild.Send('c');
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  EXPECT_FALSE(Exists(path));
}

TEST_F(BaseTest, DeletionDeferredByAnotherProcessIsReleasedByTheLastClose) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const sfl_ItemRef ref = RefOf(h);
  const std::string path = PathOf(h);
  sfl_ItemRef itemRef{};
  int32_t item = sfl_StoreBasicItem(h, nullptr, 1000, &itemRef, 0);
  Pipe toChild, toParent;
  int pid = sfltest::StartChild([&] {
    ChildEnds(toChild, toParent);
    int32_t o = sfl_OpenSfl(&ref, 0);
    toParent.Send('o');
    if (toChild.Receive() != 'c') return 2;
    sfl_FileHeader fh;
    sfl_ReadFileHeader(sfl_Handle2Record(o), &fh);
    if (!(fh.Flags & ITEM_PEND_DEL)) return 3;  // the deletion waited for us
    sfl_CloseFile(o);
    return Exists(path) ? 4 : 0;
  });
  ParentEnds(toChild, toParent);
  ASSERT_EQ(toParent.Receive(), 'o');
  // Dropping the last attachment deletes the item at its close; the child's
  // interest makes that deletion wait.
  EXPECT_EQ(sfl_DetachOpenItem(item), 0u);
  sfl_CloseItem(item);
  EXPECT_NE(U32At(path, 20) & ITEM_PEND_DEL, 0u);
  EXPECT_NE(U32At(path, 128 + 64 + 32) & DELETED, 0u);
  sfl_CloseFile(h);
  EXPECT_TRUE(Exists(path));  // the child still holds it
  EXPECT_NE(U32At(path, 20) & ITEM_PEND_DEL, 0u);
  toChild.Send('c');
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  EXPECT_FALSE(Exists(path));
}

}  // namespace
