// The C++ interface with ownership (sfl.hpp): what each type closes and
// when, what a destructor does with a close that fails, byte and text I/O,
// references in text form, and an item stored here read in another process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "sfl.hpp"
#include "sfl_coding.h"
#include "sfl_records.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::EscapeOf;

sfl::Bytes B(std::string_view s) {
  sfl::Bytes b(s.size());
  std::memcpy(b.data(), s.data(), s.size());
  return b;
}

// Whether an item handle is still open in this process.
bool ItemOpen(int32_t h) { return EscapeOf([&] { sfl_ItemHandle2Record(h); }).reason == 0; }

struct Seen {
  int calls = 0;
  int reason = 0;
  std::string what;
  int32_t handle = -1;
};
Seen g_seen;
void Record(const er_Escape& e, const char* what, int32_t handle) {
  ++g_seen.calls;
  g_seen.reason = e.reason();
  g_seen.what = what;
  g_seen.handle = handle;
}

TEST(Hpp, StoreCloseOnScopeEndAndReadInAnotherProcess) {
  sfl::Ref ref;
  int32_t itemHandle = -1, baseHandle = -1;
  {
    sfl::Container c = sfl::Container::Create();
    baseHandle = c.Handle();
    sfl::Item item = c.Store("stored from C++");
    itemHandle = item.Handle();
    ref = item.Reference();
    EXPECT_EQ(ref.ItemNumber(), item.Reference().Raw().Flags & 7u);
    EXPECT_EQ(ref.File(), c.Reference());
  }
  // Both handles went with their owners.
  EXPECT_FALSE(ItemOpen(itemHandle));
  EXPECT_EQ(sfl_Handle2Record(baseHandle)->ExternalOpens, 0);

  const std::string text = ref.Text();
  const int pid = sfltest::StartChild([&] {
    sfl::Item item = sfl::Item::Open(sfl::Ref::Parse(text));
    const sfl::Bytes got = item.ReadAll();
    return got == B("stored from C++") ? 0 : 1;
  });
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
}

TEST(Hpp, MovingHandsTheHandleOverAndAssignmentClosesTheOldOne) {
  sfl::Container c = sfl::Container::Create();
  sfl::Item a = c.Store("a");
  sfl::Item b = c.Store("b");
  const int32_t ha = a.Handle(), hb = b.Handle();
  sfl::Item moved = std::move(a);
  EXPECT_FALSE(a.IsOpen());  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_EQ(moved.Handle(), ha);
  EXPECT_TRUE(ItemOpen(ha));
  moved = std::move(b);  // closes the item `moved` held
  EXPECT_FALSE(ItemOpen(ha));
  EXPECT_TRUE(ItemOpen(hb));
  EXPECT_EQ(moved.ReadText(), "b");
  moved.Close();
  EXPECT_FALSE(ItemOpen(hb));
  moved.Close();  // closing what is closed does nothing
}

TEST(Hpp, AFailedCloseInADestructorGoesToTheHandlerNotOut) {
  sfl::CloseFailureHandler old = sfl::SetCloseFailureHandler(Record);
  g_seen = {};
  sfl::Container c = sfl::Container::Create();
  int32_t h = -1;
  {
    sfl::Item item = c.Store("x");
    h = item.Handle();
    sfl_CloseItem(h);  // behind its owner's back: the owner's close will fail
  }
  EXPECT_EQ(g_seen.calls, 1);
  EXPECT_EQ(g_seen.reason, 28867);
  EXPECT_EQ(g_seen.what, "item");
  EXPECT_EQ(g_seen.handle, h);
  EXPECT_EQ(er_GetLive(), 0);  // the escape ended in the destructor

  // close() raises instead, and the object still owns the handle.
  g_seen = {};
  {
    sfl::Item item = c.Store("y");
    sfl_CloseItem(item.Handle());
    EXPECT_EQ(EscapeOf([&] { item.Close(); }).reason, 28867);
    EXPECT_TRUE(item.IsOpen());
    EXPECT_EQ(g_seen.calls, 0);
  }
  EXPECT_EQ(g_seen.calls, 1);  // the destructor tried once more
  sfl::SetCloseFailureHandler(old);
}

