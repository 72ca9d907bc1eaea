// A hostile neighbour: another user on the machine (nobody), made a member
// of the store's group so that it may create, remove and rename names in the
// store's directories, plants what it can where this process's store, run
// directory and service will look, and sends what it can to the service's
// queues. Each attempt must be refused with a clear error, and no byte of
// the store or of a victim file outside it may change. Real processes: the
// attacker is a forked child that gives up root for nobody's ids.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <grp.h>
#include <iterator>
#include <map>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "ml.h"
#include "op_catalog.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

constexpr uid_t kNobody = 65534;
constexpr gid_t kNobodyGroup = 65534;

Bytes FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// Every regular file of the store with its content, and the victim's.
std::map<std::string, Bytes> Snapshot(const std::string& victim) {
  std::map<std::string, Bytes> files;
  for (const auto& e : fs::recursive_directory_iterator(sfltest::StoreRoot())) {
    std::error_code ec;
    if (e.is_regular_file(ec) && !e.is_symlink(ec)) files[e.path().string()] = FileBytes(e.path());
  }
  files[victim] = FileBytes(victim);
  return files;
}

// Runs `attack` in a child that is nobody, with the store's group (root's
// here) as its one supplementary group. Returns the child's exit code.
int AsNeighbour(const std::function<int()>& attack) {
  return sfltest::RunInChild([&] {
    const gid_t groups[] = {0};
    if (setgroups(1, groups) != 0 || setgid(kNobodyGroup) != 0 || setuid(kNobody) != 0) return 90;
    if (geteuid() != kNobody) return 91;
    return attack();
  });
}

std::string EscapeText(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const er_Escape& e) {
    std::string text = e.what();
    er_Clear();
    return text;
  }
  return "";
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Neighbour : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as a second user";
    auto c = sfltest::NewContainer();
    ref_ = c.ref;
    data_ = sfltest::PseudoRandomBytes(3000, 41, 1);
    const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, static_cast<uint32_t>(data_.size()), &item_, 0);
    ASSERT_EQ(sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(data_.size()), data_.data()),
              static_cast<int32_t>(data_.size()));
    sfl_CloseItem(h);
    sfl_CloseFile(c.bh);
    sfltest::CloseColdFiles();
    path_ = sfltest::ItemPath(ref_);
    dir_ = path_.substr(0, path_.rfind('/'));
    // The store's directories as the store makes them: group-writable.
    for (std::string d = dir_; d.size() >= sfltest::StoreRoot().size(); d = d.substr(0, d.rfind('/')))
      ASSERT_EQ(0, chmod(d.c_str(), 0770)) << d;
    ASSERT_EQ(0, chmod(sfltest::TestDir().c_str(), 0755));
    victim_ = sfltest::TestDir() + "/victim.txt";
    std::ofstream(victim_) << "a file of this user's outside the store\n";
    before_ = Snapshot(victim_);
  }

  void TearDown() override {
    if (IsSkipped()) return;
    sfltest::CloseColdFiles();
    EXPECT_TRUE(Snapshot(victim_) == before_) << "a byte of the store or of the victim changed";
    // The item still reads back whole.
    std::vector<uint8_t> got(data_.size());
    const long code = sfltest::EscapeCodeOf([&] {
      const int32_t h = sfl_OpenItem(&item_, 0);
      sfl_ReadSimpleData(h, 0, static_cast<uint32_t>(got.size()), got.data());
      sfl_CloseItem(h);
    });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(got, data_);
    sfltest::CloseColdFiles();
  }

  // The store's file of `ref` as this process opens it: the text of the
  // escape raised ("" when it opened).
  std::string OpenText(const sfl_ItemRef& ref) {
    return EscapeText([&] {
      const int32_t bh = sfl_OpenSfl(&ref, 0);
      sfl_CloseFile(bh);
    });
  }

  sfl_ItemRef ref_{}, item_{};
  Bytes data_;
  std::string path_, dir_, victim_;
  std::map<std::string, Bytes> before_;
};

