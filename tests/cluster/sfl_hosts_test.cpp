// Several hosts sharing one store: a three-member etcd cluster on loopback
// ports, and two "hosts", each a process in an IPC namespace of its own (so
// its own System V queues) with its own interest service and run directory,
// both using one store directory. Each scenario also runs with the two
// services alone (no etcd), where it shows the loss the cluster mode
// prevents. Needs root (for the namespaces) and etcd; skipped otherwise.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ml.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::Eventually;

constexpr int kLeaseSeconds = 3;
const char* kEtcd = "/usr/bin/etcd";

// ---- processes the test starts, stopped by pid on every path ----------------------

pid_t Spawn(const std::vector<std::string>& args, const std::string& log) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid != 0) return pid;
  const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (fd >= 0) {
    dup2(fd, 1);
    dup2(fd, 2);
  }
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}

void Kill(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

int FreePort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = -1;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(s);
  return port;
}

// Three etcd members on loopback ports of their own, data in the test's
// directory.
class Etcd {
 public:
  Etcd() {
    static int made = 0;
    dir_ = sfltest::TestDir() + "/etcd-" + std::to_string(++made);
    mkdir(dir_.c_str(), 0700);
    for (int i = 0; i < 3; ++i) {
      client_.push_back("http://127.0.0.1:" + std::to_string(FreePort()));
      peer_.push_back("http://127.0.0.1:" + std::to_string(FreePort()));
    }
    for (int i = 0; i < 3; ++i) pids_.push_back(-1);
  }
  ~Etcd() {
    for (pid_t& p : pids_) {
      Kill(p);
      p = -1;
    }
  }
  void Start(int i) {
    std::string initial;
    for (int j = 0; j < 3; ++j) initial += (j ? "," : "") + Name(j) + "=" + peer_[j];
    pids_[i] = Spawn({kEtcd, "--name", Name(i), "--data-dir", dir_ + "/" + Name(i),
                      "--listen-client-urls", client_[i], "--advertise-client-urls", client_[i],
                      "--listen-peer-urls", peer_[i], "--initial-advertise-peer-urls", peer_[i],
                      "--initial-cluster", initial, "--initial-cluster-state", "new",
                      "--initial-cluster-token", "t" + std::to_string(getpid())},
                     dir_ + "/" + Name(i) + ".log");
  }
  void Stop(int i) {
    Kill(pids_[i]);
    pids_[i] = -1;
  }
  // Whether a write through member `i` completes (a quorum answers).
  bool Writable(int i) const {
    const std::string cmd = "ETCDCTL_API=3 etcdctl --dial-timeout=1s --command-timeout=2s --endpoints=" +
                            client_[i] + " put probe x >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0;
  }
  std::string Urls() const { return client_[0] + "," + client_[1] + "," + client_[2]; }

 private:
  static std::string Name(int i) { return "m" + std::to_string(i); }
  std::string dir_;
  std::vector<std::string> client_, peer_;
  std::vector<pid_t> pids_;
};

// ---- hosts ----------------------------------------------------------------------------

// What the test and its hosts share (an anonymous shared mapping).
struct Shared {
  std::atomic<int> step{0};
  std::atomic<int> servicePid[2];
  sfl_ItemRef file, keep, victim;
  std::atomic<int> got[16];  // what the hosts saw, by scenario
};

bool WaitStep(Shared* sh, int n, int seconds = 30) {
  return Eventually([&] { return sh->step.load() >= n; }, seconds);
}

std::string HostRunDir(int host) { return sfltest::TestDir() + "/run-" + std::string(1, char('A' + host)); }

