// The interest service's kept entries: a round trip through the file and
// through a table's journal, and a file that is bent slot by slot, cut,
// oversized, of another owner, open to others' writes, a link, of another
// boot or naming processes that have ended or whose pid was reused.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "le.h"
#include "ml.h"
#include "ml_interest.h"
#include "ml_keep.h"
#include "os.h"
#include "test_env.h"

namespace {

const std::string kBoot = "01234567-89ab-cdef-0123-456789abcdef";

ml_RefKey key(uint8_t b, const char* name = "") {
  ml_RefKey k{};
  k[0] = 2;
  k[4] = b;  // SubDomain
  k[8] = b;  // FileId
  std::memcpy(k.data() + 12, name, std::strlen(name));
  return k;
}

ml_Saved entry(int32_t pid, uint8_t ref, uint32_t token) {
  return ml_Saved{ML_SAVED_ENTRY, key(ref), pid, 1000 + static_cast<uint64_t>(pid), token, 0};
}

std::string path() { return sfltest::TestDir() + "/keep"; }

// Everyone the tests name lives, with start time 1000 + pid.
bool lives(int32_t pid, uint64_t start) { return start == 1000 + static_cast<uint64_t>(pid); }

ml_KeepLoad load(const std::string& p = path(), size_t limit = 100) {
  ml_KeepLoad out;
  ml_LoadKeep(p, getuid(), kBoot, limit, lives, &out);
  return out;
}

std::vector<uint8_t> bytesOf(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& p, const std::vector<uint8_t>& b) {
  std::filesystem::remove(p);
  std::ofstream out(p, std::ios::binary);
  out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
  out.close();
  ::chmod(p.c_str(), 0600);
}

bool same(const ml_Saved& a, const ml_Saved& b) {
  return a.Kind == b.Kind && a.Ref == b.Ref && a.Pid == b.Pid && a.Start == b.Start && a.Token == b.Token &&
         a.Link == b.Link;
}

TEST(MlKeep, WrittenSlotsReadBackAsTheyWere) {
  const std::vector<ml_Saved> saved = {
      entry(10, 1, 5), ml_Saved{ML_SAVED_ENTRY, key(1, "new"), 10, 1010, 6, 5},
      ml_Saved{ML_SAVED_MARK, key(2), 11, 1011, 0, 0}, ml_Saved{ML_SAVED_ANY, ml_RefKey{}, 12, 1012, 0, 0}};
  ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, saved, 0600));
  EXPECT_EQ(static_cast<uintmax_t>(ML_KEEP_HEADER + 4 * ML_KEEP_SLOT), std::filesystem::file_size(path()));
  ml_KeepLoad got = load();
  EXPECT_EQ("", got.Refused);
  EXPECT_EQ(0u, got.Dropped);
  ASSERT_EQ(saved.size(), got.Saved.size());
  for (size_t i = 0; i < saved.size(); ++i) EXPECT_TRUE(same(saved[i], got.Saved[i])) << i;
  // An absent file is an empty one.
  std::filesystem::remove(path());
  got = load();
  EXPECT_EQ("", got.Refused);
  EXPECT_TRUE(got.Saved.empty());
}

