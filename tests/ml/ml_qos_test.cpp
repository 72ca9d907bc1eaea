// The service's CPU latency request: held on the configured device while
// clients are about, with the configured value, said in the state file,
// and let go once the service has been idle for a while; never taken
// without the setting; a device that cannot be opened leaves the service
// serving without one. The device is a plain file here, so the test sees
// what was written to it and whether the service holds it open.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/msg.h>
#include <unistd.h>

#include "le.h"
#include "ml.h"
#include "ml_qos.h"
#include "os.h"
#include "sfl.h"
#include "test_env.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using sfltest::Eventually;
using sfltest::RunDir;

std::string Device() { return sfltest::TestDir() + "/cpu_latency"; }

// Whether process `pid` has `path` open.
bool HoldsOpen(int pid, const std::string& path) {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
    std::error_code rc;
    if (fs::read_symlink(e.path(), rc).string() == path) return true;
  }
  return false;
}

int32_t StateLatency() {
  ml_State st;
  return ml_ReadState(RunDir(), &st) ? st.CpuLatencyUs : -2;
}

int32_t DeviceValue() {
  std::ifstream in(Device(), std::ios::binary);
  int32_t v = -1;
  in.read(reinterpret_cast<char*>(&v), sizeof v);
  return in.gcount() == sizeof v ? v : -1;
}

int StartWith(const char* us, const std::string& device) {
  if (us != nullptr)
    ::setenv("SFL_MONITOR_CPU_LATENCY_US", us, 1);
  else
    ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::setenv("SFL_MONITOR_CPU_LATENCY_DEV", device.c_str(), 1);
  { std::ofstream touch(Device()); }
  const int pid = sfltest::StartService();
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_DEV");
  return pid;
}

TEST(ServiceCpuLatency, HeldWhileClientsAreAboutAndLetGoWhenIdle) {
  const int pid = StartWith("25", Device());
  ASSERT_GT(pid, 0);
  EXPECT_FALSE(HoldsOpen(pid, Device())) << "nobody has asked anything yet";
  EXPECT_EQ(StateLatency(), -1);

  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);  // records an interest
  EXPECT_TRUE(Eventually([&] { return HoldsOpen(pid, Device()); }, 5));
  EXPECT_EQ(DeviceValue(), 25);
  EXPECT_TRUE(Eventually([&] { return StateLatency() == 25; }, 5));

  sfl_CloseFile(base);  // withdraws it; the container goes
  sfltest::CloseColdFiles();
  EXPECT_TRUE(Eventually([&] { return !HoldsOpen(pid, Device()); }, 10));
  EXPECT_TRUE(Eventually([&] { return StateLatency() == -1; }, 5));

  // A new client takes it again.
  const int32_t again = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  EXPECT_TRUE(Eventually([&] { return HoldsOpen(pid, Device()); }, 5));
  sfl_CloseFile(again);
}

// A service that a client starts on demand runs with a minimal environment;
// it still takes the starter's setting and device.
TEST(ServiceCpuLatency, AServiceStartedOnDemandTakesTheStartersSetting) {
  ml_State st;
  ASSERT_FALSE(ml_ReadState(RunDir(), &st) && ml_ServiceAlive(RunDir(), st)) << "no service yet";
  ::setenv("SFL_MONITOR_CPU_LATENCY_US", "25", 1);
  ::setenv("SFL_MONITOR_CPU_LATENCY_DEV", Device().c_str(), 1);
  { std::ofstream touch(Device()); }
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);  // starts it, records an interest
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_DEV");
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int pid = st.MainPid;
  ASSERT_NE(pid, getpid());
  EXPECT_TRUE(Eventually([&] { return HoldsOpen(pid, Device()); }, 5));
  EXPECT_EQ(DeviceValue(), 25);
  EXPECT_TRUE(Eventually([&] { return StateLatency() == 25; }, 5));
  sfl_CloseFile(base);
  sfltest::StopService();
}