TEST(Hpp, ByDefaultAFailedCloseInADestructorIsLogged) {
  sfl::Container c = sfl::Container::Create();
  sfltest::LogCapture log;
  {
    sfl::Item item = c.Store("x");
    sfl_CloseItem(item.Handle());
  }
  ASSERT_TRUE(log.SawReason(28867));
  for (const sfltest::LogEntry& e : log.Entries()) {
    if (e.reason == 28867) {
      EXPECT_EQ(e.level, 2);
    }
  }
}

TEST(Hpp, ReleaseGivesTheHandleUpWithoutClosingIt) {
  sfl::Container c = sfl::Container::Create();
  int32_t h = -1;
  {
    sfl::Item item = c.Store("kept open");
    h = item.Release();
    EXPECT_FALSE(item.IsOpen());
  }
  EXPECT_TRUE(ItemOpen(h));
  sfl_CloseItem(h);

  // The same for the other owners: each handle is still open afterwards.
  const int32_t blocked = c.NewBlockedItem().Release();
  EXPECT_TRUE(ItemOpen(blocked));
  sfl_CloseItem(blocked);
  const sfl::Ref ref = c.Store("s").Reference();
  const int32_t stream = sfl::Stream::Open(ref, "r").Release();
  EXPECT_GE(sfl_fileno(stream), 0);
  sfl_fClose(stream);
  const int32_t base = sfl::Container::Create().Release();
  EXPECT_EQ(sfl_Handle2Record(base)->ExternalOpens, 1);
  sfl_CloseFile(base);
}

TEST(Hpp, ReferencesParseAndFormat) {
  sfl::Ref r = sfl::Ref::Parse("2.17.4096.ab:3");
  EXPECT_EQ(r.Raw().Domain, 2);
  EXPECT_EQ(r.Raw().SubDomain, 17u);
  EXPECT_EQ(r.Raw().FileId, 4096u);
  EXPECT_STREQ(r.Raw().Name, "ab");
  EXPECT_EQ(r.ItemNumber(), 3u);
  EXPECT_EQ(r.Text(), "2.17.4096.ab:3");
  EXPECT_EQ(r.File().Text(), "2.17.4096.ab");
  EXPECT_EQ(r.File().ItemNumber(), 0u);
  EXPECT_FALSE(r == r.File());
  EXPECT_EQ(sfl::Ref::Parse(r.Text()), r);
  EXPECT_FALSE(r.FileName().empty());
  EXPECT_EQ(EscapeOf([] { sfl::Ref::Parse("2.x"); }).group, ER_GROUP_CONFIG);
}

TEST(Hpp, ItemsReadWholeWriteTruncateAndDelete) {
  sfl::Container c = sfl::Container::Create();
  sfl::Item item = c.NewItem(8);
  EXPECT_EQ(item.Size(), 8u);
  EXPECT_EQ(item.ReadAll(), sfl::Bytes(8));  // zero-filled
  item.Write(2, "abcd");
  item.Write(0, std::span<const std::byte>(B("xy")));
  EXPECT_EQ(item.ReadText(), std::string("xyabcd\0\0", 8));
  std::vector<std::byte> part(3);
  item.Read(3, part);
  EXPECT_EQ(part, B("bcd"));
  // Past the end is refused, not shortened.
  std::vector<std::byte> tooLong(9);
  EXPECT_NE(EscapeOf([&] { item.Read(0, tooLong); }).reason, 0);
  item.Truncate(4);
  EXPECT_EQ(item.ReadText(), "xyab");
  item.Sync();

  const sfl::Ref ref = item.Reference();
  EXPECT_TRUE(sfl::Exists(ref));
  const int32_t h = item.Handle();
  item.Delete();
  EXPECT_FALSE(item.IsOpen());
  EXPECT_FALSE(ItemOpen(h));
  EXPECT_FALSE(sfl::Exists(ref));

  // An empty item reads as empty.
  sfl::Item empty = c.Store("");
  EXPECT_TRUE(empty.ReadAll().empty());
  EXPECT_EQ(c.Items().size(), 8u);
  EXPECT_EQ(c.Items()[empty.Reference().ItemNumber()].InUse, 1u);
}