TEST(MlKeep, EveryBentSlotIsDroppedAndTheOthersKept) {
  // Each bend applied to the second of three entries.
  struct Bend {
    const char* what;
    size_t at;
    uint32_t value;
    bool fixChecksum;
  };
  const Bend bends[] = {
      {"checksum", 60, 0x12345678u, false}, {"kind", 0, 7, true},      {"pid zero", 4, 0, true},
      {"pid negative", 4, 0x80000000u, true}, {"start zero", 8, 0, true}, {"token zero", 32, 0, true},
      {"unused bytes", 44, 1, true},           {"ended process", 4, 77, true},
  };
  for (const Bend& b : bends) {
    SCOPED_TRACE(b.what);
    ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, {entry(10, 1, 1), entry(11, 2, 2), entry(12, 3, 3)}, 0600));
    std::vector<uint8_t> bytes = bytesOf(path());
    uint8_t* slot = bytes.data() + ML_KEEP_HEADER + ML_KEEP_SLOT;
    if (std::strcmp(b.what, "start zero") == 0) le_PutU32(slot + 12, 0);
    le_PutU32(slot + b.at, b.value);
    if (b.fixChecksum) {
      // Re-seal the slot so that only the bent field is wrong.
      ml_Saved s;
      s.Kind = le_GetU32(slot);
      s.Pid = static_cast<int32_t>(le_GetU32(slot + 4));
      s.Start = le_GetU32(slot + 8) | static_cast<uint64_t>(le_GetU32(slot + 12)) << 32;
      std::memcpy(s.Ref.data(), slot + 16, 16);
      s.Token = le_GetU32(slot + 32);
      s.Link = le_GetU32(slot + 36);
      uint8_t sealed[ML_KEEP_SLOT];
      ml_EncodeSlot(s, sealed);
      if (b.at >= 40 && b.at < 60) {
        // Unused bytes: the encoder zeroes them, so seal by hand.
        std::memcpy(sealed, slot, 60);
        uint32_t h = 2166136261u;
        for (int i = 0; i < 60; ++i) h = (h ^ sealed[i]) * 16777619u;
        le_PutU32(sealed + 60, h);
      }
      std::memcpy(slot, sealed, ML_KEEP_SLOT);
    }
    writeBytes(path(), bytes);
    ml_KeepLoad got = load();
    EXPECT_EQ("", got.Refused);
    EXPECT_EQ(1u, got.Dropped);
    ASSERT_EQ(2u, got.Saved.size());
    EXPECT_EQ(10, got.Saved[0].Pid);
    EXPECT_EQ(12, got.Saved[1].Pid);
  }
  // Kinds that carry what they must not: a mark with a token, anything with
  // a link but an entry, a "may hold anything" with a reference; and a slot
  // twice.
  const ml_Saved wrong[] = {ml_Saved{ML_SAVED_MARK, key(2), 11, 1011, 9, 0},
                            ml_Saved{ML_SAVED_MARK, key(2), 11, 1011, 0, 9},
                            ml_Saved{ML_SAVED_ANY, key(2), 11, 1011, 0, 0},
                            ml_Saved{ML_SAVED_ANY, ml_RefKey{}, 11, 1011, 3, 0}};
  for (const ml_Saved& w : wrong) {
    ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, {entry(10, 1, 1), w, entry(10, 1, 1)}, 0600));
    ml_KeepLoad got = load();
    EXPECT_EQ(2u, got.Dropped);
    EXPECT_EQ(1u, got.Saved.size());
  }
}

