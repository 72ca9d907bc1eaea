// Positions a handle remembers between calls (the tree of a blocked item,
// the file an internal item lives in, a stream's bounds) against what other
// processes and the container's own life do meanwhile: a rebuild of the tree
// by another process, whose released records then hold another item's data
// or come back under a root seen before, an internal item handle that
// outlives its container's last close, and a simple item truncated and
// deleted elsewhere while it is open.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using sfltest::EscapeCodeOf;

constexpr long Table(int reason) { return sfltest::EscapeCode(ER_GROUP_TABLE, reason); }

Bytes Filled(uint8_t v, size_t n) { return Bytes(n, v); }

// Reads `len` bytes of an item of a file in a process of its own.
Bytes ReadSimpleElsewhere(const sfl_ItemRef& ref, uint32_t len) {
  Bytes got(len, 0);
  int pipefd[2];
  if (::pipe(pipefd) != 0) return {};
  const int rc = sfltest::RunInChild([&] {
    const int32_t h = sfl_OpenItem(&ref, 0);
    Bytes b(len);
    if (sfl_ReadSimpleData(h, 0, len, b.data()) != static_cast<int32_t>(len)) return 1;
    sfl_CloseItem(h);
    if (::write(pipefd[1], b.data(), len) != static_cast<ssize_t>(len)) return 2;
    return 0;
  });
  if (rc == 0 && ::read(pipefd[0], got.data(), len) != static_cast<ssize_t>(len)) got.clear();
  ::close(pipefd[0]);
  ::close(pipefd[1]);
  return rc == 0 ? got : Bytes{};
}

// ---- a blocked item rebuilt under an open handle ----------------------------------------

TEST(RememberedPositions, ARebuildByAnotherProcessDoesNotRedirectAnOpenHandle) {
  // A: a blocked item with blocks 0 to 2, read through its handle, which
  // now remembers the tree's only record.
  const sfltest::OpenContainer file = sfltest::NewContainer();
  sfl_ItemRef itemRef{};
  const int32_t a = sfl_CreateBlockedItem(file.bh, &itemRef);
  ASSERT_EQ(sfl_FormatBlockedRoot(a), 1);
  for (uint32_t b = 0; b < 3; ++b) {
    const Bytes d = Filled(static_cast<uint8_t>('0' + b), 1000);
    ASSERT_EQ(sfl_WriteBlockedData(a, b, 1000, d.data()), 1000);
  }
  Bytes got(1000);
  ASSERT_EQ(sfl_ReadBlockedData(a, 1, 1000, got.data()), 1000u);
  ASSERT_NE(sfl_ItemHandle2Record(a)->LastIdxOff, 0u);

  // B renumbers the item densely (a new tree; the old one's records are
  // released) and frees block 1.
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t h = sfl_OpenItem(&itemRef, 0);
              if (sfl_CompactBlockedItem(h) != 2) return 1;
              sfl_FreeBlock(h, 1, 0);
              sfl_CloseItem(h);
              return 0;
            }),
            0);

  // C stores a 1,000-byte item of its own, which takes the space let go.
  int slot[2];
  ASSERT_EQ(::pipe(slot), 0);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t bh = sfl_OpenSfl(&file.ref, 0);
              sfl_ItemRef ref{};
              const int32_t h = sfl_StoreBasicItem(bh, nullptr, 1000, &ref, 0);
              const Bytes d = Filled('C', 1000);
              if (sfl_WriteSimpleData(h, 0, 1000, d.data()) != 1000) return 1;
              sfl_CloseItem(h);
              sfl_CloseFile(bh);
              return ::write(slot[1], &ref, sizeof ref) == static_cast<ssize_t>(sizeof ref) ? 0 : 2;
            }),
            0);
  sfl_ItemRef cRef{};
  ASSERT_EQ(::read(slot[0], &cRef, sizeof cRef), static_cast<ssize_t>(sizeof cRef));
  ::close(slot[0]);
  ::close(slot[1]);

  // A writes block 1 again: whatever becomes of it, C's bytes stay C's.
  const Bytes mine = Filled('A', 1000);
  const long writeEscape = EscapeCodeOf([&] { sfl_WriteBlockedData(a, 1, 1000, mine.data()); });
  EXPECT_EQ(ReadSimpleElsewhere(cRef, 1000), Filled('C', 1000));

  // A new block placed through the same handle is one the tree lists:
  // another process reads it by the number given.
  const Bytes extra = Filled('N', 200);
  const int32_t n = sfl_GetNewBlock(a, 200, 0, extra.data());
  ASSERT_GE(n, 0);
  int seen[2];
  ASSERT_EQ(::pipe(seen), 0);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t h = sfl_OpenItem(&itemRef, 0);
              Bytes b(200);
              if (sfl_ReadBlockedData(h, static_cast<uint32_t>(n), 200, b.data()) != 200) return 1;
              if (b != extra) return 2;
              // Block 1, if A's write went through, holds A's bytes.
              Bytes one(1000);
              const long e = EscapeCodeOf([&] { sfl_ReadBlockedData(h, 1, 1000, one.data()); });
              const char state = e != 0 ? 'x' : one == mine ? 'A' : '?';
              sfl_CloseItem(h);
              return ::write(seen[1], &state, 1) == 1 ? 0 : 3;
            }),
            0);
  char state = 0;
  ASSERT_EQ(::read(seen[0], &state, 1), 1);
  ::close(seen[0]);
  ::close(seen[1]);
  if (writeEscape == 0)
    EXPECT_EQ(state, 'A') << "a write that succeeded must land in the item's own block 1";
  else
    EXPECT_EQ(state, 'x');

  sfl_CloseItem(a);
  sfl_CloseFile(file.bh);
  sfltest::CloseColdFiles();
  EXPECT_EQ(sfl_CheckSflIntegrity(&file.ref, 0), 0);
}

