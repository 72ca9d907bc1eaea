// `sfl service start|stop|status`: the interest service that counts which
// processes hold which containers. It is normally started on demand by the
// library; these commands manage it explicitly, through the sfl-monitor
// program installed beside this one and the library's queue lookup.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

#include "cli.h"

namespace cli {
namespace {

constexpr int kServiceDown = 380;

struct ServiceInfo {
  int32_t pid = 0;
  int32_t pairs = 0;
};

// Asks the library where the service is, without letting it start one.
bool FindService(ServiceInfo* out) {
  setenv("SFL_MONITOR_AUTOSTART", "0", 1);
  sfl_ItemRef anyRef{};  // SubDomain 0 routes to the first pair, served by the main process
  try {
    sfl_GetQueue(&anyRef, nullptr, nullptr, &out->pairs, &out->pid);
    return true;
  } catch (const er_Escape& e) {
    if (e.group() != ER_GROUP_MONIT || e.reason() != kServiceDown) throw;
    er_Clear();
    return false;
  }
}

std::string MonitorProgram() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir.resize(dir.rfind('/') + 1);
    std::string candidate = dir + "sfl-monitor";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "sfl-monitor";  // found through PATH
}

int RunProgram(const std::vector<std::string>& argv, bool showOutput = false) {
  std::vector<char*> args;
  for (const std::string& s : argv) args.push_back(const_cast<char*>(s.c_str()));
  args.push_back(nullptr);
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw Failure{std::string("fork: ") + std::strerror(errno)};
  if (pid == 0) {
    // The program announces itself on standard output; this command prints
    // its own line instead, unless the program's is the answer.
    int devnull = showOutput ? -1 : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devnull >= 0) dup2(devnull, 1);
    execvp(args[0], args.data());
    std::fprintf(stderr, "sfl service: %s: %s\n", args[0], std::strerror(errno));
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw Failure{std::string("waitpid: ") + std::strerror(errno)};
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Start(const Args& a) {
  std::vector<std::string> argv = {MonitorProgram()};
  if (a.Has("pairs")) {
    const uint64_t pairs = ParseNumber(a.Get("pairs"), "pair count", 4);
    if (pairs == 0) throw UsageError{"the pair count is 1 to 4"};
    argv.push_back("--pairs");
    argv.push_back(std::to_string(pairs));
  }
  if (a.Has("idle-seconds")) {
    argv.push_back("--idle-seconds");
    argv.push_back(std::to_string(ParseNumber(a.Get("idle-seconds"), "idle time", 86400ull * 365)));
  }
  ServiceInfo info;
  if (FindService(&info)) {
    std::printf("already running: pid %d, %d queue pair%s\n", info.pid, info.pairs,
                info.pairs == 1 ? "" : "s");
    return kExitOk;
  }
  int rc = RunProgram(argv);
  if (rc != 0) throw Failure{argv[0] + " exited with status " + std::to_string(rc)};
  if (!FindService(&info)) throw Failure{"the service did not come up"};
  std::printf("started: pid %d, %d queue pair%s\n", info.pid, info.pairs,
              info.pairs == 1 ? "" : "s");
  return kExitOk;
}

// The service program decides: it knows where the interests held are kept.
int Stop(const Args& a) {
  std::vector<std::string> argv = {MonitorProgram(), "--stop"};
  if (a.Has("force")) argv.push_back("--force");
  const int rc = RunProgram(argv, /*showOutput=*/true);
  if (rc == 0) return kExitOk;
  if (rc == 3) return kExitFailure;  // refused; the program said why
  throw Failure{argv[0] + " exited with status " + std::to_string(rc)};
}

// The main process the run directory's state file names, or 0: what can be
// said of a service this user cannot reach.
int32_t PublishedPid(const std::string& runDir) {
  FILE* f = std::fopen((runDir + "/sfl-monitor.state").c_str(), "r");
  if (f == nullptr) return 0;
  char line[256];
  int32_t pid = 0;
  while (std::fgets(line, sizeof line, f) != nullptr)
    if (std::sscanf(line, "main %d", &pid) == 1) break;
  std::fclose(f);
  return pid > 0 && kill(pid, 0) == 0 ? pid : 0;
}

// The counts the service publishes in its run directory (sfl-monitor.prom,
// rewritten every few seconds): the same numbers a metrics collector reads.
struct Counts {
  bool known = false;
  int64_t entries = 0, processes = 0;
  int64_t requests[3] = {};  // record, withdraw, check
  int64_t ageSeconds = 0;
  int64_t Answered() const { return requests[0] + requests[1] + requests[2]; }
};

Counts ReadCounts(const std::string& path) {
  Counts c;
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return c;
  std::map<std::string, long long> v;
  char line[512];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (line[0] == '#') continue;
    char name[256];
    long long value = 0;
    if (std::sscanf(line, "%255s %lld", name, &value) == 2) v[name] = value;
  }
  struct stat st {};
  if (fstat(fileno(f), &st) == 0) c.ageSeconds = std::max<int64_t>(0, std::time(nullptr) - st.st_mtime);
  std::fclose(f);
  if (v.count("sfl_monitor_entries") == 0 || v.count("sfl_monitor_processes") == 0) return c;
  c.known = true;
  c.entries = v["sfl_monitor_entries"];
  c.processes = v["sfl_monitor_processes"];
  const char* types[3] = {"record", "withdraw", "check"};
  for (int i = 0; i < 3; ++i) c.requests[i] = v[std::string("sfl_monitor_requests_total{type=\"") + types[i] + "\"}"];
  return c;
}

std::string CountsJson(const Counts& c) {
  if (!c.known)
    return "\"entries\": null, \"processes\": null, \"requests\": null, \"requests_answered\": null, "
           "\"counts_age_seconds\": null";
  return "\"entries\": " + std::to_string(c.entries) + ", \"processes\": " + std::to_string(c.processes) +
         ", \"requests\": {\"record\": " + std::to_string(c.requests[0]) + ", \"withdraw\": " +
         std::to_string(c.requests[1]) + ", \"check\": " + std::to_string(c.requests[2]) +
         "}, \"requests_answered\": " + std::to_string(c.Answered()) +
         ", \"counts_age_seconds\": " + std::to_string(c.ageSeconds);
}

// What is known of the service: whether it runs and where, its log, and,
// when this user cannot use the run directory, why.
int Status(bool json) {
  const std::string dir = ServiceRunDir();
  const std::string log = dir + "/sfl-monitor.log";
  const std::string metrics = dir + "/sfl-monitor.prom";
  ServiceInfo info;
  const bool usable = RunDirIsOurs();
  const bool running = usable && FindService(&info);
  const std::string problem = usable ? "" : ServiceAdvice();
  const int32_t other = usable ? 0 : PublishedPid(dir);
  // A file left by a service that is gone is not its count.
  const Counts counts = running ? ReadCounts(metrics) : Counts{};
  if (json) {
    std::printf("{\"running\": %s, \"pid\": %d, \"pairs\": %d, \"run_dir\": %s, \"run_dir_owner\": %s, "
                "\"log\": %s, \"usable\": %s, \"problem\": %s, \"metrics\": %s, %s}\n",
                running ? "true" : "false", running ? info.pid : other, running ? info.pairs : 0,
                JsonString(dir).c_str(), JsonString(OwnerAndMode(dir)).c_str(), JsonString(log).c_str(),
                usable ? "true" : "false", JsonString(problem).c_str(), JsonString(metrics).c_str(),
                CountsJson(counts).c_str());
  } else {
    if (running)
      std::printf("running: pid %d, %d queue pair%s\n", info.pid, info.pairs, info.pairs == 1 ? "" : "s");
    else if (other != 0)
      std::printf("not usable: a service runs (pid %d) but %s\n", other, problem.c_str());
    else if (!usable)
      std::printf("not usable: %s\n", problem.c_str());
    else
      std::printf("not running\n");
    if (running && counts.known) {
      std::printf("held           %lld interest entr%s by %lld process%s\n",
                  static_cast<long long>(counts.entries), counts.entries == 1 ? "y" : "ies",
                  static_cast<long long>(counts.processes), counts.processes == 1 ? "" : "es");
      std::printf("answered       %lld request%s (record %lld, withdraw %lld, check %lld)\n",
                  static_cast<long long>(counts.Answered()), counts.Answered() == 1 ? "" : "s",
                  static_cast<long long>(counts.requests[0]), static_cast<long long>(counts.requests[1]),
                  static_cast<long long>(counts.requests[2]));
    } else if (running) {
      std::printf("counts         not published (yet): no %s\n", metrics.c_str());
    }
    std::printf("run directory  %s (%s)\n", dir.c_str(), OwnerAndMode(dir).c_str());
    std::printf("log file       %s\n", log.c_str());
    if (counts.known)
      std::printf("metrics file   %s (written %lld s ago)\n", metrics.c_str(),
                  static_cast<long long>(counts.ageSeconds));
    else
      std::printf("metrics file   %s\n", metrics.c_str());
  }
  return running ? kExitOk : kExitFailure;
}

int RunService(const Args& a) {
  const std::string& action = a.positional[0];
  SetSubject(action);
  if (action == "start") return Start(a);
  if ((a.Has("pairs") || a.Has("idle-seconds")))
    throw UsageError{"--pairs and --idle-seconds go with 'start' only"};
  if (action == "stop") return Stop(a);
  if (a.Has("force")) throw UsageError{"--force goes with 'stop' only"};
  if (action == "status") return Status(a.Has("json"));
  if (a.Has("json")) throw UsageError{"--json goes with 'status' only"};
  throw UsageError{"unknown action '" + action + "' (start, stop or status)"};
}

}  // namespace

