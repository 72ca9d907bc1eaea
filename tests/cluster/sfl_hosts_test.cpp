// Several hosts sharing one store: a three-member etcd cluster and a
// GlusterFS volume on a loopback brick, in the test's own network and mount
// namespaces, and two "hosts", each the init of IPC, PID, UTS and mount
// namespaces of its own (its own System V queues, processes, host name and
// client of the volume, mounted at the same path) with its own interest
// service. Each scenario also runs with the two services alone (no etcd),
// where it shows the loss the cluster mode prevents. Needs root and etcd;
// without GlusterFS the hosts share a local directory instead, and the
// volume's own tests are skipped.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <dirent.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ml.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

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

// ---- a GlusterFS volume ----------------------------------------------------------------

const char* kGlusterd = "/usr/sbin/glusterd";
const char* kGlusterClient = "/usr/sbin/glusterfs";
constexpr long kFuseMagic = 0x65735546;

// The volume options sfl needs: no client-side cache between a process and
// the bricks (a read after another client's locked write must see it, and
// a size after its growth).
const std::vector<std::string> kVolumeOptionsOff = {
    "performance.write-behind", "performance.read-ahead",  "performance.io-cache",
    "performance.quick-read",   "performance.stat-prefetch", "performance.open-behind"};

// Why a GlusterFS volume cannot be made here, or "" when it can.
std::string GlusterUnavailable() {
  if (geteuid() != 0) return "needs root";
  if (access(kGlusterd, X_OK) != 0 || access(kGlusterClient, X_OK) != 0)
    return "needs GlusterFS (glusterfs-server); tools/install-deps.sh installs it";
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "needs /dev/fuse";
  return "";
}

bool IsFuse(const std::string& path) {
  struct statfs fs {};
  return ::statfs(path.c_str(), &fs) == 0 && static_cast<long>(fs.f_type) == kFuseMagic;
}

int Run(const std::string& cmd) { return std::system(cmd.c_str()); }

// The test process's own network and mount namespaces: loopback only, and
// the places the GlusterFS daemons write to outside their working
// directory on tmpfs, so nothing is shared with another test or left behind
// (the namespaces, and their mounts, end with the process).
bool PrivateNetAndMounts(std::string* why) {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
    *why = std::string("unshare: ") + std::strerror(errno);
    return false;
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *why = "mount private";
    return false;
  }
  const int s = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  const bool up = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags |= IFF_UP, true) &&
                  ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
  if (s >= 0) close(s);
  if (!up) {
    *why = "loopback not up";
    return false;
  }
  for (const char* d : {"/var/run/gluster", "/var/log/glusterfs", "/var/lib/glusterd"}) {
    mkdir(d, 0755);
    if (mount("tmpfs", d, "tmpfs", 0, "mode=0755") != 0) {
      *why = std::string("tmpfs on ") + d;
      return false;
    }
  }
  return true;
}

// One glusterd and a one-brick volume in the test's directory, with the
// options given turned off. Everything it starts it stops by pid.
class Gluster {
 public:
  explicit Gluster(std::vector<std::string> off) : off_(std::move(off)) {
    dir_ = sfltest::TestDir() + "/gluster";
    volume_ = "sflt" + std::to_string(getpid());
  }
  ~Gluster() {
    if (glusterd_ > 0) {
      Run(Cli() + " volume stop " + volume_ + " force >>" + dir_ + "/cli.log 2>&1");
      Run(Cli() + " volume delete " + volume_ + " >>" + dir_ + "/cli.log 2>&1");
    }
    KillBricks();
    Kill(glusterd_);
  }
  bool Start(std::string* why) {
    for (const char* d : {"", "/wd", "/run", "/brick"}) mkdir((dir_ + d).c_str(), 0700);
    glusterd_ = Spawn({kGlusterd, "-N", "--log-file=" + dir_ + "/glusterd.log", "--xlator-option",
                       "*.working-directory=" + dir_ + "/wd", "--xlator-option",
                       "*.glusterd-sockfile=" + dir_ + "/run/glusterd.socket", "--xlator-option",
                       "*.run-directory=" + dir_ + "/run"},
                      dir_ + "/glusterd.out");
    if (!Eventually([&] { return Run(Cli() + " volume list >/dev/null 2>&1") == 0; }, 20)) {
      *why = "glusterd did not answer (see " + dir_ + "/glusterd.log)";
      return false;
    }
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    std::string cmd = Cli() + " volume create " + volume_ + " " + host + ":" + dir_ + "/brick/b force";
    for (const std::string& o : off_) cmd += " && " + Cli() + " volume set " + volume_ + " " + o + " off";
    cmd += " && " + Cli() + " volume start " + volume_;
    if (Run("(" + cmd + ") >>" + dir_ + "/cli.log 2>&1") != 0) {
      *why = "the volume could not be made (see " + dir_ + "/cli.log)";
      return false;
    }
    return true;
  }
  // A client of the volume mounted at `at` (made if need be), without the
  // kernel's page cache and without its cache of names and attributes (a
  // name another client renamed over must lead to the new file at once);
  // its pid, or -1.
  // `kernelCaches`: mounted with the client's defaults instead.
  pid_t Mount(const std::string& at, bool kernelCaches = false) const {
    mkdir(at.c_str(), 0755);
    struct stat was {};
    ::stat(at.c_str(), &was);  // a mount inherited from the namespace this one was copied from
    std::vector<std::string> args = {kGlusterClient, "-N"};
    if (!kernelCaches)
      args.insert(args.end(),
                  {"--direct-io-mode=enable", "--entry-timeout=0", "--attribute-timeout=0", "--negative-timeout=0"});
    args.insert(args.end(), {"--volfile-server=127.0.0.1", "--volfile-id=" + volume_, at});
    const pid_t p = Spawn(args, dir_ + "/client.log");
    if (!Eventually(
            [&] {
              struct stat now {};
              return IsFuse(at) && ::stat(at.c_str(), &now) == 0 && now.st_dev != was.st_dev;
            },
            20)) {
      Kill(p);
      return -1;
    }
    return p;
  }