TEST(MlKeep, AFileThatIsNotOneOfOursIsNotUsedAtAll) {
  const std::vector<ml_Saved> one = {entry(10, 1, 1)};
  auto refusedAs = [&](const std::string& why) {
    ml_KeepLoad got = load();
    EXPECT_NE(std::string::npos, got.Refused.find(why)) << got.Refused;
    EXPECT_TRUE(got.Saved.empty());
  };
  // Cut: in the header, in a slot.
  ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, one, 0600));
  std::vector<uint8_t> bytes = bytesOf(path());
  for (size_t cut : {size_t{0}, size_t{30}, size_t{ML_KEEP_HEADER + 10}}) {
    writeBytes(path(), std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(cut)));
    refusedAs("size");
  }
  // Oversized: more slots than the bound.
  ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, std::vector<ml_Saved>(101, entry(10, 1, 1)), 0600));
  refusedAs("oversized");
  // A bent header: magic, version, slot size, checksum, bytes after the boot.
  for (size_t at : {size_t{0}, size_t{16}, size_t{20}, size_t{60}}) {
    std::vector<uint8_t> bent = bytes;
    bent[at] ^= 0x40;
    writeBytes(path(), bent);
    refusedAs("bad header");
  }
  // Of another owner, writable by others, not a regular file, a link.
  ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, one, 0600));
  ml_KeepLoad other;
  ml_LoadKeep(path(), getuid() + 1, kBoot, 100, lives, &other);
  EXPECT_NE(std::string::npos, other.Refused.find("owned by")) << other.Refused;
  if (getuid() == 0) {
    ASSERT_EQ(0, ::chown(path().c_str(), 1, 1));
    refusedAs("owned by");
    ASSERT_EQ(0, ::chown(path().c_str(), 0, 0));
  }
  ASSERT_EQ(0, ::chmod(path().c_str(), 0622));
  refusedAs("writable by others");
  ASSERT_EQ(0, ::chmod(path().c_str(), 0600));
  const std::string link = sfltest::TestDir() + "/keep-link";
  std::filesystem::remove(link);
  std::filesystem::create_symlink(path(), link);
  ml_KeepLoad viaLink;
  ml_LoadKeep(link, getuid(), kBoot, 100, lives, &viaLink);
  EXPECT_NE(std::string::npos, viaLink.Refused.find("cannot be opened")) << viaLink.Refused;
  std::filesystem::remove(path());
  std::filesystem::create_directory(path());
  refusedAs("not a regular file");
  std::filesystem::remove(path());
}

TEST(MlKeep, AFileOfAnotherBootNamesOnlyEndedProcesses) {
  ASSERT_EQ(0, ml_WriteKeep(path(), "fedcba98-89ab-cdef-0123-456789abcdef", {entry(10, 1, 1), entry(11, 2, 2)},
                            0600));
  ml_KeepLoad got = load();
  EXPECT_EQ("", got.Refused);
  EXPECT_EQ(2u, got.Dropped);
  EXPECT_TRUE(got.Saved.empty());
}

TEST(MlKeep, ProcessIdentityTellsAReusedPid) {
  const uint64_t mine = ml_ProcessStart(getpid());
  EXPECT_NE(0u, mine);
  EXPECT_EQ(mine, ml_ProcessStart(getpid()));
  EXPECT_TRUE(ml_SavedProcessLives(getpid(), mine));
  EXPECT_FALSE(ml_SavedProcessLives(getpid(), mine + 1));  // the same pid, another process
  const int child = sfltest::RunInChild([] { return 0; });
  EXPECT_EQ(0, child);
  EXPECT_EQ(0u, ml_ProcessStart(0));
  EXPECT_EQ(0u, ml_ProcessStart(0x7ffffff0));
  EXPECT_EQ(36u, ml_BootId().size());
}

// A journal in memory: slot -> what the table last put there.
struct MemJournal : ml_Journal {
  std::map<uint32_t, ml_Saved> slots;
  void Put(uint32_t slot, const ml_Saved& saved) override { slots[slot] = saved; }
  void Clear(uint32_t slot) override { slots.erase(slot); }
};

