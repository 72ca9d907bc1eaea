// Test support: running built programs as their own processes.
#include "tool_run.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "test_env.h"

namespace sfltest {

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

Outcome Exec(const std::vector<std::string>& argv, const std::string& input,
             const std::string& cwd, const std::map<std::string, std::string>& env,
             const std::vector<std::string>& unset) {
  static int seq = 0;
  const std::string base = TestDir() + "/run" + std::to_string(++seq);
  {
    std::ofstream in(base + ".in", std::ios::binary | std::ios::trunc);
    in << input;
  }
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int in = open((base + ".in").c_str(), O_RDONLY);
    const int out = open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    for (const auto& k : unset) unsetenv(k.c_str());
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  Outcome r;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return r;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = ReadWholeFile(base + ".out");
  r.err = ReadWholeFile(base + ".err");
  return r;
}

std::string BinDir() {
  const char* d = std::getenv("SFL_TEST_BIN_DIR");
  return d != nullptr ? d : ".";
}

std::string SourceRoot() { return SFL_TEST_SOURCE_ROOT; }

Outcome Sfl(const std::vector<std::string>& args, const std::string& input) {
  std::vector<std::string> argv = {BinDir() + "/bin/sfl"};
  argv.insert(argv.end(), args.begin(), args.end());
  return Exec(argv, input);
}

std::string RefText(const sfl_ItemRef& ref) {
  char buf[64];
  im_ItemRef2Text(&ref, buf, sizeof buf);
  return buf;
}

}  // namespace sfltest