 private:
  std::string Cli() const { return "gluster --mode=script --glusterd-sock=" + dir_ + "/run/glusterd.socket"; }
  void KillBricks() const {
    const std::string vols = dir_ + "/wd/vols/" + volume_ + "/run";
    for (const std::string& d : {dir_ + "/run/vols/" + volume_, vols}) {
      DIR* dp = opendir(d.c_str());
      if (dp == nullptr) continue;
      while (dirent* e = readdir(dp)) {
        const std::string name = e->d_name;
        if (name.size() < 5 || name.substr(name.size() - 4) != ".pid") continue;
        FILE* f = std::fopen((d + "/" + name).c_str(), "r");
        int pid = 0;
        if (f != nullptr && std::fscanf(f, "%d", &pid) == 1 && pid > 1) kill(pid, SIGKILL);
        if (f != nullptr) std::fclose(f);
      }
      closedir(dp);
    }
  }
  std::vector<std::string> off_;
  std::string dir_, volume_;
  pid_t glusterd_ = -1;
};

// Unmounts and stops a client mounted by Gluster::Mount.
void Unmount(const std::string& at, pid_t client) {
  umount2(at.c_str(), MNT_DETACH);
  Kill(client);
}

// ---- what sfl needs from the volume --------------------------------------------------------

void Lock(int fd, short type) {
  struct flock f {};
  f.l_type = type;
  f.l_whence = SEEK_SET;
  f.l_len = 1;
  ASSERT_EQ(fcntl(fd, F_OFD_SETLKW, &f), 0) << std::strerror(errno);
}

struct TwoClients {
  int staleReads = 0;      // of kRounds, reads under the lock that missed the other's write
  bool sizeSeen = false;   // the other's growth of the file seen under the lock
  static constexpr int kRounds = 20;
};

