// The service's configuration at its edges: state files cut or bent in each
// field, a state file too large to be one, group names and numbers out of
// range, keys given empty or with trailing text, and the run directory, the
// state and the service lock when the system refuses a call.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ml.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

const std::string kHead = "sfl-monitor-state 1\n";

TEST(MlStateEdges, EveryFieldCutOrBentIsRefusedAndLeavesTheOutputAlone) {
  ml_State sample;
  sample.Subsystem = 52;
  sample.State = 6;
  sample.MainPid = 4242;
  sample.Additional = {7, 8};
  sample.Context = {1};
  const std::string good = ml_FormatState(sample);
  ASSERT_EQ(good.rfind(kHead, 0), 0u) << good;

  const char* bad[] = {
      "subsystem\n",                                 // a key without its value
      "subsystem x\nstate 6\nmain 1\nend\n",         // not a number
      "state\n",
      "state 6\nmain\n",
      "state 6\nmain 1\nadditional\n",               // no count
      "state 6\nmain 1\nadditional -1\nend\n",       // a negative count
      "state 6\nmain 1\nadditional 4097\nend\n",     // more than any service has
      "state 6\nmain 1\ncontext 2 5\nend\n",         // fewer values than the count
      "state 6\nmain 1\nadditional 1 x\nend\n",      // a value that is no number
      "main 1\nend\n",                               // no state
      "state 6\nmain 1\n",                           // no end
  };
  for (const char* body : bad) {
    SCOPED_TRACE(body);
    ml_State out = sample;
    EXPECT_FALSE(ml_ParseState(kHead + body, &out));
    EXPECT_EQ(out.MainPid, 4242);
    EXPECT_EQ(out.Additional, sample.Additional);
  }
  // The largest count a file may give is read.
  std::string many = kHead + "state 6\nmain 1\ncontext 4096";
  for (int i = 0; i < 4096; ++i) many += " " + std::to_string(i);
  ml_State out;
  ASSERT_TRUE(ml_ParseState(many + "\nend\n", &out));
  EXPECT_EQ(out.Context.size(), 4096u);
  EXPECT_EQ(out.Context.back(), 4095);
}

TEST(MlStateEdges, AStateFileOverAMebibyteIsNotRead) {
  const std::string dir = sfltest::TestDir() + "/big-state";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  ml_State st;
  st.Subsystem = 52;
  st.State = 6;
  st.MainPid = 77;
  ASSERT_EQ(0, ml_PublishState(dir, st, 0600));
  ml_State back;
  ASSERT_TRUE(ml_ReadState(dir, &back));
  EXPECT_EQ(back.MainPid, 77);
  // The same text followed by two mebibytes of blanks would parse, but a
  // file that large is no state file.
  {
    std::string text = ml_FormatState(st);
    text.insert(text.size() - 4, std::string(2u << 20, ' '));
    ml_State parsed;
    ASSERT_TRUE(ml_ParseState(text, &parsed));
    const std::string path = ml_StatePath(dir);
    FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), f), text.size());
    std::fclose(f);
  }
  back = ml_State{};
  EXPECT_FALSE(ml_ReadState(dir, &back));
  EXPECT_EQ(back.MainPid, 0);
}

TEST(MlStateEdges, APublicationThatCannotBeWrittenOrRenamedLeavesTheOldStateAndNoTemporary) {
  const std::string dir = sfltest::TestDir() + "/publish";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  ml_State st;
  st.Subsystem = 52;
  st.State = 6;
  st.MainPid = 11;
  ASSERT_EQ(0, ml_PublishState(dir, st, 0600));
  st.MainPid = 12;
  for (os_Op op : {os_Op::Open, os_Op::Rename}) {
    SCOPED_TRACE(os_OpName(op));
    os_FailNth(op, 1, EACCES);
    EXPECT_EQ(-1, ml_PublishState(dir, st, 0600));
    os_ClearFaults();
    ml_State back;
    ASSERT_TRUE(ml_ReadState(dir, &back));
    EXPECT_EQ(back.MainPid, 11);
    size_t files = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
      ++files;
      EXPECT_EQ(e.path().string().find(".tmp"), std::string::npos) << e.path();
    }
    EXPECT_EQ(files, 1u);
  }
}