// Starts host `host` (0: A, 1: B): a process in a new IPC namespace with
// its own service (in cluster mode when `urls` is not empty) that runs
// `body`, then stops its service. Returns the host process's pid.
pid_t StartHost(Shared* sh, int host, const std::string& urls, const std::function<int()>& body) {
  return sfltest::StartChild([=]() -> int {
    if (unshare(CLONE_NEWIPC) != 0) return 90;
    const std::string dir = HostRunDir(host);
    setenv("SFL_RUN_DIR", dir.c_str(), 1);
    setenv("SFL_MONITOR_AUTOSTART", "0", 1);
    if (!urls.empty()) {
      setenv("SFL_CLUSTER_ETCD", urls.c_str(), 1);
      setenv("SFL_CLUSTER_NAME", ("t" + std::to_string(getppid())).c_str(), 1);
      setenv("SFL_CLUSTER_HOST", std::string(1, char('A' + host)).c_str(), 1);
      setenv("SFL_CLUSTER_LEASE_SECONDS", std::to_string(kLeaseSeconds).c_str(), 1);
    }
    mkdir(dir.c_str(), 0700);
    const pid_t service =
        Spawn({sfltest::MonitorBinary(), "--foreground", "--run-dir", dir}, dir + "/monitor.log");
    const bool up = Eventually([&] {
      ml_State st;
      return ml_ReadState(dir, &st) && st.MainPid == service && ml_ServiceAlive(dir, st);
    });
    if (!up) {
      Kill(service);
      return 91;
    }
    sh->servicePid[host] = service;
    int rc = body();
    kill(service, SIGTERM);
    if (sfltest::ExitWithin(service, 10) < 0) Kill(service);
    return rc;
  });
}

uint32_t U32At(const std::string& path, off_t off) {
  uint8_t b[4] = {};
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return 0;
  const bool read = pread(fd, b, 4, off) == 4;
  close(fd);
  return read ? (b[0] | (b[1] << 8) | (b[2] << 16) | (uint32_t(b[3]) << 24)) : 0;
}

ino_t InodeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> p(n);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(i * 7 + 3);
  return p;
}

constexpr uint32_t kVictimSize = 3000;

// Host A's first steps in scenarios 1 and 3: a container with two items,
// the second (the victim) open for reading and read once.
int32_t HoldVictim(Shared* sh) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_GetSerFileItem(bh, &sh->file);
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 500, &sh->keep, 0));
  const int32_t vh = sfl_StoreBasicItem(bh, nullptr, kVictimSize, &sh->victim, 0);
  const std::vector<uint8_t> data = Pattern(kVictimSize);
  sfl_WriteSimpleData(vh, 0, kVictimSize, data.data());
  sfl_CloseItem(vh);
  return bh;
}

bool ReadsVictim(int32_t ih) {
  std::vector<uint8_t> got(kVictimSize);
  sfl_ReadSimpleData(ih, 0, kVictimSize, got.data());
  return got == Pattern(kVictimSize);
}

// Host B: deletes the victim (it drops its last attachment and deletes it)
// and lets go of the file altogether.
void DeleteVictim(Shared* sh) {
  const int32_t ih = sfl_OpenItem(&sh->victim, 0);
  sfl_DetachOpenItem(ih);
  sfl_DeleteItem(ih);
  sfl_CloseItem(ih);
  sfltest::CloseColdFiles();
}

class Hosts : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: each host runs in an IPC namespace of its own";
    if (access(kEtcd, X_OK) != 0) GTEST_SKIP() << "needs etcd (" << kEtcd << "); tools/install-deps.sh installs it";
    if (sfltest::RunInChild([] { return unshare(CLONE_NEWIPC) == 0 ? 0 : 1; }) != 0)
      GTEST_SKIP() << "cannot make an IPC namespace here";
    void* m = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(m, MAP_FAILED);
    sh_ = new (m) Shared;
    if (Cluster()) {
      etcd_ = std::make_unique<Etcd>();
      for (int i = 0; i < 3; ++i) etcd_->Start(i);
      ASSERT_TRUE(Eventually([&] { return etcd_->Writable(0); }, 30)) << "etcd did not come up";
    }
  }
  void TearDown() override {
    for (pid_t& p : hosts_) Kill(p);
    if (sh_ != nullptr)
      for (auto& s : sh_->servicePid) Kill(s.load());  // a host killed outright leaves its service
    etcd_.reset();
    if (sh_ != nullptr) munmap(sh_, sizeof(Shared));
  }
  bool Cluster() const { return GetParam(); }
  std::string Urls() const { return Cluster() ? etcd_->Urls() : std::string(); }
  pid_t Host(int host, const std::function<int()>& body) {
    const pid_t p = StartHost(sh_, host, Urls(), body);
    hosts_.push_back(p);
    return p;
  }
  int Finish(pid_t p) {
    const int rc = sfltest::ExitWithin(p, 60);
    for (pid_t& h : hosts_)
      if (h == p) h = -1;
    return rc;
  }

  Shared* sh_ = nullptr;
  std::unique_ptr<Etcd> etcd_;
  std::vector<pid_t> hosts_;
};