TEST(Hpp, BlockedItemsByBlock) {
  sfl::Container c = sfl::Container::Create();
  sfl::BlockedItem b = c.NewBlockedItem();
  EXPECT_TRUE(b.Blocks().empty());
  b.WriteBlock(0, "zero");
  b.WriteBlock(4, std::span<const std::byte>(B("four!")));
  const std::vector<sfl::Block> blocks = b.Blocks();
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[1].number, 4u);
  EXPECT_EQ(blocks[1].size, 5u);
  EXPECT_EQ(b.ReadBlock(4), B("four!"));
  EXPECT_NE(EscapeOf([&] { b.ReadBlock(2); }).reason, 0);
  EXPECT_EQ(b.Compact(), 1u);
  b.Reorder(1, 0);
  EXPECT_EQ(b.ReadBlock(0), B("four!"));
  EXPECT_EQ(b.ReadBlock(1), B("zero"));
  b.FreeBlock(1);
  EXPECT_EQ(b.Blocks().size(), 1u);

  // Opened again by reference.
  const sfl::Ref ref = b.Reference();
  b.Close();
  sfl::BlockedItem again = sfl::BlockedItem::Open(ref);
  EXPECT_EQ(again.ReadBlock(0), B("four!"));
}

TEST(Hpp, StreamsOverAnItem) {
  sfl::Container c = sfl::Container::Create();
  const sfl::Ref ref = c.NewItem(13).Reference();
  {
    sfl::Stream w = sfl::Stream::Open(ref, "w");
    EXPECT_EQ(w.Write("first\nsecond\n"), 13u);
  }
  sfl::Stream r = sfl::Stream::Open(ref, "r");
  EXPECT_EQ(r.GetLine(), "first\n");
  EXPECT_EQ(r.Tell(), 6);
  std::vector<std::byte> three(3);
  EXPECT_EQ(r.Read(three), 3u);
  EXPECT_EQ(three, B("sec"));
  EXPECT_EQ(r.Seek(0), 0);
  EXPECT_EQ(r.GetLine(), "first\n");
  EXPECT_EQ(r.GetLine(), "second\n");
  EXPECT_EQ(r.GetLine(), std::nullopt);
  const int32_t h = r.Handle();
  r.Close();
  EXPECT_NE(EscapeOf([&] { sfl_fClose(h); }).reason, 0);
}

TEST(Hpp, StreamsOverAPlainFile) {
  const std::string path = sfltest::TestDir() + "/plain.txt";
  {
    sfl::Stream w = sfl::Stream::OpenFile(path, "w");
    EXPECT_EQ(w.Write(std::span<const std::byte>(B("one\ntwo\n"))), 8u);
  }
  sfl::Stream r = sfl::Stream::OpenFile(path, "r");
  EXPECT_EQ(r.GetLine(), "one\n");
  EXPECT_EQ(r.GetLine(2), "tw");  // at most `max` bytes of a line
}

TEST(Hpp, CheckAndCompactByReference) {
  sfl::Ref file;
  {
    sfl::Container c = sfl::Container::Create();
    file = c.Reference();
    c.Store("kept");
    c.Store(std::string(300, 'z')).Delete();
  }
  EXPECT_TRUE(sfl::Check(file));
  EXPECT_EQ(sfl::Compact(file), SFL_COMPACT_DONE);
  EXPECT_TRUE(sfl::Check(file));
  sfl::Container again = sfl::Container::Open(file);
  EXPECT_EQ(again.Flags() & NEED_COMPACTION, 0u);
  again.Sync();
}

}  // namespace

namespace {

// Writes the slot count of a container file's header in place.
void PutSlotCount(const std::string& path, uint16_t count) {
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  uint8_t b[2];
  sfl_PutU16(b, count);
  ASSERT_EQ(::pwrite(fd, b, sizeof b, sfl_fh::MaxItems), static_cast<ssize_t>(sizeof b));
  ::close(fd);
}

TEST(Hpp, TheItemTableHasAsManyEntriesAsTheHeaderNamesSlots) {
  sfl::Container c = sfl::Container::Create();
  sfl::Item a = c.Store("first");
  sfl::Item b = c.Store(std::string(3000, 'b'));
  std::vector<sfl::ItemInfo> slots = c.Items();
  ASSERT_EQ(slots.size(), 8u);
  for (uint32_t i = 0; i < slots.size(); ++i) EXPECT_EQ(slots[i].ItemNum, i);
  EXPECT_EQ(slots[b.Reference().ItemNumber()].FileSize, 3000u);

  // A header naming more slots than eight (written under the open file)
  // is listed whole, not cut at the eighth.
  const std::string path = sfltest::ItemPath(c.Reference().Raw());
  PutSlotCount(path, 9);
  slots = c.Items();
  ASSERT_EQ(slots.size(), 9u);
  EXPECT_EQ(slots[8].ItemNum, 8u);
  EXPECT_EQ(slots[8].InUse, 0u);  // the in-use map has eight bits
  EXPECT_EQ(slots[a.Reference().ItemNumber()].FileSize, 5u);

  // And one naming fewer lists fewer.
  PutSlotCount(path, 2);
  EXPECT_EQ(c.Items().size(), 2u);
  PutSlotCount(path, 8);
  EXPECT_EQ(c.Items().size(), 8u);
}

}  // namespace