// Two clients of one volume (two mounts, two client processes): A writes
// under a write lock, B then reads under a read lock, each round new bytes.
class GlusterVolume : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string>& off) {
    if (const std::string why = GlusterUnavailable(); !why.empty()) GTEST_SKIP() << why;
    std::string failed;
    ASSERT_TRUE(PrivateNetAndMounts(&failed)) << failed;
    volume_ = std::make_unique<Gluster>(off);
    ASSERT_TRUE(volume_->Start(&failed)) << failed;
    for (int i = 0; i < 2; ++i) {
      at_[i] = sfltest::TestDir() + "/client-" + std::to_string(i);
      client_[i] = volume_->Mount(at_[i]);
      ASSERT_GT(client_[i], 0);
    }
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i)
      if (client_[i] > 0) Unmount(at_[i], client_[i]);
    volume_.reset();
  }
  TwoClients WriteThenRead() {
    TwoClients r;
    const int a = open((at_[0] + "/f").c_str(), O_RDWR | O_CREAT, 0600);
    std::vector<char> w(4096, '0'), got(4096);
    EXPECT_EQ(pwrite(a, w.data(), w.size(), 0), 4096);
    EXPECT_EQ(fsync(a), 0);
    const int b = open((at_[1] + "/f").c_str(), O_RDWR);
    EXPECT_GE(b, 0);
    EXPECT_EQ(pread(b, got.data(), got.size(), 0), 4096);  // B has read the old bytes once
    for (int i = 1; i <= TwoClients::kRounds; ++i) {
      Lock(a, F_WRLCK);
      std::fill(w.begin(), w.end(), static_cast<char>('a' + i));
      EXPECT_EQ(pwrite(a, w.data(), w.size(), 0), 4096);
      Lock(a, F_UNLCK);
      Lock(b, F_RDLCK);
      EXPECT_EQ(pread(b, got.data(), got.size(), 0), 4096);
      Lock(b, F_UNLCK);
      if (got != w) ++r.staleReads;
    }
    Lock(a, F_WRLCK);
    EXPECT_EQ(pwrite(a, w.data(), w.size(), 8192), 4096);
    Lock(a, F_UNLCK);
    Lock(b, F_RDLCK);
    struct stat st {};
    r.sizeSeen = fstat(b, &st) == 0 && st.st_size == 12288;
    Lock(b, F_UNLCK);
    close(a);
    close(b);
    return r;
  }

  std::unique_ptr<Gluster> volume_;
  std::string at_[2];
  pid_t client_[2] = {-1, -1};
};

