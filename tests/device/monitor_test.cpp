// The device monitor against software keys that appear, are unplugged,
// plugged back and deleted while it polls (every 20 ms here, through
// ZEPH_MONITOR_INTERVAL_MS; one test keeps the real 3 seconds).
#include "device/monitor.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "../integration/softkey_env.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What the callbacks saw, from the monitor thread.
struct Seen {
  std::mutex m;
  std::condition_variable cv;
  std::vector<std::string> lists, logs;
};
Seen g_seen;

void Record(const char *list) {
  std::lock_guard<std::mutex> lock(g_seen.m);
  g_seen.lists.emplace_back(list);
  g_seen.cv.notify_all();
}

void RecordLog(const char *record) {
  std::lock_guard<std::mutex> lock(g_seen.m);
  g_seen.logs.emplace_back(record);
}

class Monitor : public zeph_it::SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    setenv("ZEPH_MONITOR_INTERVAL_MS", "20", 1);
    std::lock_guard<std::mutex> lock(g_seen.m);
    g_seen.lists.clear();
    g_seen.logs.clear();
  }
  void TearDown() override {
    stopCryptoDeviceMonitor();
    WaitEnded();
    setLogCallback(nullptr);
    unsetenv("ZEPH_MONITOR_INTERVAL_MS");
    SoftkeyTest::TearDown();
  }

  static void WaitEnded() {
    const auto limit = Clock::now() + 10s;
    while (zeph::device::MonitorThreadsAlive() != 0 && Clock::now() < limit) std::this_thread::sleep_for(5ms);
    ASSERT_EQ(zeph::device::MonitorThreadsAlive(), 0u);
  }
  // The n-th report (1-based), waiting for it as long as `limit`.
  static std::string Report(size_t n, std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> lock(g_seen.m);
    g_seen.cv.wait_for(lock, limit, [&] { return g_seen.lists.size() >= n; });
    return g_seen.lists.size() >= n ? g_seen.lists[n - 1] : "(no report " + std::to_string(n) + ")";
  }
  static size_t Reports() {
    std::lock_guard<std::mutex> lock(g_seen.m);
    return g_seen.lists.size();
  }
  // The report after a change, counted in *n: a poll that straddles the
  // change may see it under some vendors only and report that list first.
  static std::string Settled(size_t *n, const std::function<bool(const std::string &)> &done) {
    std::string list = Report(++*n);
    for (int more = 0; more < 2 && !done(list); ++more) list = Report(++*n);
    return list;
  }
  // A few polls go by.
  static void Quiet() { std::this_thread::sleep_for(150ms); }
};

// How many vendors list the key: three (ZA, ZT, ZN) once a change settled.
size_t Listed(const std::string &list, const std::string &serial) {
  size_t count = 0;
  for (size_t at = list.find("_" + serial + "\""); at != list.npos; at = list.find("_" + serial + "\"", at + 1))
    ++count;
  return count;
}
bool Lists(const std::string &list, const std::string &serial) { return Listed(list, serial) != 0; }

TEST_F(Monitor, ReportsEveryChangeOnceAcrossARestart) {
  CreateDevice("MONA");
  ASSERT_EQ(startCryptoDeviceMonitor(Record), 0u);
  EXPECT_EQ(startCryptoDeviceMonitor(Record), 1u) << "a second start starts nothing";
  EXPECT_TRUE(Lists(Report(1), "MONA"));

  // Each step changes the list: reported, then not again without a change.
  const struct {
    const char *tool;
    size_t a, b;  // vendors listing MONA, MONB after it
  } steps[] = {
      {"create-device --serial MONB", 3, 3}, {"unplug --serial MONA", 0, 3},        {"plug --serial MONA", 3, 3},
      {"delete-device --serial MONA", 0, 3}, {"delete-device --serial MONB", 0, 0},
  };
  size_t n = 1;
  for (const auto &step : steps) {
    SCOPED_TRACE(step.tool);
    Tool(step.tool);
    const auto shows = [&](const std::string &l) { return Listed(l, "MONA") == step.a && Listed(l, "MONB") == step.b; };
    const std::string list = Settled(&n, shows);
    EXPECT_TRUE(shows(list)) << list;
    Quiet();
    EXPECT_EQ(Reports(), n) << "reported again without a change";
  }
  EXPECT_EQ(Report(n), "[]") << "the last key pulled";

  // The digest outlives a restart: the same list is not reported again.
  CreateDevice("MONC");
  ASSERT_EQ(Listed(Settled(&n, [](const std::string &l) { return Listed(l, "MONC") == 3; }), "MONC"), 3u);
  stopCryptoDeviceMonitor();
  WaitEnded();
  ASSERT_EQ(startCryptoDeviceMonitor(Record), 0u);
  Quiet();
  EXPECT_EQ(Reports(), n);
  CreateDevice("MOND");
  EXPECT_TRUE(Lists(Report(n + 1), "MOND"));
}

TEST_F(Monitor, StopThenStartAtOnceLeavesTwoThreads) {
  setenv("ZEPH_MONITOR_INTERVAL_MS", "500", 1);
  CreateDevice("MONE");
  ASSERT_EQ(startCryptoDeviceMonitor(Record), 0u);
  ASSERT_TRUE(Lists(Report(1), "MONE"));
  stopCryptoDeviceMonitor();
  // The first thread sleeps through the stop and sees the flag set again.
  EXPECT_EQ(startCryptoDeviceMonitor(Record), 0u);
  EXPECT_EQ(zeph::device::MonitorThreadsAlive(), 2u);
  stopCryptoDeviceMonitor();
  WaitEnded();
}

TEST_F(Monitor, NullCallbackEndsAtOnceAndClearsTheFlag) {
  setLogCallback(RecordLog);
  ASSERT_EQ(startCryptoDeviceMonitor(nullptr), 0u);
  WaitEnded();
  EXPECT_EQ(zeph::device::is_vorli_ukey_listener_launched.load(), 0u);
  ASSERT_EQ(startCryptoDeviceMonitor(Record), 0u) << "the flag was cleared";
  Report(1);
  stopCryptoDeviceMonitor();
  WaitEnded();
  std::lock_guard<std::mutex> lock(g_seen.m);
  const auto has = [](const std::string &text) {
    return std::any_of(g_seen.logs.begin(), g_seen.logs.end(),
                       [&](const std::string &r) { return r.find(text) != std::string::npos; });
  };
  EXPECT_TRUE(has("msg:'cb is null.',res:0}"));
  EXPECT_TRUE(has("msg:'myCallbak is running.',res:" + std::to_string(reinterpret_cast<uintptr_t>(&Record))));
}

// The real poll: a change is reported within one interval, once, and
// nothing comes after a stop.
TEST_F(Monitor, RealIntervalOneChange) {
  unsetenv("ZEPH_MONITOR_INTERVAL_MS");
  CreateDevice("MONF");
  ASSERT_EQ(startCryptoDeviceMonitor(Record), 0u);
  ASSERT_TRUE(Lists(Report(1), "MONF"));
  CreateDevice("MONG");
  const auto changed = Clock::now();
  EXPECT_TRUE(Lists(Report(2, 8s), "MONG"));
  // One interval, and room for one listing on a busy machine.
  EXPECT_LE(Clock::now() - changed, 3s + 1500ms);
  stopCryptoDeviceMonitor();
  Tool("delete-device --serial MONG");
  WaitEnded();
  EXPECT_EQ(Reports(), 2u);
}

}  // namespace