TEST(RememberedPositions, AnotherItemsDataShapedLikeTheOldRootIsNotFollowed) {
  // A remembers the only record of its item's tree. B rebuilds the tree;
  // C stores a 384-byte item, which takes the old record's place, holding
  // bytes that read as that very record (an item may hold any bytes).
  const sfltest::OpenContainer file = sfltest::NewContainer();
  sfl_ItemRef itemRef{};
  const int32_t a = sfl_CreateBlockedItem(file.bh, &itemRef);
  ASSERT_EQ(sfl_FormatBlockedRoot(a), 1);
  for (uint32_t b = 0; b < 3; ++b) {
    const Bytes d = Filled(static_cast<uint8_t>('0' + b), 200);
    ASSERT_EQ(sfl_WriteBlockedData(a, b, 200, d.data()), 200);
  }
  const uint32_t oldRoot = sfl_ItemHandle2Record(a)->LastIdxOff;
  ASSERT_EQ(oldRoot, sfl_ItemHandle2Record(a)->Offset);
  const Bytes rootBytes = sfltest::ReadExactly(sfl_Handle2Record(file.bh)->FileDes, oldRoot, SFL_INDEX_SIZE);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t h = sfl_OpenItem(&itemRef, 0);
              sfl_FreeBlock(h, 1, 0);
              sfl_CompactBlockedItem(h);
              sfl_CloseItem(h);
              return 0;
            }),
            0);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t bh = sfl_OpenSfl(&file.ref, 0);
              const int32_t h = sfl_StoreBasicItem(bh, nullptr, SFL_INDEX_SIZE, nullptr, 0);
              if (sfl_ItemHandle2Record(h)->Offset != oldRoot) return 1;
              if (sfl_WriteSimpleData(h, 0, SFL_INDEX_SIZE, rootBytes.data()) != SFL_INDEX_SIZE) return 2;
              sfl_CloseItem(h);
              sfl_CloseFile(bh);
              return 0;
            }),
            0)
      << "the new item did not take the old record's place";
  // Block 2 (block 1 since the rebuild, as block 1 was freed) through A.
  const Bytes mine = Filled('A', 200);
  ASSERT_EQ(sfl_WriteBlockedData(a, 1, 200, mine.data()), 200);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t h = sfl_OpenItem(&itemRef, 0);
              Bytes b(200);
              if (sfl_ReadBlockedData(h, 1, 200, b.data()) != 200) return 1;
              sfl_CloseItem(h);
              return b == mine ? 0 : 2;
            }),
            0);
  sfl_CloseItem(a);
  sfl_CloseFile(file.bh);
}