// With the client-side caches off and no page cache, what one client wrote
// under its lock is what the other reads under its own, and the rest sfl
// leans on holds across clients too.
TEST_F(GlusterVolume, WhatSflNeedsHoldsBetweenTwoClients) {
  Start(kVolumeOptionsOff);
  if (IsSkipped() || HasFatalFailure()) return;
  const TwoClients r = WriteThenRead();
  EXPECT_EQ(r.staleReads, 0) << "a read after the other client's locked write missed it";
  EXPECT_TRUE(r.sizeSeen) << "the other client's growth of the file was not seen";

  // Byte-range locks: one client's lock is seen through the other mount.
  const int a = open((at_[0] + "/g").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(a, 0);
  // O_EXCL: the other client cannot make the same file again.
  EXPECT_LT(open((at_[1] + "/g").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600), 0);
  EXPECT_EQ(errno, EEXIST);
  const int b = open((at_[1] + "/g").c_str(), O_RDWR);
  ASSERT_GE(b, 0);
  Lock(a, F_WRLCK);
  struct flock probe {};
  probe.l_type = F_RDLCK;
  probe.l_len = 1;
  ASSERT_EQ(fcntl(b, F_OFD_GETLK, &probe), 0);
  EXPECT_EQ(probe.l_type, F_WRLCK) << "a lock through one mount is not seen through the other";
  Lock(a, F_UNLCK);
  const std::vector<char> old(100, 'o');
  ASSERT_EQ(pwrite(a, old.data(), old.size(), 0), 100);
  EXPECT_EQ(fdatasync(a), 0);
  EXPECT_EQ(fsync(a), 0);

  // Rename over a file another client holds open, then unlink: the holder
  // still reads what it opened, and sees its file's link count drop.
  const int n = open((at_[0] + "/g.new").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(n, 0);
  const std::vector<char> fresh(100, 'n');
  ASSERT_EQ(pwrite(n, fresh.data(), fresh.size(), 0), 100);
  ASSERT_EQ(rename((at_[0] + "/g.new").c_str(), (at_[0] + "/g").c_str()), 0);
  std::vector<char> got(100);
  EXPECT_EQ(pread(b, got.data(), got.size(), 0), 100);
  EXPECT_EQ(got, old) << "the holder of a renamed-over file no longer reads it";
  struct stat st {};
  ASSERT_EQ(fstat(b, &st), 0);
  EXPECT_EQ(st.st_nlink, 0u) << "the holder does not see that its file was replaced";
  const int c = open((at_[1] + "/g").c_str(), O_RDWR);
  ASSERT_GE(c, 0);
  EXPECT_EQ(pread(c, got.data(), got.size(), 0), 100);
  EXPECT_EQ(got, fresh);
  ASSERT_EQ(unlink((at_[0] + "/g").c_str()), 0);
  EXPECT_EQ(pread(c, got.data(), got.size(), 0), 100);
  EXPECT_EQ(got, fresh) << "an unlinked file held open could no longer be read";
  ASSERT_EQ(fstat(c, &st), 0);
  EXPECT_EQ(st.st_nlink, 0u);
  for (int fd : {a, b, c, n}) close(fd);
}

// The same two clients with the volume's default options: the caches between
// a client and the bricks let a read miss what the other client wrote under
// its lock. This is what the options above are for.
TEST_F(GlusterVolume, WithTheDefaultCachesAReadMissesTheOtherClientsWrite) {
  Start({});
  if (IsSkipped() || HasFatalFailure()) return;
  const TwoClients r = WriteThenRead();
  EXPECT_TRUE(r.staleReads > 0 || !r.sizeSeen) << "the default caches did not show";
}

// ---- the service refuses a volume that lacks what sfl needs ----------------------------

const char* kNoEtcd = "http://127.0.0.1:9";  // the file system is judged before etcd is asked

// sfl-monitor serving several hosts, its store under `root`, started as an
// operator starts it (it returns once the service serves, or at once when
// it refuses).
sfltest::Outcome MonitorFor(const std::string& root, const std::string& runDir) {
  return sfltest::Exec({sfltest::MonitorBinary(), "--run-dir", runDir}, "", "",
                       {{"SFL_CLUSTER_ETCD", kNoEtcd}, {"SFL_STORE_ROOT", root}}, {"SFL_CLUSTER_TRUST_FS"});
}

// Stops, on every path, a service that should not have started.
struct StopsService {
  std::string runDir;
  ~StopsService() { sfltest::Exec({sfltest::MonitorBinary(), "--stop", "--force", "--run-dir", runDir}); }
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The volume's defaults load four caching translators; the service names
// each and does not start, and a process that would start it on demand is
// told the service cannot start.
TEST_F(GlusterVolume, TheServiceRefusesTheDefaultCaches) {
  Start({});
  if (IsSkipped() || HasFatalFailure()) return;
  const std::string root = at_[0] + "/store", run = sfltest::TestDir() + "/run-refused";
  const StopsService stops{run};
  const sfltest::Outcome r = MonitorFor(root, run);
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(Has(r.err, "sfl-monitor: refused to serve several hosts: store root " + root + " (GlusterFS): "))
      << r.err;
  for (const char* m : {"performance.write-behind is on", "performance.open-behind is on",
                        "performance.quick-read is on", "performance.stat-prefetch is on"})
    EXPECT_TRUE(Has(r.err, m)) << m << " not in: " << r.err;
  EXPECT_FALSE(Has(r.err, "mount lacks")) << r.err;  // mounted as sfl needs
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  ml_State st;
  EXPECT_FALSE(ml_ReadState(run, &st)) << "the service published a state";

  // On demand: the library's start fails, with the reason for a service
  // that is not there, in a bounded time; the service's log says why.
  const std::string lib = sfltest::TestDir() + "/run-lib";
  const StopsService stopsLib{lib};
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(0, sfltest::RunInChild([&] {
    setenv("SFL_CLUSTER_ETCD", kNoEtcd, 1);
    setenv("SFL_STORE_ROOT", root.c_str(), 1);
    setenv("SFL_RUN_DIR", lib.c_str(), 1);
    setenv("SFL_MONITOR_AUTOSTART", "1", 1);
    const auto got = sfltest::GroupAndReasonOf([] { sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr); });
    return got == std::make_pair(116, 380) ? 0 : 1;
  }));
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(30));
  EXPECT_TRUE(Has(sfltest::ReadWholeFile(ml_LogPath(lib)), "performance.write-behind is on"));
}

// With the working set the service starts; a mount that keeps the kernel's
// caches is refused, naming each option it lacks.
TEST_F(GlusterVolume, TheServiceAcceptsTheWorkingSetAndNamesWhatAMountLacks) {
  Start(kVolumeOptionsOff);
  if (IsSkipped() || HasFatalFailure()) return;
  const std::string run = sfltest::TestDir() + "/run-accepted";
  {
    const StopsService stops{run};
    const sfltest::Outcome r = MonitorFor(at_[0] + "/store", run);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Has(r.out, "serving")) << r.out;
    EXPECT_TRUE(
        Has(sfltest::ReadWholeFile(ml_LogPath(run)), "store root " + at_[0] + "/store (GlusterFS) accepted"));
  }
  const std::string bare = sfltest::TestDir() + "/bare";
  const pid_t client = volume_->Mount(bare, true);
  ASSERT_GT(client, 0);
  const StopsService stops{run};
  const sfltest::Outcome b = MonitorFor(bare + "/store", run);
  Unmount(bare, client);
  EXPECT_EQ(b.status, 1) << b.out;
  EXPECT_EQ(b.err, "sfl-monitor: refused to serve several hosts: store root " + bare +
                       "/store (GlusterFS): mount lacks direct-io-mode=enable; mount lacks entry-timeout=0; "
                       "mount lacks attribute-timeout=0; mount lacks negative-timeout=0\n");
}

