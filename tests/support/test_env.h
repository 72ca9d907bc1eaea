// Test support: every test process gets its own store root and run
// directory (so its own interest-service instance), and helpers to run code
// in a forked child.
#ifndef SFL_TEST_ENV_H
#define SFL_TEST_ENV_H

#include <functional>
#include <string>
#include <vector>

namespace sfltest {

// The private directory of this test process (store/ and run/ below it).
const std::string& TestDir();
std::string StoreRoot();
std::string RunDir();

// Runs `body` in a forked child and returns its exit code (the body's
// result), or 128 + signal when the child was killed. A child that throws
// exits with 99.
int RunInChild(const std::function<int()>& body);

// Starts `body` in a forked child without waiting; returns its pid.
int StartChild(const std::function<int()>& body);
// Waits for a child started by StartChild; returns as RunInChild does.
int WaitChild(int pid);

// The interest service of this test process's run directory. Teardown
// stops whatever service is published there.
//
// Starts an explicit instance: the built sfl-monitor program, in the
// foreground, as a child of this process, with `args` added. Returns its pid
// once it has published its state, or -1.
int StartService(const std::vector<std::string>& args = {});
// Stops the service published in the run directory, if any (never this
// process), and waits until it has gone.
void StopService();
// The built sfl-monitor program.
std::string MonitorBinary();
// Runs it with `args` (a shell word list); its output (both streams) and,
// in `code`, its exit status (-1 when it did not exit).
std::string RunMonitor(const std::string& args, int* code);

}  // namespace sfltest

#endif  // SFL_TEST_ENV_H