// A rebuild lays its new root down while the old one is still in force, so
// the root always moves; but a second rebuild may put the root back where a
// handle once knew it, while the leaf the handle remembers is no longer
// part of the tree. A's handle is left so: it remembers the root and the
// leaf of blocks 32 to 63, and the item, rebuilt twice since by B, is one
// leaf of 28 blocks whose root lies where the handle knew the root.
class RootSeenAgain : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = sfltest::NewContainer();
    a_ = sfl_CreateBlockedItem(file_.bh, &itemRef_);
    ASSERT_EQ(sfl_FormatBlockedRoot(a_), 1);
    for (uint32_t b = 0; b < 40; ++b) {
      const Bytes d = Filled(static_cast<uint8_t>(b + 1), 100);
      ASSERT_EQ(sfl_WriteBlockedData(a_, b, 100, d.data()), 100);
      model_.push_back(static_cast<uint8_t>(b + 1));
    }
    DropFirst(1);
    DropFirst(1);
    Bytes got(100);
    ASSERT_EQ(sfl_ReadBlockedData(a_, 35, 100, got.data()), 100u);
    ASSERT_EQ(got, Filled(model_[35], 100));
    const uint32_t root = sfl_ItemHandle2Record(a_)->Offset;
    ASSERT_EQ(sfl_ItemHandle2Record(a_)->LastIdxBase, 32u);
    DropFirst(10);
    DropFirst(0);
    sfl_ItemHeader h{};
    sfl_ReadItemHeader(sfl_ItemHandle2Record(a_), &h);
    ASSERT_EQ(h.FileOffset, root) << "the layout no longer brings the root back";
    ASSERT_EQ(h.IndexDepth, 0u);
    ASSERT_EQ(model_.size(), 28u);
    ASSERT_EQ(sfl_ItemHandle2Record(a_)->LastIdxBase, 32u);
  }
  void TearDown() override {
    sfl_CloseItem(a_);
    sfl_CloseFile(file_.bh);
  }
  // B frees the first `drop` blocks and renumbers the rest.
  void DropFirst(uint32_t drop) {
    ASSERT_EQ(sfltest::RunInChild([&] {
                const int32_t h = sfl_OpenItem(&itemRef_, 0);
                for (uint32_t b = 0; b < drop; ++b) sfl_FreeBlock(h, b, 0);
                sfl_CompactBlockedItem(h);
                sfl_CloseItem(h);
                return 0;
              }),
              0);
    model_.erase(model_.begin(), model_.begin() + drop);
  }
  // Every block holds what the model says.
  void ExpectModel() {
    Bytes got(100);
    for (uint32_t b = 0; b < model_.size(); ++b) {
      ASSERT_EQ(sfl_ReadBlockedData(a_, b, 100, got.data()), 100u);
      EXPECT_EQ(got, Filled(model_[b], 100)) << "block " << b;
    }
  }

  sfltest::OpenContainer file_;
  sfl_ItemRef itemRef_{};
  int32_t a_ = -1;
  std::vector<uint8_t> model_;  // the fill of each block, by number
};

constexpr long Sfl(int reason) { return sfltest::EscapeCode(ER_GROUP_SFL, reason); }

TEST_F(RootSeenAgain, AWriteOfABlockBeyondTheItemMakesANewBlock) {
  const Bytes w = Filled('W', 100);
  ASSERT_EQ(sfl_WriteBlockedData(a_, 35, 100, w.data()), 100);
  ExpectModel();
  Bytes got(100);
  ASSERT_EQ(sfl_ReadBlockedData(a_, 35, 100, got.data()), 100u);
  EXPECT_EQ(got, w);
}

TEST_F(RootSeenAgain, AReadOfABlockBeyondTheItemIsRefused) {
  Bytes got(100);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(a_, 35, 100, got.data()); }), Sfl(SFL_R_BAD_SLOT));
  ExpectModel();
}

TEST_F(RootSeenAgain, APlaceInABlockBeyondTheItemIsRefused) {
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateIntBItem(a_, 35, 0, 0); }), Sfl(SFL_R_BAD_SLOT));
  ExpectModel();
}

TEST_F(RootSeenAgain, ANewBlockGoesIntoTheTree) {
  const Bytes d = Filled('N', 100);
  EXPECT_EQ(sfl_GetNewBlock(a_, 100, 0, d.data()), 28);
  model_.push_back('N');
  ExpectModel();
}

// ---- an internal item's handle after its container's last close ------------------------------

// A container with a 512-byte simple item holding, at position 64, the
// header of an internal item whose block 0 holds `fill`.
struct IntItemFile {
  sfltest::OpenContainer file;
  int32_t parent = -1;
  int32_t inner = -1;
  sfl_ItemRef parentRef{};
};