// ---- hosts ----------------------------------------------------------------------------

// What the test and its hosts share (an anonymous shared mapping).
struct Shared {
  std::atomic<int> step{0};
  std::atomic<int> serviceUp[2];
  sfl_ItemRef file, keep, victim;
  std::atomic<int> got[16];  // what the hosts saw, by scenario

  // Scenario 5: the containers, and every item a worker stored.
  enum : int { kFree, kStoring, kLive, kBusy, kDeleting, kDeleted, kNeverMade };
  struct Stored {
    std::atomic<int> state;
    sfl_ItemRef ref;
    uint32_t size, seed;
  };
  static constexpr int kContainers = 3, kMaxStored = 6000;
  sfl_ItemRef container[kContainers];
  std::atomic<int> nStored{0};
  Stored stored[kMaxStored];
  std::atomic<int> ops[8];        // by kind, every host
  std::atomic<int> badReads{0};   // bytes that were not the ones stored
  std::atomic<int> surprises{0};  // escapes no other worker explains
  std::atomic<int> firstSurprise{0}, firstSurpriseOp{0};
};

bool WaitStep(Shared* sh, int n, int seconds = 30) {
  return Eventually([&] { return sh->step.load() >= n; }, seconds);
}

std::string HostRunDir(int host) { return sfltest::TestDir() + "/run-" + std::string(1, char('A' + host)); }