// Scenario 1: A holds an item open; B deletes it. With the hosts counted
// together the deletion waits, A still reads the item, and A's close
// releases it (its slot is used again). Alone, each service tells B it is
// alone with the file, and the deletion goes ahead under A's reader.
TEST_P(Hosts, ADeletionWaitsForAReaderOnTheOtherHost) {
  const pid_t a = Host(0, [&]() -> int {
    const int32_t bh = HoldVictim(sh_);
    const int32_t ih = sfl_OpenItem(&sh_->victim, 0);
    if (!ReadsVictim(ih)) return 1;
    sh_->step = 1;
    if (!WaitStep(sh_, 2)) return 2;
    sh_->got[0] = ReadsVictim(ih) ? 1 : 0;
    sfl_CloseItem(ih);
    sfl_CloseFile(bh);
    sfltest::CloseColdFiles();
    sh_->got[1] = sfl_ItemExists(&sh_->victim);
    sh_->got[2] = sfl_ItemExists(&sh_->keep);
    sfl_ItemRef again{};
    const int32_t b2 = sfl_OpenSfl(&sh_->file, 0);
    sfl_CloseItem(sfl_StoreBasicItem(b2, nullptr, 100, &again, 0));
    sh_->got[3] = sfl_ItemNumOf(again) == sfl_ItemNumOf(sh_->victim) ? 1 : 0;
    sfl_CloseFile(b2);
    sfltest::CloseColdFiles();
    return 0;
  });
  ASSERT_TRUE(WaitStep(sh_, 1));
  const pid_t b = Host(1, [&]() -> int {
    DeleteVictim(sh_);
    return 0;
  });
  ASSERT_EQ(Finish(b), 0);
  const std::string path = sfltest::ItemPath(sh_->file);
  const uint32_t slot = sfl_ItemNumOf(sh_->victim);
  const bool pending = (U32At(path, 20) & ITEM_PEND_DEL) != 0;
  const bool marked = (U32At(path, 128 + slot * 64 + 32) & DELETED) != 0;
  sh_->step = 2;
  const int aExit = Finish(a);
  if (!Cluster()) {
    // The loss: B's service knew nothing of A, so B released the item at
    // once, under A's reader (whose own close may then fail).
    EXPECT_FALSE(pending);
    return;
  }
  ASSERT_EQ(aExit, 0);
  EXPECT_TRUE(pending);
  EXPECT_TRUE(marked);
  EXPECT_EQ(sh_->got[0].load(), 1) << "A could no longer read what it held open";
  EXPECT_EQ((U32At(path, 20) & ITEM_PEND_DEL), 0u);  // released by A's close
  EXPECT_EQ(sh_->got[1].load(), 0);
  EXPECT_EQ(sh_->got[2].load(), 1);
  EXPECT_EQ(sh_->got[3].load(), 1) << "the released slot was not used again";
}

