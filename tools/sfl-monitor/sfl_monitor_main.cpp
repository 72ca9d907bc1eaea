// sfl-monitor: the interest service as a program. Parses the options and
// runs the serving code of the ml_ library, in the foreground (for a
// service manager) or detached (returning once the service is published);
// with --stop it ends the running service, unless live processes hold
// interests in it and --force was not given. With SFL_CLUSTER_ETCD set it
// serves one host of several sharing a store (monitor_etcd.h).
#include <chrono>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <curl/curl.h>

#include "ml.h"
#include "ml_cluster.h"
#include "ml_fscheck.h"
#include "ml_keep.h"
#include "monitor_etcd.h"

namespace {

void usage(std::FILE* out) {
  std::fprintf(out,
               "usage: sfl-monitor [options]\n"
               "Serves interest records to sfl processes over System V message queues.\n"
               "\n"
               "  --help               show this text and exit\n"
               "  --foreground         run in this process (for a service manager);\n"
               "                       otherwise detach and return once serving\n"
               "  --run-dir DIR        where to publish the state (default: SFL_RUN_DIR,\n"
               "                       else $XDG_RUNTIME_DIR/sfl, else /tmp/sfl-run-<uid>)\n"
               "  --pairs N            queue pairs, one serving process each (1-4, default 1)\n"
               "  --idle-seconds N     stop after N seconds idle with no interest held\n"
               "                       (default 0: never)\n"
               "  --max-entries N      interest entries kept per serving process\n"
               "                       (default 100000; records beyond it are refused)\n"
               "  --group G            make queues and state accessible to group G\n"
               "  --stop               stop the service of the run directory; refused (exit\n"
               "                       status 3) while live processes hold interests\n"
               "  --force              with --stop: stop even so\n"
               "\n"
               "SIGTERM or SIGINT stops the service; it removes its queues and state. The\n"
               "interests held are kept in the run directory (sfl-monitor.interests.N), and\n"
               "a service started again there takes over those of processes still alive.\n"
               "\n"
               "Several hosts sharing a store: SFL_CLUSTER_ETCD (comma-separated etcd client\n"
               "URLs), SFL_CLUSTER_NAME (key prefix, default sfl), SFL_CLUSTER_HOST (default\n"
               "the host name), SFL_CLUSTER_LEASE_SECONDS (default 10). The service then\n"
               "refuses to start (exit status 1) when the file system of SFL_STORE_ROOT lacks\n"
               "what hosts sharing it need; SFL_CLUSTER_TRUST_FS=1 accepts one that cannot\n"
               "be examined (not GlusterFS, not local).\n");
}

bool number(const char* text, long lo, long hi, long* out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  long n = std::strtol(text, &end, 10);
  if (*end != '\0' || n < lo || n > hi) return false;
  *out = n;
  return true;
}

enum { kExitRefused = 3 };

// Whether `pid` is still there, waiting for init to reap it.
bool awaitingInit(int32_t pid) {
  FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
  if (f == nullptr) return false;
  char line[512] = {};
  const bool read = std::fgets(line, sizeof line, f) != nullptr;
  std::fclose(f);
  const char* close = read ? std::strrchr(line, ')') : nullptr;
  char state = 0;
  long parent = 0;
  return close != nullptr && std::sscanf(close + 1, " %c %ld", &state, &parent) == 2 && parent == 1;
}

// Ends the service of the run directory. Prints "not running", "stopped:
// pid N", or (on standard error, exit status 3) why it was not stopped.
int stopService(const std::string& runDir, bool force) {
  ml_State st;
  if (!ml_ReadState(runDir, &st) || !ml_ServiceAlive(runDir, st)) {
    std::printf("not running\n");
    return 0;
  }
  if (!force) {
    std::vector<int32_t> pids;
    if (size_t held = ml_KeptHeld(runDir, &pids); held > 0) {
      std::string list;
      for (size_t i = 0; i < pids.size() && i < 8; ++i) list += (i == 0 ? "" : " ") + std::to_string(pids[i]);
      if (pids.size() > 8) list += " ...";
      std::fprintf(stderr,
                   "sfl-monitor: not stopped: %zu interest(s) held by %zu live process(es) (pid %s);"
                   " --force stops it anyway\n",
                   held, pids.size(), list.c_str());
      return kExitRefused;
    }
  }
  if (::kill(st.MainPid, SIGTERM) != 0 && errno != ESRCH) {
    std::fprintf(stderr, "sfl-monitor: cannot signal pid %d: %s\n", st.MainPid, std::strerror(errno));
    return 1;
  }
  // The service removes its queues and state, then exits; wait up to 10 s.
  for (int i = 0; i < 1000 && ml_CheckPid(st.MainPid) == 1; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (ml_CheckPid(st.MainPid) == 1) {
    std::fprintf(stderr, "sfl-monitor: pid %d did not stop\n", st.MainPid);
    return 1;
  }
  // Ended. A detached service is reaped by init, which may take a moment:
  // wait for that, so that its pid is gone once this returns. One that is a
  // child of whoever started it stays until that process reaps it.
  for (int i = 0; i < 1000 && awaitingInit(st.MainPid); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::printf("stopped: pid %d\n", st.MainPid);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ml_ServiceOptions opts;
  opts.RunDir = ml_RunDir();
  bool foreground = false, stop = false, force = false;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    long n = 0;
    if (std::strcmp(a, "--help") == 0) {
      usage(stdout);
      return 0;
    } else if (std::strcmp(a, "--foreground") == 0) {
      foreground = true;
    } else if (std::strcmp(a, "--stop") == 0) {
      stop = true;
    } else if (std::strcmp(a, "--force") == 0) {
      force = true;
    } else if (std::strcmp(a, "--run-dir") == 0 && v != nullptr && *v != '\0') {
      opts.RunDir = v;
      ++i;
    } else if (std::strcmp(a, "--pairs") == 0 && number(v, 1, ML_MAX_PAIRS, &n)) {
      opts.Pairs = static_cast<int>(n);
      ++i;
    } else if (std::strcmp(a, "--idle-seconds") == 0 && number(v, 0, 86400L * 365, &n)) {
      opts.IdleSeconds = static_cast<int>(n);
      ++i;
    } else if (std::strcmp(a, "--max-entries") == 0 && number(v, 1, 100000000, &n)) {
      opts.MaxEntries = static_cast<size_t>(n);
      ++i;
    } else if (std::strcmp(a, "--group") == 0 && v != nullptr) {
      opts.Gid = ml_ResolveGroup(v);
      if (opts.Gid < 0) {
        std::fprintf(stderr, "sfl-monitor: unknown group %s\n", v);
        return 2;
      }
      ++i;
    } else {
      std::fprintf(stderr, "sfl-monitor: bad option or value: %s\n", a);
      usage(stderr);
      return 2;
    }
  }
  if (force && !stop) {
    std::fprintf(stderr, "sfl-monitor: --force goes with --stop only\n");
    return 2;
  }
  if (stop) return stopService(opts.RunDir, force);
  ml_State running;
  if (ml_ReadState(opts.RunDir, &running) && ml_ServiceAlive(opts.RunDir, running)) {
    std::fprintf(stderr, "sfl-monitor: already serving %s (main process %d)\n", opts.RunDir.c_str(),
                 running.MainPid);
    return 1;
  }
  ClusterConfig cluster;
  std::string why;
  if (!ReadClusterConfig(&cluster, &why)) {
    std::fprintf(stderr, "sfl-monitor: %s\n", why.c_str());
    return 2;
  }
  if (!cluster.Urls.empty()) {
    // A store shared between hosts is only as safe as its file system:
    // refuse before serving, in the program an operator runs as in the
    // service it detaches.
    const ml_FsVerdict fs = ml_CheckStoreFs(cluster.StoreRoot, cluster.TrustFs);
    if (fs.Refused) {
      std::fprintf(stderr, "sfl-monitor: refused to serve several hosts: %s\n", fs.Line().c_str());
      return 1;
    }
    if (foreground) std::fprintf(stderr, "sfl-monitor: %s accepted\n", fs.Line().c_str());
  }
  if (foreground) {
    if (cluster.Urls.empty()) return ml_RunService(opts);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    std::fprintf(stderr, "sfl-monitor: serving host %s of cluster %s (%zu etcd member(s), lease %d s)\n",
                 cluster.Host.c_str(), cluster.Name.c_str(), cluster.Urls.size(), cluster.LeaseSeconds);
    EtcdCluster etcd(cluster);
    const int code = ml_RunClusterService(opts, &etcd);
    curl_global_cleanup();
    return code;
  }
  // Detached, the service is this same program run again in the foreground.
  char self[4096];
  const ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
  if (len > 0) self[len] = '\0';
  if (ml_StartDetached(opts, len > 0 ? std::string(self) : std::string()) != 0) {
    std::fprintf(stderr, "sfl-monitor: the service did not come up (see %s)\n",
                 ml_LogPath(opts.RunDir).c_str());
    return 1;
  }
  ml_State st;
  if (ml_ReadState(opts.RunDir, &st)) std::printf("sfl-monitor: serving, main process %d\n", st.MainPid);
  return 0;
}