IntItemFile NewIntItemFile(uint8_t fill) {
  IntItemFile f;
  f.file = sfltest::NewContainer();
  f.parent = sfl_StoreBasicItem(f.file.bh, nullptr, 512, &f.parentRef, 0);
  f.inner = sfl_CreateIntBItem(f.parent, 0, 64, 0);
  const Bytes d = Filled(fill, 300);
  EXPECT_EQ(sfl_WriteBlockedData(f.inner, 0, 300, d.data()), 300);
  return f;
}

Bytes IntBlockElsewhere(const sfl_ItemRef& parentRef) {
  Bytes got(300, 0);
  int pipefd[2];
  if (::pipe(pipefd) != 0) return {};
  const int rc = sfltest::RunInChild([&] {
    const int32_t p = sfl_OpenItem(&parentRef, 0);
    const int32_t i = sfl_OpenIntItem(p, 0, 64);
    Bytes b(300);
    if (sfl_ReadBlockedData(i, 0, 300, b.data()) != 300) return 1;
    sfl_CloseIntItem(i);
    sfl_CloseItem(p);
    return ::write(pipefd[1], b.data(), b.size()) == 300 ? 0 : 2;
  });
  if (rc == 0 && ::read(pipefd[0], got.data(), got.size()) != 300) got.clear();
  ::close(pipefd[0]);
  ::close(pipefd[1]);
  return rc == 0 ? got : Bytes{};
}

TEST(RememberedPositions, AnInternalItemHandleDoesNotFollowItsFileRecordToAnotherContainer) {
  sfltest::CloseColdFiles();  // no file of an earlier test keeps an entry
  IntItemFile first = NewIntItemFile('1');
  const sfl_BaseRec* firstRec = sfl_Handle2Record(first.file.bh);
  // The container's last close: the internal item stays open.
  sfl_CloseItem(first.parent);
  sfl_CloseFile(first.file.bh);
  // The container leaves the cold store; its record goes to another
  // container, laid out alike.
  sfltest::CloseColdFiles();
  IntItemFile second = NewIntItemFile('2');
  ASSERT_EQ(sfl_Handle2Record(second.file.bh), firstRec) << "the record was not reused";

  const Bytes stray = Filled('X', 300);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_WriteBlockedData(first.inner, 0, 300, stray.data()); }),
            Table(SFL_R_BAD_HANDLE));
  Bytes b(300);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(first.inner, 0, 300, b.data()); }),
            Table(SFL_R_BAD_HANDLE));
  EXPECT_EQ(IntBlockElsewhere(second.parentRef), Filled('2', 300));
  // The dead handle can still be given back, and then is gone.
  sfl_CloseIntItem(first.inner);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CloseIntItem(first.inner); }), Table(SFL_R_BAD_HANDLE));

  sfl_CloseIntItem(second.inner);
  sfl_CloseItem(second.parent);
  sfl_CloseFile(second.file.bh);
}

TEST(RememberedPositions, AnInternalItemHandleIsRefusedOnceItsContainerHasClosed) {
  IntItemFile f = NewIntItemFile('1');
  sfl_CloseItem(f.parent);
  sfl_CloseFile(f.file.bh);
  // Kept in the cold store, the file is no longer this process's to write:
  // another process may now release the parent and reuse its space.
  const Bytes stray = Filled('X', 300);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_WriteBlockedData(f.inner, 0, 300, stray.data()); }),
            Table(SFL_R_BAD_HANDLE));
  EXPECT_EQ(IntBlockElsewhere(f.parentRef), Filled('1', 300));
  sfl_CloseIntItem(f.inner);

  // Reopened, the same internal item works through a new handle.
  const int32_t p = sfl_OpenItem(&f.parentRef, 0);
  const int32_t i = sfl_OpenIntItem(p, 0, 64);
  EXPECT_EQ(sfl_WriteBlockedData(i, 0, 300, stray.data()), 300);
  sfl_CloseIntItem(i);
  sfl_CloseItem(p);
  EXPECT_EQ(IntBlockElsewhere(f.parentRef), stray);
}

