// The poll thread: its reports over time, starts and stops, and the USB table written by
// another thread while it reads.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "AndListenerEx.h"
#include "FakeTarnwell.h"
#include "ListenerTestSupport.h"
#include "LogCapture.h"
#include "LoadConfig.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
constexpr auto kWait = 5s;

// What the fake ADB library lists, changed by the test while the thread polls.
class AdbList {
 public:
  AdbList() {
    fake_adb::Script script;
    script.devices = [this](std::string* list) {
      std::lock_guard<std::mutex> lock(mutex_);
      *list = text_;
      return code_;
    };
    fake_adb::SetScript(script);
  }
  void Set(const std::string& text, int code = 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    text_ = text;
    code_ = code;
  }

 private:
  std::mutex mutex_;
  std::string text_;
  int code_ = 0;
};

class PollThread : public ::testing::Test {
 protected:
  void SetUp() override {
    LoadTestConfiguration();
    fake_adb::Reset();
    log_capture::Clear();
    reports::Clear();
  }
  // Waits for the next report and gives its transitions.
  Strings Next() {
    const size_t seen = seen_++;
    if (!reports::WaitFor(seen + 1, kWait)) return {"no report"};
    return Transitions(reports::All()[seen]);
  }
  bool WaitForLine(const std::string& text, int count) {
    for (auto until = std::chrono::steady_clock::now() + kWait; std::chrono::steady_clock::now() < until;) {
      if (log_capture::CountContaining(text) >= count) return true;
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }

  TableWatcher watcher_;
  size_t seen_ = 0;
};

TEST_F(PollThread, AFailingServerIsReportedWithItsCodeThenTheRecovery) {
  AdbList adb;
  adb.Set("P1-device;");
  watcher_.Plug(UsbDevice("P1", 1256, 2));
  AndListenerEx listener(reports::Collect, {&watcher_, 20ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"p1:NotConnect->AuthoredConnect"}), Next());
  adb.Set("", 103);
  EXPECT_EQ((Strings{"p1:AuthoredConnect->MtpConnect"}), Next());
  EXPECT_EQ(103, ParseJson(reports::All().back())["changed"][0]["adb_error_code"].asInt());
  EXPECT_TRUE(WaitForLine("[ListenThread] fail to GetDevicesAuthorStatus(), error 103!", 2))
      << "logged on every failing poll";
  adb.Set("P1-device;");
  EXPECT_EQ((Strings{"p1:MtpConnect->AuthoredConnect"}), Next());
}

TEST_F(PollThread, TheUsbTableCanChangeWhileThePollThreadReadsIt) {
  AdbList adb;
  AndListenerEx listener(reports::Collect, {&watcher_, 1ms});
  ASSERT_EQ(0, listener.StartListen());
  for (int i = 0; i < 200; ++i) {
    watcher_.Plug(UsbDevice("U" + std::to_string(i % 7), 1256, 1));
    watcher_.Unplug("u" + std::to_string((i + 3) % 7));
  }
  watcher_.Plug(UsbDevice("LAST", 1256, 1));
  ASSERT_TRUE(WaitForLine("\"last\"", 1));
}

TEST_F(PollThread, StopEndsTheThreadAndANewStartReportsEveryDeviceAgain) {
  AdbList adb;
  adb.Set("A-device;B-unauthorized;");
  AndListenerEx listener(reports::Collect, {&watcher_, 20ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"a:NotConnect->AuthoredConnect", "b:NotConnect->UnauthoredConnect"}), Next());
  listener.StopListen();
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));

  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"a:NotConnect->AuthoredConnect", "b:NotConnect->UnauthoredConnect"}), Next());
  EXPECT_EQ(2, log_capture::CountContaining("Enter ListenThread"));
  EXPECT_EQ(2, watcher_.starts) << "every start asks the watcher to start";
}

TEST_F(PollThread, AStartWhileAThreadRunsKeepsOneThreadAndLosesNoReport) {
  AdbList adb;
  adb.Set("A-device;");
  AndListenerEx listener(reports::Collect, {&watcher_, 300ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"a:NotConnect->AuthoredConnect"}), Next());

  // A second start, then a stop and a start within the pause: the same thread goes on, and
  // each start is answered by a fresh report of every device.
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"a:NotConnect->AuthoredConnect"}), Next());
  listener.StopListen();
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"a:NotConnect->AuthoredConnect"}), Next());
  EXPECT_EQ(1, log_capture::CountContaining("Enter ListenThread"));
  EXPECT_EQ(0, log_capture::CountContaining("Exit ListenThread"));
}

TEST_F(PollThread, AStopDuringAPollLetsThatPollFinishItsReport) {
  std::mutex gate;
  gate.lock();
  fake_adb::Script script;
  script.devices = [](std::string* list) { *list = "SLOW-device;"; return 0; };
  script.property = [&gate](const std::string&, const std::string&, std::string* value) {
    std::lock_guard<std::mutex> held(gate);  // the poll waits here until the test lets it go
    *value = "x";
    return 0;
  };
  fake_adb::SetScript(script);
  AndListenerEx listener(reports::Collect, {&watcher_, 20ms});
  ASSERT_EQ(0, listener.StartListen());
  std::this_thread::sleep_for(50ms);
  listener.StopListen();
  gate.unlock();
  EXPECT_EQ((Strings{"slow:NotConnect->AuthoredConnect"}), Next());
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));
  EXPECT_EQ(1u, reports::All().size());
}

TEST_F(PollThread, ReloadingTheFilterListsWhileReportsAreWrittenKeepsEveryReportWhole) {
  AdbList adb;
  watcher_.Plug(UsbDevice("W1", 1256, 26720));
  AndListenerEx listener(reports::Collect, {&watcher_, 1ms});
  ASSERT_EQ(0, listener.StartListen());

  // The poll thread reads the vendor names and the white list for every report while the host
  // thread loads more vendors, as a second InitPelmora would.
  const auto dir = std::filesystem::temp_directory_path() / ("pelmora-reload-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  for (int i = 0; i < 100; ++i) {
    adb.Set(i % 2 == 0 ? "W1-device;" : "W1-unauthorized;");
    std::ofstream(dir / "AndroidVID.ini") << "Vendor" << i << "=" << 20000 + i << "\n";
    std::ofstream(dir / "AndroidPIDWhite.ini") << 20000 + i << "=1\n";
    ASSERT_EQ(0, LoadVIDConfig(dir.c_str()));
  }
  std::filesystem::remove_all(dir);
  listener.StopListen();
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));

  const Strings all = reports::All();
  ASSERT_GE(all.size(), 2u);
  for (const std::string& report : all) {
    const Json::Value entry = ParseJson(report)["changed"][0];
    ASSERT_EQ("w1", entry["key_serial"].asString()) << report;
    EXPECT_EQ("Samsung", entry["vid_manufacturer"].asString());
  }
  EXPECT_TRUE(IsDeviceOnWhitePidList(20099, 1));
}

}  // namespace