// Starts host `host` (0: A, 1: B): the first process (init) of new IPC,
// PID, UTS and mount namespaces, so its own System V queues, process
// numbers, host name and mounts (a /proc of its own, and its own client of
// the volume at `mountAt` when there is one), with its own service
// (in cluster mode when `urls` is not empty); it runs `body`, then stops
// its service. Killing the returned process kills the host whole: every
// process of a PID namespace dies with its init.
pid_t StartHost(Shared* sh, int host, const std::string& urls, const Gluster* volume,
                const std::string& mountAt, const std::function<int()>& body) {
  const std::string cluster = "t" + std::to_string(getpid());  // the test's own keys in etcd
  std::fflush(nullptr);
  const long pid = syscall(SYS_clone, CLONE_NEWIPC | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWNS | SIGCHLD,
                           nullptr, nullptr, nullptr, nullptr);
  if (pid != 0) return static_cast<pid_t>(pid);
  int rc = 99;
  try {
    rc = [&]() -> int {
      const std::string name = std::string("host-") + char('a' + host);
      if (sethostname(name.c_str(), name.size()) != 0) return 92;
      if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 93;
      if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) return 94;
      // The host's own client of the volume, at the same path as every
      // other host's; it dies with the host.
      if (volume != nullptr && volume->Mount(mountAt) < 0) return 95;
      const std::string dir = HostRunDir(host);
      setenv("SFL_RUN_DIR", dir.c_str(), 1);
      setenv("SFL_MONITOR_AUTOSTART", "0", 1);
      if (!urls.empty()) {
        setenv("SFL_CLUSTER_ETCD", urls.c_str(), 1);
        setenv("SFL_CLUSTER_NAME", cluster.c_str(), 1);
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
      sh->serviceUp[host] = 1;
      int result = body();
      kill(service, SIGTERM);
      if (sfltest::ExitWithin(service, 10) < 0) Kill(service);
      return result;
    }();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "host %c: %s\n", char('A' + host), e.what());
  }
  std::fflush(nullptr);
  _exit(rc);
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
    if (geteuid() != 0) GTEST_SKIP() << "needs root: each host runs in namespaces of its own";
    const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    if (!Cluster() && (name.rfind("LossOfQuorum", 0) == 0 || name.rfind("Stress", 0) == 0))
      GTEST_SKIP() << "only in cluster mode: hosts alone have no etcd to lose, and release under "
                      "each other's readers (the other scenarios show it)";
    if (access(kEtcd, X_OK) != 0) GTEST_SKIP() << "needs etcd (" << kEtcd << "); tools/install-deps.sh installs it";
    if (sfltest::RunInChild([] {
          return unshare(CLONE_NEWIPC | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWNS) == 0 ? 0 : 1;
        }) != 0)
      GTEST_SKIP() << "cannot make IPC, PID, UTS and mount namespaces here";
    if (const std::string why = GlusterUnavailable(); why.empty()) {
      std::string failed;
      ASSERT_TRUE(PrivateNetAndMounts(&failed)) << failed;
      volume_ = std::make_unique<Gluster>(kVolumeOptionsOff);
      ASSERT_TRUE(volume_->Start(&failed)) << failed;
      mountAt_ = sfltest::TestDir() + "/volume";
      observer_ = volume_->Mount(mountAt_);  // the test's own view of the store
      ASSERT_GT(observer_, 0) << "the volume could not be mounted";
      const std::string store = mountAt_ + "/store";
      mkdir(store.c_str(), 0755);
      setenv("SFL_STORE_ROOT", store.c_str(), 1);
    } else {
      std::printf("store on a local directory shared by the hosts, not on GlusterFS: %s\n", why.c_str());
    }
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
    for (pid_t& p : hosts_) Kill(p);  // and with each, everything it started
    etcd_.reset();
    if (observer_ > 0) Unmount(mountAt_, observer_);
    volume_.reset();
    if (sh_ != nullptr) munmap(sh_, sizeof(Shared));
  }
  bool Cluster() const { return GetParam(); }
  std::string Urls() const { return Cluster() ? etcd_->Urls() : std::string(); }
  pid_t Host(int host, const std::function<int()>& body) {
    const pid_t p = StartHost(sh_, host, Urls(), volume_.get(), mountAt_, body);
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
  std::unique_ptr<Gluster> volume_;
  std::string mountAt_;
  pid_t observer_ = -1;
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

// Scenario 3: host A killed whole (its init, and with it every process of
// its PID namespace, its service among them) while it holds an item B
// deleted: B's closes leave the deletion pending until A's lease has run
// out, then release it. Alone, B's service releases the item at once, under
// A's open reader.
TEST_P(Hosts, AHostKilledWholeLetsGoWhenItsLeaseEnds) {
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
    sh_->got[5] = (U32At(path, 20) & ITEM_PEND_DEL) != 0 ? 1 : 0;
    if (sh_->got[5] == 0) return 0;
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
  if (!Cluster()) {
    // The loss: with A alive and reading, B's service told B it was alone
    // and the item went at once.
    ASSERT_EQ(Finish(b), 0);
    EXPECT_EQ(sh_->got[5].load(), 0);
    return;
  }
  ASSERT_TRUE(WaitStep(sh_, 2)) << "B's deletion was not left pending while A held the item";
  Kill(a);
  for (pid_t& h : hosts_)
    if (h == a) h = -1;
  sh_->step = 3;
  ASSERT_EQ(Finish(b), 0);
  EXPECT_EQ(sh_->got[5].load(), 1);
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
  const pid_t a = Host(0, [&]() -> int {
    const int32_t bh = HoldVictim(sh_);
    const int32_t ih = sfl_OpenItem(&sh_->victim, 0);
    sh_->step = 1;
    if (!WaitStep(sh_, 4)) return 4;  // two members down
    // The last holder anywhere closes; without a quorum nothing is released,
    // and the service answers at once all the same (it looks for etcd again
    // aside from its answers).
    const auto start = std::chrono::steady_clock::now();
    sfl_CloseItem(ih);
    sfl_CloseFile(bh);
    sfltest::CloseColdFiles();
    sh_->got[5] = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - start)
                                       .count());
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
  // Waiting on etcd costs two seconds and more (its timeout); a busy
  // machine may slow the answer itself past one.
  EXPECT_LT(sh_->got[5].load(), 1800) << "closes without a quorum waited for etcd";
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

// Scenario 5: workers on both hosts store, read, attach, detach and delete
// items in shared containers, whose closes rebuild them whenever they hold
// any hole, for a bounded time. Afterwards every container checks clean,
// every item whose store completed and that was not deleted reads back, and
// every deleted one is gone.
std::vector<uint8_t> Bytes(uint32_t seed, uint32_t size) {
  std::vector<uint8_t> b(size);
  uint32_t x = seed * 2654435761u + 1;
  for (uint32_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    b[i] = static_cast<uint8_t>(x >> 16);
  }
  return b;
}

enum { kOpStore, kOpRead, kOpAttach, kOpDelete, kOpCompact, kOpKinds };

int StressWorker(Shared* sh, int host, int worker, int seconds) {
  uint32_t rnd = static_cast<uint32_t>(host * 7919 + worker * 104729 + 1);
  auto next = [&] {
    rnd = rnd * 1103515245u + 12345u;
    return rnd >> 8;
  };
  int kind = 0;
  auto surprise = [&](const sfltest::Escape& e) {
    if (e.group == 0) return;
    if (sh->surprises++ == 0) {
      sh->firstSurprise = e.group * 100000 + e.reason;
      sh->firstSurpriseOp = kind;
    }
  };
  // An entry in state `from`, claimed as `to`, or null.
  auto claim = [&](int from, int to) -> Shared::Stored* {
    const int n = sh->nStored.load();
    if (n == 0) return nullptr;
    Shared::Stored* st = &sh->stored[next() % n];
    int want = from;
    return st->state.compare_exchange_strong(want, to) ? st : nullptr;
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    const uint32_t pick = next() % 100;
    if (pick < 25) {  // store
      kind = kOpStore;
      const int at = sh->nStored.fetch_add(1);
      if (at >= Shared::kMaxStored) break;
      Shared::Stored& st = sh->stored[at];
      st.state = Shared::kStoring;
      st.size = 200 + next() % 3000;
      st.seed = static_cast<uint32_t>(at) * 31u + 7u;
      const std::vector<uint8_t> data = Bytes(st.seed, st.size);
      const sfl_ItemRef container = sh->container[next() % Shared::kContainers];
      bool made = false;
      const sfltest::Escape e = sfltest::EscapeOf([&] {
        const int32_t bh = sfl_OpenSfl(&container, 0);
        const int32_t ih = sfl_StoreBasicItem(bh, nullptr, st.size, &st.ref, 0);
        if (ih >= 0) {  // else the container's table is full
          sfl_WriteSimpleData(ih, 0, st.size, data.data());
          sfl_CloseItem(ih);
          made = true;
        }
        sfl_CloseFile(bh);
      });
      surprise(e);
      st.state = e.group == 0 && made ? Shared::kLive : Shared::kNeverMade;
      sh->ops[kOpStore]++;
    } else if (pick < 55) {  // read, while others may delete it
      kind = kOpRead;
      Shared::Stored* st = claim(Shared::kLive, Shared::kLive);
      if (st == nullptr) continue;
      std::vector<uint8_t> got(st->size);
      bool opened = false;
      const sfltest::Escape e = sfltest::EscapeOf([&] {
        const int32_t ih = sfl_OpenItem(&st->ref, 1);
        opened = true;
        sfl_ReadSimpleData(ih, 0, st->size, got.data());
        sfl_CloseItem(ih);
      });
      if (e.group == 0 && got != Bytes(st->seed, st->size)) sh->badReads++;
      // An open that finds the item gone is explained by a deletion.
      if (e.group != 0 && (opened || st->state.load() < Shared::kDeleting)) surprise(e);
      sh->ops[kOpRead]++;
    } else if (pick < 70) {  // attach and detach again
      kind = kOpAttach;
      Shared::Stored* st = claim(Shared::kLive, Shared::kBusy);
      if (st == nullptr) continue;
      surprise(sfltest::EscapeOf([&] {
        sfl_AttachItem(&st->ref);
        sfl_DetachItem(&st->ref);
      }));
      st->state = Shared::kLive;
      sh->ops[kOpAttach]++;
    } else if (pick < 96) {  // delete: the last attachment goes with it
      kind = kOpDelete;
      Shared::Stored* st = claim(Shared::kLive, Shared::kDeleting);
      if (st == nullptr) continue;
      surprise(sfltest::EscapeOf([&] {
        const int32_t ih = sfl_OpenItem(&st->ref, 1);
        sfl_DetachOpenItem(ih);
        sfl_DeleteItem(ih);
        sfl_CloseItem(ih);
      }));
      st->state = Shared::kDeleted;
      sh->ops[kOpDelete]++;
    } else {  // a compaction asked for outright
      kind = kOpCompact;
      const sfl_ItemRef container = sh->container[next() % Shared::kContainers];
      surprise(sfltest::EscapeOf([&] { sfl_CompactContainer(&container); }));
      sh->ops[kOpCompact]++;
    }
    if (next() % 8 == 0) sfltest::CloseColdFiles();
  }
  sfltest::CloseColdFiles();
  return 0;
}

TEST_P(Hosts, StressOnBothHostsLosesNothing) {
  int seconds = 10;
  if (const char* v = std::getenv("SFL_CLUSTER_STRESS_SECONDS")) seconds = std::clamp(std::atoi(v), 1, 600);
  // A last close rebuilds its container at the first few holes.
  setenv("SFL_HOLES_RATIO", "1", 1);
  setenv("SFL_HOLES_SIZE_LIMIT", "1", 1);
  constexpr int kWorkers = 2;  // per host
  auto host = [&](int h) {
    return Host(h, [&, h]() -> int {
      if (h == 0) {
        for (sfl_ItemRef& c : sh_->container) {
          // Each with an item nobody deletes: an emptied container goes.
          const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
          sfl_GetSerFileItem(bh, &c);
          sfl_ItemRef anchor{};
          sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 100, &anchor, 0));
          sfl_CloseFile(bh);
        }
        sfltest::CloseColdFiles();
        sh_->step = 1;
      } else if (!WaitStep(sh_, 1)) {
        return 1;
      }
      std::vector<int> workers;
      for (int w = 0; w < kWorkers; ++w)
        workers.push_back(sfltest::StartChild([sh = sh_, h, w, seconds] { return StressWorker(sh, h, w, seconds); }));
      int rc = 0;
      for (int w : workers) rc |= sfltest::ExitWithin(w, seconds + 60);
      return rc;
    });
  };
  const pid_t a = host(0);
  const pid_t b = host(1);
  EXPECT_EQ(Finish(a), 0);
  EXPECT_EQ(Finish(b), 0);
  const int n = std::min(sh_->nStored.load(), int{Shared::kMaxStored});
  std::printf("stress, %d s: %d stores, %d reads, %d attach/detach, %d deletes, %d compactions\n", seconds,
              sh_->ops[kOpStore].load(), sh_->ops[kOpRead].load(), sh_->ops[kOpAttach].load(),
              sh_->ops[kOpDelete].load(), sh_->ops[kOpCompact].load());
  EXPECT_EQ(sh_->badReads.load(), 0) << "a read returned bytes that were not stored";
  EXPECT_EQ(sh_->surprises.load(), 0) << "first unexplained escape " << sh_->firstSurprise.load() << " in operation "
                                       << sh_->firstSurpriseOp.load();
  EXPECT_GT(sh_->ops[kOpDelete].load(), 0);
  // A host of its own looks at everything afterwards.
  const pid_t c = Host(1, [&]() -> int {
    // A deletion still pending (its reader's host had not yet withdrawn in
    // etcd when the last close elsewhere looked) is released by the next
    // last close.
    for (const sfl_ItemRef& ref : sh_->container) sfl_CloseFile(sfl_OpenSfl(&ref, 0));
    sfltest::CloseColdFiles();
    int faults = 0;
    for (const sfl_ItemRef& ref : sh_->container) faults += sfl_CheckSflIntegrity(&ref, 0) != 0;
    sh_->got[0] = faults;
    int lost = 0, kept = 0;
    std::set<std::pair<uint64_t, uint32_t>> reused;  // (file, slot) of every live item
    for (int i = 0; i < n; ++i)
      if (sh_->stored[i].state.load() == Shared::kLive)
        reused.insert({sh_->stored[i].ref.FileId, sfl_ItemNumOf(sh_->stored[i].ref)});
    for (int i = 0; i < n; ++i) {
      const Shared::Stored& st = sh_->stored[i];
      if (st.state.load() == Shared::kNeverMade) continue;
      if (st.state.load() == Shared::kDeleted) {
        // Gone, unless its slot holds an item stored after it.
        if (sfl_ItemExists(&st.ref) && reused.count({st.ref.FileId, sfl_ItemNumOf(st.ref)}) == 0) ++kept;
        continue;
      }
      std::vector<uint8_t> got(st.size);
      const sfltest::Escape e = sfltest::EscapeOf([&] {
        const int32_t ih = sfl_OpenItem(&st.ref, 1);
        sfl_ReadSimpleData(ih, 0, st.size, got.data());
        sfl_CloseItem(ih);
      });
      lost += (e.group != 0 || got != Bytes(st.seed, st.size)) ? 1 : 0;
    }
    sh_->got[1] = lost;
    sh_->got[2] = kept;
    sfltest::CloseColdFiles();
    return 0;
  });
  ASSERT_EQ(Finish(c), 0);
  EXPECT_EQ(sh_->got[0].load(), 0) << "a container did not check clean";
  EXPECT_EQ(sh_->got[1].load(), 0) << "completed stores that did not read back";
  EXPECT_EQ(sh_->got[2].load(), 0) << "deleted items still there";
}

INSTANTIATE_TEST_SUITE_P(Etcd, Hosts, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& p) {
                           return p.param ? std::string("Cluster") : std::string("Alone");
                         });

}  // namespace