TEST(MlKeep, ATableRestoredFromItsJournalAnswersAsTheOriginalAndKeepsItsTokens) {
  std::set<int32_t> dead;
  auto alive = [&](int32_t pid) { return dead.count(pid) == 0; };
  auto start = [](int32_t pid) { return 1000 + static_cast<uint64_t>(pid); };
  MemJournal journal;
  ml_InterestTable before(2, alive, start);
  before.SetJournal(&journal);
  const ml_Answer a = before.Record(key(1), 100);
  const ml_Answer b = before.Record(key(1), 200);
  const ml_Answer gone = before.Record(key(2), 100);
  before.Withdraw(key(2), gone.Token, 100);  // its slot is cleared
  before.Record(key(2), 200);                // at the cap: marked
  before.Record(key(3), 300);                // marked
  before.Record(key(4), 300);                // beyond the marks: may hold anything
  EXPECT_EQ(5u, journal.slots.size());
  for (const auto& [slot, saved] : journal.slots) EXPECT_NE(ML_SAVED_FREE, saved.Kind) << slot;

  // The file a restart reads is what the journal holds, slot by slot.
  ml_KeepFile file;
  ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, {}, 0600));
  ASSERT_TRUE(file.Open(path()));
  for (const auto& [slot, saved] : journal.slots) file.Put(slot, saved);
  file.Put(40, entry(1, 1, 1));
  file.Clear(40);
  EXPECT_EQ(0u, file.Failures());
  ml_KeepLoad got = load();
  ASSERT_EQ(journal.slots.size(), got.Saved.size());

  ml_InterestTable after(2, alive, start);
  uint32_t slot = 0;
  for (const ml_Saved& s : got.Saved) after.Restore(s, slot++);
  EXPECT_EQ(before.Entries(), after.Entries());
  EXPECT_EQ(before.Marks(), after.Marks());
  for (int32_t asker : {100, 200, 300, 400}) {
    for (uint8_t r = 1; r <= 5; ++r) {
      const ml_Answer x = before.Check(key(r), asker), y = after.Check(key(r), asker);
      EXPECT_EQ(x.Count, y.Count) << asker << " " << int(r);
      EXPECT_EQ(x.Other, y.Other) << asker << " " << int(r);
    }
  }
  // The old tokens withdraw (and nothing else does); new ones differ.
  after.Withdraw(key(1), a.Token + 1000, 100);
  EXPECT_EQ(2u, after.Entries());
  after.Withdraw(key(1), a.Token, 100);
  EXPECT_EQ(1u, after.Entries());
  const ml_Answer fresh = after.Record(key(6), 500);
  EXPECT_NE(0u, fresh.Token);
  for (uint32_t old : {a.Token, b.Token, gone.Token}) EXPECT_NE(old, fresh.Token);
  after.Withdraw(key(1), b.Token, 200);
  EXPECT_EQ(1u, after.Entries());
  // A slot restored twice, or of no kind, adds nothing.
  ml_InterestTable twice(3, alive, start);
  twice.Restore(got.Saved[0], 0);
  twice.Restore(ml_Saved{ML_SAVED_MARK, key(9), 7, 1007, 0, 0}, 5);
  twice.Restore(ml_Saved{ML_SAVED_MARK, key(9), 7, 1007, 0, 0}, 6);
  twice.Restore(ml_Saved{ML_SAVED_ANY, ml_RefKey{}, 8, 1008, 0, 0}, 7);
  twice.Restore(ml_Saved{ML_SAVED_ANY, ml_RefKey{}, 8, 1008, 0, 0}, 8);
  twice.Restore(ml_Saved{}, 9);
  EXPECT_EQ(2u, twice.Marks());
  std::filesystem::remove(path());
}

TEST(MlKeep, ARebuildEntryGoesWithTheInterestRecordedJustBeforeIt) {
  auto alive = [](int32_t) { return true; };
  ml_InterestTable t(100, alive);
  // A rebuild: the file's interest, the new file's, then the file's withdrawn.
  const ml_Answer file = t.Record(key(1, "a"), 100);
  EXPECT_NE(0u, t.Record(key(1, "new"), 100).Token);
  EXPECT_EQ(2u, t.Entries());
  t.Withdraw(key(1, "a"), file.Token, 100);
  EXPECT_EQ(0u, t.Entries());
  EXPECT_EQ(0u, t.References());
  // Not tied: another reference recorded in between, another process, or
  // the file's interest already gone.
  const ml_Answer f2 = t.Record(key(2), 100);
  t.Record(key(3), 100);
  t.Record(key(2, "new"), 100);
  t.Withdraw(key(2), f2.Token, 100);
  EXPECT_EQ(1u, t.Check(key(2, "new"), 200).Count);
  const ml_Answer f4 = t.Record(key(4), 100);
  t.Record(key(4, "new"), 200);
  t.Withdraw(key(4), f4.Token, 100);
  EXPECT_EQ(1u, t.Check(key(4, "new"), 300).Count);
  const ml_Answer f5 = t.Record(key(5), 100);
  t.Withdraw(key(5), f5.Token, 100);
  t.Record(key(5, "new"), 100);
  EXPECT_EQ(1u, t.Check(key(5, "new"), 300).Count);
  // A withdraw under "new" itself, or a wrong token, drops nothing else.
  const ml_Answer f6 = t.Record(key(6), 100);
  const ml_Answer n6 = t.Record(key(6, "new"), 100);
  t.Withdraw(key(6), f6.Token + 100, 100);
  EXPECT_EQ(1u, t.Check(key(6, "new"), 300).Count);
  t.Withdraw(key(6, "new"), n6.Token, 100);
  EXPECT_EQ(1u, t.Check(key(6), 300).Count);
}