TEST(MlRunDirEdges, AMissingParentOrAFailedStatusIsRefused) {
  errno = 0;
  EXPECT_EQ(-1, ml_PrepareRunDir(sfltest::TestDir() + "/no/such/parent", 0700));
  EXPECT_EQ(ENOENT, errno);
  const std::string dir = sfltest::TestDir() + "/status";
  os_FailNth(os_Op::Fstat, 1, EIO);  // asked of the open directory
  errno = 0;
  EXPECT_EQ(-1, ml_PrepareRunDir(dir, 0700));
  EXPECT_EQ(EIO, errno);
  os_ClearFaults();
  EXPECT_EQ(0, ml_PrepareRunDir(dir, 0700));
}

TEST(MlRunDirEdges, TheServiceLockCannotBeClaimedWhenItsFileCannotBeOpened) {
  const std::string dir = sfltest::TestDir() + "/lock";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  os_FailNth(os_Op::Open, 1, EMFILE);
  EXPECT_EQ(-1, ml_ClaimServiceLock(dir));
  os_ClearFaults();
  EXPECT_FALSE(ml_ServiceLockHeld(dir));
  const int fd = ml_ClaimServiceLock(dir);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(ml_ServiceLockHeld(dir));
  ::close(fd);
}

TEST(MlConfigEdges, GroupsOutOfRangeOrNamedByAPrefixAreUnknown) {
  EXPECT_EQ(-1, ml_ResolveGroup(nullptr));
  EXPECT_EQ(-1, ml_ResolveGroup("-1"));
  EXPECT_EQ(-1, ml_ResolveGroup("2147483647"));
  EXPECT_EQ(-1, ml_ResolveGroup("99999999999999999999"));
  EXPECT_EQ(2147483646, ml_ResolveGroup("2147483646"));
  // Names are whole: a prefix of "root" or "root" with more is another name.
  EXPECT_EQ(0, ml_ResolveGroup("root"));
  EXPECT_EQ(-1, ml_ResolveGroup("roo"));
  EXPECT_EQ(-1, ml_ResolveGroup("rootx"));
  // The group file cannot be read: no name is known.
  os_FailNth(os_Op::Open, 1, EACCES);
  EXPECT_EQ(-1, ml_ResolveGroup("root"));
  os_ClearFaults();
}

TEST(MlConfigEdges, EmptyOrTrailingKeyValuesFallBackAndAGroupIsResolved) {
  setenv("SFL_MONITOR_PAIRS", "", 1);
  setenv("SFL_MONITOR_IDLE_SECONDS", "5s", 1);
  setenv("SFL_MONITOR_MAX_ENTRIES", "0", 1);
  setenv("SFL_MONITOR_GROUP", "root", 1);
  ml_ServiceOptions o = ml_OnDemandOptions();
  EXPECT_EQ(1, o.Pairs);
  EXPECT_EQ(30, o.IdleSeconds);
  EXPECT_EQ(100000u, o.MaxEntries);
  EXPECT_EQ(0, o.Gid);
  setenv("SFL_MONITOR_MAX_ENTRIES", "12", 1);
  setenv("SFL_MONITOR_GROUP", "", 1);
  o = ml_OnDemandOptions();
  EXPECT_EQ(12u, o.MaxEntries);
  EXPECT_EQ(-1, o.Gid);
  setenv("SFL_MONITOR_GROUP", "no-such-group-here", 1);
  EXPECT_EQ(-1, ml_OnDemandOptions().Gid);
  for (const char* k : {"SFL_MONITOR_PAIRS", "SFL_MONITOR_IDLE_SECONDS", "SFL_MONITOR_MAX_ENTRIES",
                        "SFL_MONITOR_GROUP"})
    unsetenv(k);
}

}  // namespace