namespace {

TEST(Hpp, ItemStatusAndTheCountsReadsAndWritesReturn) {
  sfl::Container c = sfl::Container::Create();
  sfl::Item item = c.Store("0123456789");
  const struct stat st = item.Stat();
  EXPECT_EQ(st.st_size, 10);
  EXPECT_GE(st.st_nlink, 1u);
  EXPECT_GT(st.st_mtime, 0);
  EXPECT_EQ(item.Write(4, "abc"), 3);
  std::vector<std::byte> out(6);
  EXPECT_EQ(item.Read(2, out), 6);
  EXPECT_EQ(out, B("23abc7"));
  EXPECT_EQ(item.Write(0, std::span<const std::byte>()), 0);
}

TEST(Hpp, ANewItemLeftUnfilledAndNoItemFromAFullContainer) {
  sfl::Container c = sfl::Container::Create();
  // Left unfilled, the item is the caller's to write whole.
  sfl::Item item = c.NewItem(6, /*zeroFill=*/false);
  ASSERT_TRUE(item.IsOpen());
  EXPECT_EQ(item.Size(), 6u);
  EXPECT_EQ(item.Write(0, "filled"), 6);
  EXPECT_EQ(item.ReadText(), "filled");

  // Slot 0 holds the free map: seven items fill the table.
  std::vector<sfl::Item> held;
  for (int i = 0; i < 6; ++i) held.push_back(c.Store("x"));
  for (const sfl::Item& h : held) EXPECT_TRUE(h.IsOpen());
  sfl::Item none = c.NewItem(4);
  EXPECT_FALSE(none.IsOpen());
  EXPECT_EQ(none.Handle(), -1);
  sfl::Item alsoNone = c.Store("more");
  EXPECT_FALSE(alsoNone.IsOpen());
}

TEST(Hpp, ANewItemInAChosenSlotAndNoneWhenTheSlotIsTaken) {
  sfl::Container c = sfl::Container::Create();
  sfl::Item five = c.NewItemAt(5, 4);
  ASSERT_TRUE(five.IsOpen());
  EXPECT_EQ(five.Reference().ItemNumber(), 5u);
  EXPECT_EQ(five.ReadAll(), sfl::Bytes(4));  // zero-filled
  EXPECT_EQ(c.Items()[5].InUse, 1u);
  sfl::Item again = c.NewItemAt(5, 4, /*zeroFill=*/false);
  EXPECT_FALSE(again.IsOpen());
  // The next free slot is still handed out as before.
  EXPECT_EQ(c.Store("one").Reference().ItemNumber(), 1u);
}

TEST(Hpp, BlocksAppendedReadInPartAndWholeHoweverLong) {
  sfl::Container c = sfl::Container::Create();
  sfl::BlockedItem b = c.NewBlockedItem();
  EXPECT_TRUE(b.Empty());
  EXPECT_EQ(b.AppendBlock("first"), std::optional<uint32_t>(0));
  std::string big(200 * 1024, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 23);
  EXPECT_EQ(b.AppendBlock(big), std::optional<uint32_t>(1));
  EXPECT_EQ(b.AppendBlock(std::span<const std::byte>(B("third"))), std::optional<uint32_t>(2));
  EXPECT_FALSE(b.Empty());

  std::vector<std::byte> part(3);
  EXPECT_EQ(b.Read(0, part), 3u);
  EXPECT_EQ(part, B("fir"));
  std::vector<std::byte> room(64);
  EXPECT_EQ(b.Read(2, room), 5u);
  EXPECT_EQ(b.ReadBlock(1), B(big));
  EXPECT_EQ(b.ReadBlock(2), B("third"));

  const std::vector<sfl::Block> blocks = b.Blocks(1);
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[0].size, big.size());
  b.FreeBlock(0);
  b.FreeBlock(1);
  b.FreeBlock(2);
  EXPECT_TRUE(b.Empty());
}

}  // namespace