// A client that comes while the request is down gets it with its first
// request, not at the next check: with the ticker stopped and a check just
// made (a tick of the test's own), nothing else would take it.
TEST(ServiceCpuLatency, TakenAtTheFirstRequestNotAtTheNextCheck) {
  const int pid = StartWith("25", Device());
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  // Held for a while after the start, then let go.
  EXPECT_TRUE(Eventually([&] { return StateLatency() == 25; }, 5));
  EXPECT_TRUE(Eventually([&] { return StateLatency() == -1 && !HoldsOpen(pid, Device()); }, 10));
  const std::vector<pid_t> children = sfltest::ChildrenOf(pid);
  ASSERT_EQ(1u, children.size());  // one pair: the ticker alone
  ASSERT_EQ(0, ::kill(children[0], SIGSTOP));
  EXPECT_TRUE(Eventually([&] { return sfltest::ProcessState(children[0]) == 'T'; }));
  uint8_t tick[4];
  le_PutU32(tick, ML_MSG_TICK);
  ASSERT_EQ(0, os_msgsnd(st.Context[0], tick, 0, 0));
  EXPECT_TRUE(Eventually([&] { return sfltest::QueueDepth(st.Context[0]) == 0; }));
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);  // records an interest
  EXPECT_TRUE(Eventually([&] { return HoldsOpen(pid, Device()); }, 2));
  EXPECT_EQ(DeviceValue(), 25);
  ::kill(children[0], SIGCONT);
  sfl_CloseFile(base);
}

// With several queue pairs only the main process, which serves pair 0,
// holds the request; a client whose requests go to another pair gets it at
// its first request all the same. As above, the ticker is stopped and a
// check just made, so only that request can take it.
TEST(ServiceCpuLatency, TakenAtOnceForARequestThatAnotherPairServes) {
  ::setenv("SFL_MONITOR_CPU_LATENCY_US", "25", 1);
  ::setenv("SFL_MONITOR_CPU_LATENCY_DEV", Device().c_str(), 1);
  { std::ofstream touch(Device()); }
  const int pid = sfltest::StartService({"--pairs", "2"});
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_DEV");
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  ASSERT_EQ(4u, st.Context.size());
  ASSERT_EQ(1u, st.Additional.size());
  EXPECT_TRUE(Eventually([&] { return StateLatency() == 25; }, 5));
  EXPECT_TRUE(Eventually([&] { return StateLatency() == -1 && !HoldsOpen(pid, Device()); }, 10));
  const std::vector<pid_t> children = sfltest::ChildrenOf(pid);
  ASSERT_EQ(2u, children.size());  // pair 1's process and the ticker
  const pid_t ticker = children[0] == st.Additional[0] ? children[1] : children[0];
  ASSERT_EQ(0, ::kill(ticker, SIGSTOP));
  EXPECT_TRUE(Eventually([&] { return sfltest::ProcessState(ticker) == 'T'; }));
  uint8_t tick[4];
  le_PutU32(tick, ML_MSG_TICK);
  ASSERT_EQ(0, os_msgsnd(st.Context[0], tick, 0, 0));
  EXPECT_TRUE(Eventually([&] { return sfltest::QueueDepth(st.Context[0]) == 0; }));

  // A check of some reference, on pair 1's queue.
  uint8_t check[4 + ML_CHECK_LEN] = {};
  le_PutU32(check, ML_MSG_CHECK);
  std::memset(check + 4, 0x3C, 16);
  le_PutU32(check + 4 + 16, static_cast<uint32_t>(getpid()));
  ASSERT_EQ(0, os_msgsnd(st.Context[2], check, ML_CHECK_LEN, 0));
  uint8_t reply[4 + 16];
  EXPECT_TRUE(Eventually([&] {
    return ::msgrcv(st.Context[3], reply, 16, getpid(), IPC_NOWAIT) >= 0;
  }, 5)) << "pair 1 answers";
  EXPECT_TRUE(Eventually([&] { return HoldsOpen(pid, Device()); }, 2));
  EXPECT_EQ(DeviceValue(), 25);
  ::kill(ticker, SIGCONT);
}

TEST(ServiceCpuLatency, NeverTakenWithoutTheSetting) {
  const int pid = StartWith(nullptr, Device());
  ASSERT_GT(pid, 0);
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  // Four checks of the service go by.
  ::usleep(1200 * 1000);
  EXPECT_FALSE(HoldsOpen(pid, Device()));
  EXPECT_EQ(DeviceValue(), -1) << "nothing written";
  EXPECT_EQ(StateLatency(), -1);
  sfl_CloseFile(base);
}