// Scenario 2: A holds a container that asks to be rebuilt; B's last close
// leaves it alone while A holds it; A's close (or the next one) rebuilds it.
TEST_P(Hosts, NoRebuildWhileTheOtherHostHoldsTheFile) {
  const pid_t a = Host(0, [&]() -> int {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_GetSerFileItem(bh, &sh_->file);
    sfl_ItemRef r{};
    for (int i = 0; i < 3; ++i) sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 700, &r, 0));
    const int32_t hole = sfl_OpenItem(&r, 0);
    sfl_DetachOpenItem(hole);
    sfl_DeleteItem(hole);  // alone: a hole at once
    sfl_CloseItem(hole);
    sfl_CloseFile(bh);
    sfltest::CloseColdFiles();
    sh_->step = 1;
    if (!WaitStep(sh_, 2)) return 2;  // the test marked it as needing a rebuild
    const int32_t held = sfl_OpenSfl(&sh_->file, 0);
    sh_->step = 3;
    if (!WaitStep(sh_, 4)) return 4;
    sfl_CloseFile(held);
    sfltest::CloseColdFiles();
    return 0;
  });
  ASSERT_TRUE(WaitStep(sh_, 1));
  const std::string path = sfltest::ItemPath(sh_->file);
  {
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const uint32_t flags = U32At(path, 20) | NEED_COMPACTION;
    uint8_t b[4] = {uint8_t(flags), uint8_t(flags >> 8), uint8_t(flags >> 16), uint8_t(flags >> 24)};
    ASSERT_EQ(pwrite(fd, b, 4, 20), 4);
    close(fd);
  }
  const ino_t before = InodeOf(path);
  sh_->step = 2;
  ASSERT_TRUE(WaitStep(sh_, 3));
  auto openAndClose = [&]() -> int {
    const int32_t bh = sfl_OpenSfl(&sh_->file, 0);
    sfl_CloseFile(bh);
    sfltest::CloseColdFiles();
    return 0;
  };
  ASSERT_EQ(Finish(Host(1, openAndClose)), 0);
  const ino_t afterB = InodeOf(path);
  sh_->step = 4;
  const int aExit = Finish(a);
  if (!Cluster()) {
    // The loss: B rebuilt (and renamed over) the file A held open.
    EXPECT_NE(afterB, before);
    return;
  }
  ASSERT_EQ(aExit, 0);
  EXPECT_EQ(afterB, before) << "rebuilt while the other host held it";
  if (InodeOf(path) == before) {
    ASSERT_EQ(Finish(Host(1, openAndClose)), 0);
  }
  EXPECT_NE(InodeOf(path), before) << "never rebuilt once nobody held it";
}

// Scenario 3: host A (its processes and its service) killed outright while
// it holds an item B deleted: B's closes leave the deletion pending until
// A's lease has run out, then release it.
TEST_P(Hosts, AHostKilledWholeLetsGoWhenItsLeaseEnds) {
  if (!Cluster()) GTEST_SKIP() << "hosts alone release at once (the loss ADeletionWaits... shows)";
  const pid_t a = Host(0, [&]() -> int {
    HoldVictim(sh_);
    sfl_OpenItem(&sh_->victim, 0);
    sh_->step = 1;
    pause();  // until killed
    return 0;
  });
  ASSERT_TRUE(WaitStep(sh_, 1));
  const std::string path = sfltest::ItemPath(sh_->file);
  const pid_t b = Host(1, [&]() -> int {
    DeleteVictim(sh_);
    if ((U32At(path, 20) & ITEM_PEND_DEL) == 0) return 1;
    sh_->step = 2;
    if (!WaitStep(sh_, 3)) return 3;
    const auto killed = std::chrono::steady_clock::now();
    auto touch = [&] {
      sfl_CloseFile(sfl_OpenSfl(&sh_->file, 0));
      sfltest::CloseColdFiles();
    };
    touch();  // at once: A's entry is still there
    sh_->got[0] = (U32At(path, 20) & ITEM_PEND_DEL) != 0 ? 1 : 0;
    const bool released = Eventually(
        [&] {
          touch();
          return (U32At(path, 20) & ITEM_PEND_DEL) == 0;
        },
        kLeaseSeconds * 5);
    sh_->got[1] = released ? 1 : 0;
    sh_->got[2] = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - killed)
                                       .count());
    sh_->got[3] = sfl_ItemExists(&sh_->keep);
    sh_->got[4] = sfl_ItemExists(&sh_->victim);
    return 0;
  });
  ASSERT_TRUE(WaitStep(sh_, 2));
  Kill(a);
  for (pid_t& h : hosts_)
    if (h == a) h = -1;
  Kill(sh_->servicePid[0].load());
  sh_->servicePid[0] = 0;
  sh_->step = 3;
  ASSERT_EQ(Finish(b), 0);
  EXPECT_EQ(sh_->got[0].load(), 1) << "released before A's lease ran out";
  EXPECT_EQ(sh_->got[1].load(), 1) << "never released after A died";
  EXPECT_GE(sh_->got[2].load(), 1000);
  EXPECT_EQ(sh_->got[3].load(), 1);
  EXPECT_EQ(sh_->got[4].load(), 0);
}