const std::vector<Command>& ServiceCommands() {
  static const std::vector<Command> kCommands = {
      {"service",
       "start|stop|status [--json]",
       "manage the interest service",
       "The interest service counts the processes that hold each container. The library\n"
       "starts one on demand (it stops again after an idle time); 'start' runs one\n"
       "explicitly with the sfl-monitor program beside this one, 'stop' ends it, and\n"
       "'status' reports it (exit status 1 when it is not running). The service of the\n"
       "run directory in SFL_RUN_DIR is meant.\n"
       "The service keeps the interests held in its run directory, and one started\n"
       "again takes over those of live processes. Even so, 'stop' refuses while live\n"
       "processes hold interests: it prints on standard error how many, held by which\n"
       "processes, and exits with status 1; --force stops the service anyway. It\n"
       "prints 'stopped: pid N' once the service has gone, 'not running' when none was.\n"
       "'status' prints 'running: pid N, P queue pairs' (or 'not running', or 'not\n"
       "usable: <why>' when the run directory is not this user's to use); while it runs,\n"
       "the interest entries held and by how many processes, and the requests answered\n"
       "by type, as the service last wrote them to its metrics file; then the run\n"
       "directory with its owner and mode, the service's log file and its metrics file.\n",
       {{"pairs", 0, true, "start: queue pairs (serving processes), 1 to 4"},
        {"idle-seconds", 0, true, "start: exit after this long idle (0: never)"},
        {"force", 0, false, "stop: stop even while live processes hold interests"},
        {"json", 0, false, "status: print one JSON object"}},
       1,
       1,
       RunService},
  };
  return kCommands;
}

}  // namespace cli