TEST(MlKeep, CallsTheSystemRefusesLeaveNothingHalfDone) {
  const std::vector<ml_Saved> one = {entry(10, 1, 1)};
  // A write that cannot open, write, close or rename leaves no temporary and
  // the old file as it was.
  ASSERT_EQ(0, ml_WriteKeep(path(), kBoot, one, 0600));
  const std::vector<uint8_t> before = bytesOf(path());
  for (os_Op op : {os_Op::Open, os_Op::Write, os_Op::Close, os_Op::Rename}) {
    os_FailNth(op, 1, EIO);
    EXPECT_EQ(-1, ml_WriteKeep(path(), kBoot, {entry(10, 1, 1), entry(11, 2, 2)}, 0600)) << os_OpName(op);
    os_ClearFaults();
    EXPECT_EQ(before, bytesOf(path())) << os_OpName(op);
    size_t files = 0;
    for (const auto& e : std::filesystem::directory_iterator(sfltest::TestDir()))
      files += e.path().filename().string().rfind("keep.", 0) == 0;
    EXPECT_EQ(0u, files) << os_OpName(op);
  }
  // A read that cannot examine the file or reads it short uses none of it.
  os_FailNth(os_Op::Fstat, 1, EIO);
  EXPECT_EQ("cannot be examined", load().Refused);
  os_ShortNth(os_Op::Pread, 1, 10);
  EXPECT_EQ("short read", load().Refused);
  os_FailNth(os_Op::Open, 1, EACCES);
  EXPECT_NE(std::string::npos, load().Refused.find("cannot be opened")) << load().Refused;
  os_ClearFaults();
  // The journal counts the slots it could not write.
  ml_KeepFile unopened;
  unopened.Put(0, entry(10, 1, 1));
  EXPECT_EQ(1u, unopened.Failures());
  ml_KeepFile file;
  EXPECT_FALSE(file.Open(path() + "-absent"));
  ASSERT_TRUE(file.Open(path()));
  ASSERT_TRUE(file.Open(path()));  // again: the first descriptor is given back
  os_FailNth(os_Op::Pwrite, 1, ENOSPC);
  file.Clear(0);
  os_ClearFaults();
  EXPECT_EQ(1u, file.Failures());
  EXPECT_EQ(1u, load().Saved.size());
  // What /proc does not say is unknown.
  os_FailNth(os_Op::Open, 1, EACCES);
  EXPECT_EQ("", ml_BootId());
  os_FailNth(os_Op::Open, 1, EACCES);
  EXPECT_EQ(0u, ml_ProcessStart(getpid()));
  os_ShortNth(os_Op::Read, 1, 8);  // no closing parenthesis
  EXPECT_EQ(0u, ml_ProcessStart(getpid()));
  os_ShortNth(os_Op::Read, 1, 60);  // cut before the start time
  EXPECT_EQ(0u, ml_ProcessStart(getpid()));
  os_ClearFaults();
  std::vector<int32_t> pids = {1};
  EXPECT_EQ(0u, ml_KeptHeld(sfltest::TestDir() + "/no-such-dir", &pids));
  EXPECT_TRUE(pids.empty());
}

}  // namespace