TEST(RememberedPositions, AnInternalItemHandleIsRefusedOnceItsContainerIsGone) {
  sfltest::CloseColdFiles();  // no file of an earlier test keeps an entry
  // The parent is deleted at its last close (this process alone holds the
  // file), the container, left without items, is removed at its close and
  // its entry goes to a new container laid out alike.
  IntItemFile f = NewIntItemFile('1');
  sfl_DetachOpenItem(f.parent);
  sfl_CloseItem(f.parent);
  const sfl_BaseRec* firstRec = sfl_Handle2Record(f.file.bh);
  sfl_CloseFile(f.file.bh);
  IntItemFile second = NewIntItemFile('2');
  ASSERT_EQ(sfl_Handle2Record(second.file.bh), firstRec) << "the record was not reused";
  const Bytes stray = Filled('X', 300);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_WriteBlockedData(f.inner, 0, 300, stray.data()); }),
            Table(SFL_R_BAD_HANDLE));
  EXPECT_EQ(IntBlockElsewhere(second.parentRef), Filled('2', 300));
  sfl_CloseIntItem(f.inner);
  sfl_CloseIntItem(second.inner);
  sfl_CloseItem(second.parent);
  sfl_CloseFile(second.file.bh);
}

// ---- simple items and streams -----------------------------------------------------------------

TEST(RememberedPositions, ASimpleItemDeletedAndTruncatedElsewhereKeepsItsSpaceWhileOpen) {
  // A holds a simple item open; B truncates it and then deletes it, and C
  // stores a new item. A's writes, as far as its handle's size reaches,
  // still land in the item's own reserved run, never in C's.
  const sfltest::OpenContainer file = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t a = sfl_StoreBasicItem(file.bh, nullptr, 1000, &ref, 0);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t h = sfl_OpenItem(&ref, 0);
              sfl_TruncateSimItem(h, 10);
              sfl_DetachOpenItem(h);
              sfl_CloseItem(h);
              return 0;
            }),
            0);
  int slot[2];
  ASSERT_EQ(::pipe(slot), 0);
  ASSERT_EQ(sfltest::RunInChild([&] {
              const int32_t bh = sfl_OpenSfl(&file.ref, 0);
              sfl_ItemRef c{};
              const int32_t h = sfl_StoreBasicItem(bh, nullptr, 1000, &c, 0);
              const Bytes d = Filled('C', 1000);
              if (sfl_WriteSimpleData(h, 0, 1000, d.data()) != 1000) return 1;
              sfl_CloseItem(h);
              sfl_CloseFile(bh);
              return ::write(slot[1], &c, sizeof c) == static_cast<ssize_t>(sizeof c) ? 0 : 2;
            }),
            0);
  sfl_ItemRef cRef{};
  ASSERT_EQ(::read(slot[0], &cRef, sizeof cRef), static_cast<ssize_t>(sizeof cRef));
  ::close(slot[0]);
  ::close(slot[1]);
  const Bytes mine = Filled('A', 1000);
  EXPECT_EQ(sfl_WriteSimpleData(a, 0, 1000, mine.data()), 1000);
  EXPECT_EQ(ReadSimpleElsewhere(cRef, 1000), Filled('C', 1000));
  sfl_CloseItem(a);
  sfl_CloseFile(file.bh);
  sfltest::CloseColdFiles();
  EXPECT_EQ(sfl_CheckSflIntegrity(&file.ref, 0), 0);
}

TEST(RememberedPositions, AStreamIsNotOpenedOnABlockedItem) {
  // A stream's bounds are the item's Offset and Size; for a blocked item
  // they are its root index record, which a rebuild elsewhere releases.
  const sfltest::OpenContainer file = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(file.bh, &ref);
  ASSERT_EQ(sfl_FormatBlockedRoot(h), 1);
  const Bytes d = Filled('B', 100);
  ASSERT_EQ(sfl_WriteBlockedData(h, 0, 100, d.data()), 100);
  const uint32_t root = sfl_ItemHandle2Record(h)->Offset;
  const Bytes before = sfltest::ReadExactly(sfl_Handle2Record(file.bh)->FileDes, root, SFL_INDEX_SIZE);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_fOpenItem(&ref, "w"); }),
            sfltest::EscapeCode(ER_GROUP_SFL, SFL_R_BLOCKED));
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  EXPECT_EQ(sfltest::ReadExactly(sfl_Handle2Record(file.bh)->FileDes, root, SFL_INDEX_SIZE), before);
  sfl_CloseItem(h);
  sfl_CloseFile(file.bh);
}

}  // namespace