TEST(ServiceCpuLatency, ADeviceThatCannotBeOpenedLeavesTheServiceServing) {
  const int pid = StartWith("0", sfltest::TestDir() + "/no-such-dir/cpu_latency");
  ASSERT_GT(pid, 0);
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  ::usleep(1200 * 1000);
  EXPECT_EQ(StateLatency(), -1);
  // Still answering: a second container opens and closes.
  const int32_t other = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_CloseFile(other);
  sfl_CloseFile(base);
  EXPECT_EQ(::kill(pid, 0), 0);
}

// The request itself, without a service around it.
TEST(CpuLatencyRequest, OnlyAValidValueIsEverRequested) {
  { std::ofstream touch(Device()); }
  for (const char* bad : {"", "abc", "12x", "-1", "2000001"}) {
    ::setenv("SFL_MONITOR_CPU_LATENCY_US", bad, 1);
    ::setenv("SFL_MONITOR_CPU_LATENCY_DEV", Device().c_str(), 1);
    ml_Qos qos;
    EXPECT_FALSE(qos.TakeAtOnce()) << bad;
    EXPECT_FALSE(qos.Update(true)) << bad;
    EXPECT_EQ(qos.HeldUs(), -1) << bad;
  }
  ::setenv("SFL_MONITOR_CPU_LATENCY_US", "2000000", 1);
  ml_Qos qos;
  // A client's request takes it at once while it is wanted and not held.
  EXPECT_TRUE(qos.TakeAtOnce());
  EXPECT_TRUE(qos.Update(true));
  EXPECT_EQ(qos.HeldUs(), 2000000);
  EXPECT_EQ(DeviceValue(), 2000000);
  EXPECT_FALSE(qos.TakeAtOnce()) << "already held";
  EXPECT_FALSE(qos.Update(true)) << "already held";
  EXPECT_TRUE(qos.Update(false));
  EXPECT_EQ(qos.HeldUs(), -1);
  EXPECT_TRUE(qos.TakeAtOnce());
  EXPECT_FALSE(qos.Update(false));
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_DEV");
}

TEST(CpuLatencyRequest, ADeviceThatTakesNoValueHoldsNothing) {
  ::setenv("SFL_MONITOR_CPU_LATENCY_US", "5", 1);
  // /dev/full opens for writing and refuses every write.
  ::setenv("SFL_MONITOR_CPU_LATENCY_DEV", "/dev/full", 1);
  ml_Qos qos;
  EXPECT_TRUE(qos.TakeAtOnce());
  EXPECT_FALSE(qos.Update(true));
  // Once refused, a client's request no longer tries the device: only the
  // service's checks do, at its ticks.
  EXPECT_FALSE(qos.TakeAtOnce());
  EXPECT_FALSE(qos.Update(true));
  EXPECT_EQ(qos.HeldUs(), -1);
  EXPECT_FALSE(qos.TakeAtOnce());
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_DEV");
}

TEST(CpuLatencyRequest, ADeviceThatTakesTheValueAgainIsTakenAtOnceAgain) {
  // Not there yet (it is opened without creating it): refused.
  const std::string later = Device() + ".later";
  ::unlink(later.c_str());
  ::setenv("SFL_MONITOR_CPU_LATENCY_US", "7", 1);
  ::setenv("SFL_MONITOR_CPU_LATENCY_DEV", later.c_str(), 1);
  ml_Qos qos;
  EXPECT_FALSE(qos.Update(true));
  EXPECT_FALSE(qos.TakeAtOnce());
  // A check finds it there and holds the request; once let go, the next
  // client's request takes it at once again.
  { std::ofstream touch(later); }
  EXPECT_TRUE(qos.Update(true));
  EXPECT_EQ(qos.HeldUs(), 7);
  EXPECT_TRUE(qos.Update(false));
  EXPECT_TRUE(qos.TakeAtOnce());
  ::unlink(later.c_str());
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_US");
  ::unsetenv("SFL_MONITOR_CPU_LATENCY_DEV");
}

}  // namespace