// Scenario 4: with one etcd member down both hosts go on; with two down (no
// quorum) nothing is released anywhere and new records fail within their
// bound with 380; once the members are back the services come back by
// themselves and the pending deletion completes.
TEST_P(Hosts, LossOfQuorumStopsReleasesUntilItComesBack) {
  if (!Cluster()) GTEST_SKIP() << "no etcd in single-host mode";
  const pid_t a = Host(0, [&]() -> int {
    const int32_t bh = HoldVictim(sh_);
    const int32_t ih = sfl_OpenItem(&sh_->victim, 0);
    sh_->step = 1;
    if (!WaitStep(sh_, 4)) return 4;  // two members down
    // The last holder anywhere closes; without a quorum nothing is released.
    sfl_CloseItem(ih);
    sfl_CloseFile(bh);
    sfltest::CloseColdFiles();
    sh_->step = 5;
    return 0;
  });
  ASSERT_TRUE(WaitStep(sh_, 1));
  const std::string path = sfltest::ItemPath(sh_->file);
  etcd_->Stop(2);
  const pid_t b = Host(1, [&]() -> int {
    DeleteVictim(sh_);  // one member down: still counted together
    sh_->got[0] = (U32At(path, 20) & ITEM_PEND_DEL) != 0 ? 1 : 0;
    sh_->step = 2;
    if (!WaitStep(sh_, 3)) return 3;  // two members down
    const auto start = std::chrono::steady_clock::now();
    const sfltest::Escape e = sfltest::EscapeOf([&] { sfl_OpenSfl(&sh_->file, 0); });
    sh_->got[1] = e.group * 100000 + e.reason;
    sh_->got[2] = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - start)
                                       .count());
    sh_->step = 4;
    if (!WaitStep(sh_, 6)) return 6;  // members back
    const bool released = Eventually(
        [&] {
          sfltest::EscapeOfThenClear([&] {
            sfl_CloseFile(sfl_OpenSfl(&sh_->file, 0));
            sfltest::CloseColdFiles();
          });
          return (U32At(path, 20) & ITEM_PEND_DEL) == 0;
        },
        30);
    sh_->got[3] = released ? 1 : 0;
    sh_->got[4] = sfl_ItemExists(&sh_->keep);
    return 0;
  });
  ASSERT_TRUE(WaitStep(sh_, 2));
  EXPECT_EQ(sh_->got[0].load(), 1) << "one member down: the deletion did not wait for A";
  etcd_->Stop(1);
  sh_->step = 3;
  ASSERT_TRUE(WaitStep(sh_, 5, 60)) << "stuck at step " << sh_->step.load() << " in " << sfltest::TestDir();
  EXPECT_EQ(sh_->got[1].load(), ER_GROUP_MONIT * 100000 + ML_R_NOT_AVAILABLE);
  EXPECT_LT(sh_->got[2].load(), 8000) << "a record waited past its bound";
  EXPECT_NE(U32At(path, 20) & ITEM_PEND_DEL, 0u) << "released without a quorum";
  EXPECT_NE(InodeOf(path), ino_t{0});
  etcd_->Start(1);
  etcd_->Start(2);
  sh_->step = 6;
  EXPECT_EQ(Finish(a), 0);
  EXPECT_EQ(Finish(b), 0);
  EXPECT_EQ(sh_->got[3].load(), 1) << "the pending deletion never completed after the quorum came back";
  EXPECT_EQ(sh_->got[4].load(), 1);
}

INSTANTIATE_TEST_SUITE_P(Etcd, Hosts, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& p) {
                           return p.param ? std::string("Cluster") : std::string("Alone");
                         });

}  // namespace