TEST_F(Neighbour, ALinkAtTheRebuildsScratchNameIsNotFollowed) {
  char scratch[PATH_MAX];
  im_ScratchFName(&ref_, scratch, sizeof scratch);
  const std::string victim = victim_;
  ASSERT_EQ(0, AsNeighbour([&] { return symlink(victim.c_str(), scratch) == 0 ? 0 : 1; }));
  EXPECT_EQ(sfl_CompactContainer(&ref_), SFL_COMPACT_FAILED);
  struct stat st {};
  ASSERT_EQ(0, lstat(scratch, &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  unlink(scratch);
  // The mark a refused rebuild leaves (for the next last close to try
  // again) is the one change to the container.
  Bytes marked = before_[path_];
  sfl_PutU32(marked.data() + sfl_fh::Flags, sfl_GetU32(marked.data() + sfl_fh::Flags) | NEED_COMPACTION);
  ASSERT_EQ(FileBytes(path_), marked);
  before_[path_] = marked;
}

TEST_F(Neighbour, ALinkInPlaceOfAContainerIsNotFollowed) {
  const std::string path = path_, victim = victim_;
  ASSERT_EQ(0, AsNeighbour([&] {
    return rename(path.c_str(), (path + ".kept").c_str()) == 0 && symlink(victim.c_str(), path.c_str()) == 0 ? 0 : 1;
  }));
  const std::string text = OpenText(ref_);
  EXPECT_TRUE(Has(text, path + " is a symbolic link")) << text;
  unlink(path.c_str());
  ASSERT_EQ(0, rename((path + ".kept").c_str(), path.c_str()));
}

TEST_F(Neighbour, ALinkInPlaceOfAStoreDirectoryIsNotFollowed) {
  // The neighbour's own directory, holding a copy of the container.
  const std::string theirs = sfltest::TestDir() + "/theirs";
  ASSERT_EQ(0, mkdir(theirs.c_str(), 0700));
  ASSERT_EQ(0, chown(theirs.c_str(), kNobody, kNobodyGroup));
  const std::string dir = dir_, leaf = path_.substr(path_.rfind('/') + 1);
  const Bytes copy = before_[path_];
  ASSERT_EQ(0, AsNeighbour([&] {
    std::ofstream(theirs + "/" + leaf, std::ios::binary).write(reinterpret_cast<const char*>(copy.data()),
                                                                static_cast<std::streamsize>(copy.size()));
    if (FileBytes(theirs + "/" + leaf) != copy) return 2;
    return rename(dir.c_str(), (dir + ".kept").c_str()) == 0 && symlink(theirs.c_str(), dir.c_str()) == 0 ? 0 : 1;
  }));
  const std::string text = OpenText(ref_);
  EXPECT_TRUE(Has(text, dir + " is a symbolic link")) << text;
  const std::string stream = EscapeText([&] { sfl_fClose(sfl_fOpenItem(&item_, "rw")); });
  EXPECT_TRUE(Has(stream, dir + " is a symbolic link")) << stream;
  EXPECT_EQ(FileBytes(theirs + "/" + leaf), copy);
  unlink(dir.c_str());
  ASSERT_EQ(0, rename((dir + ".kept").c_str(), dir.c_str()));
  fs::remove_all(theirs);
}

TEST_F(Neighbour, AFifoOrADeviceInPlaceOfAContainerIsRefusedWithoutBlocking) {
  sfl_ItemRef fifo = ref_;
  fifo.FileId = ref_.FileId + 1;
  const std::string fifoPath = sfltest::ItemPath(fifo);
  ASSERT_EQ(0, AsNeighbour([&] { return mkfifo(fifoPath.c_str(), 0666) == 0 ? 0 : 1; }));
  std::string text = OpenText(fifo);
  EXPECT_TRUE(Has(text, fifoPath + " is not a regular file")) << text;
  unlink(fifoPath.c_str());
  // Only root makes device nodes: one made here stands for one the
  // neighbour found a way to put there.
  sfl_ItemRef dev = ref_;
  dev.FileId = ref_.FileId + 2;
  const std::string devPath = sfltest::ItemPath(dev);
  ASSERT_EQ(0, mknod(devPath.c_str(), S_IFCHR | 0666, makedev(1, 3)));
  ASSERT_EQ(0, chown(devPath.c_str(), kNobody, kNobodyGroup));
  text = OpenText(dev);
  EXPECT_TRUE(Has(text, devPath + " is not a regular file")) << text;
  unlink(devPath.c_str());
}

TEST_F(Neighbour, AContainerOfAnotherUserIsRefused) {
  sfl_ItemRef theirs = ref_;
  theirs.FileId = ref_.FileId + 3;
  const std::string path = sfltest::ItemPath(theirs);
  const Bytes copy = before_[path_];
  ASSERT_EQ(0, AsNeighbour([&] {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(copy.data()),
                                                 static_cast<std::streamsize>(copy.size()));
    return chmod(path.c_str(), 0666);
  }));
  const std::string text = OpenText(theirs);
  EXPECT_TRUE(Has(text, path + " belongs to uid 65534")) << text;
  EXPECT_EQ(FileBytes(path), copy);
  unlink(path.c_str());
}

TEST_F(Neighbour, ARunDirectoryOfTheNeighboursOrALinkToOneIsNotUsed) {
  const std::string theirs = "/tmp/sfl-neighbour-run-" + std::to_string(getpid());
  const std::string link = theirs + ".link";
  const std::string real = sfltest::RunDir();
  ASSERT_EQ(0, AsNeighbour([&] {
    return mkdir(theirs.c_str(), 0700) == 0 && symlink(real.c_str(), link.c_str()) == 0 ? 0 : 1;
  }));
  for (const std::string& dir : {theirs, link}) {
    SCOPED_TRACE(dir);
    EXPECT_EQ(0, sfltest::RunInChild([&] {
      setenv("SFL_RUN_DIR", dir.c_str(), 1);
      const std::string text = OpenText(ref_);
      if (!Has(text, "116/380")) return 1;
      if (!Has(text, dir)) return 2;
      if (dir == theirs && !Has(text, "owner uid 65534")) return 3;
      if (dir == link && !Has(text, "symbolic link")) return 4;
      return 0;
    }));
  }
  // Nothing was started there.
  EXPECT_FALSE(fs::exists(ml_StatePath(theirs)));
  unlink(link.c_str());
  fs::remove_all(theirs);
}

TEST_F(Neighbour, TheServicesQueuesAreClosedToTheNeighbour) {
  sfl_ItemRef file = ref_;
  int32_t requestQueue = 0, replyQueue = 0, servicePid = 0;
  sfl_GetQueue(&file, &requestQueue, &replyQueue, nullptr, &servicePid);
  const int32_t victim = getpid();
  ASSERT_EQ(0, AsNeighbour([&] {
    // A withdraw in the victim's name, a record in it, and a reply of its
    // type: none can be sent, and the service cannot be stopped.
    uint8_t msg[4 + ML_WITHDRAW_LEN] = {};
    sfl_PutU32(msg, ML_MSG_WITHDRAW);
    sfl_PutU32(msg + 4 + 20, static_cast<uint32_t>(victim));
    struct {
      long type;
      char text[ML_WITHDRAW_LEN];
    } m{};
    m.type = ML_MSG_WITHDRAW;
    std::memcpy(m.text, msg + 4, ML_WITHDRAW_LEN);
    if (msgsnd(requestQueue, &m, ML_WITHDRAW_LEN, IPC_NOWAIT) == 0 || errno != EACCES) return 1;
    m.type = victim;
    if (msgsnd(replyQueue, &m, 12, IPC_NOWAIT) == 0 || errno != EACCES) return 2;
    if (kill(servicePid, SIGSTOP) == 0 || errno != EPERM) return 3;
    struct msqid_ds ds;
    if (msgctl(requestQueue, IPC_STAT, &ds) == 0 || errno != EACCES) return 4;
    return 0;
  }));
}

}  // namespace
