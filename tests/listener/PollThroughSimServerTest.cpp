// The poll thread as it runs in the library, asking through the real ADB service library: a
// simulated ADB server for every state and serial adb may show, and Debian's adb with simulated
// phones for emulators and a phone that hangs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "AndListenerEx.h"
#include "ListenerTestSupport.h"
#include "PrivateAdbServer.h"
#include "SimAdbServer.h"
#include "SimPhone.h"
#include "Tarnwell.h"

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

// The first entry of any report so far that moves key to new_status; null when none comes in time.
Json::Value WaitForEntry(const std::string& key, const std::string& new_status,
                         std::chrono::milliseconds timeout) {
  for (const auto until = Clock::now() + timeout;; std::this_thread::sleep_for(10ms)) {
    for (const std::string& report : reports::All()) {
      const Json::Value parsed = ParseJson(report);
      for (const Json::Value& entry : parsed["changed"]) {
        if (entry["key_serial"] == key && entry["new_status"] == new_status) return entry;
      }
    }
    if (Clock::now() > until) return Json::Value();
  }
}

class PollThroughServer : public ::testing::Test {
 protected:
  void SetUp() override {
    LoadTestConfiguration();
    reports::Clear();
    ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server_.port()).c_str(), 1);
  }
  Strings Next() {
    const size_t seen = seen_++;
    if (!reports::WaitFor(seen + 1, 10s)) return {"no report"};
    return Transitions(reports::All()[seen]);
  }
  int CodeOfLastReport() {
    return ParseJson(reports::All().back())["changed"][0]["adb_error_code"].asInt();
  }
  void Phone(const std::string& state) {
    server_.SetDevices({{"SIMPHONE01", state,
                         {{"ro.build.version.release", "14"},
                          {"ro.product.manufacturer", "Acme"},
                          {"ro.product.model", "Phone X"}}}});
  }

  sim_adb::SimAdbServer server_;
  TableWatcher watcher_;
  size_t seen_ = 0;
};

TEST_F(PollThroughServer, APhoneGoingThroughItsStatesIsReportedOnceForEachInOrder) {
  Phone("unauthorized");
  AndListenerEx listener(reports::Collect, {&watcher_, 50ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"simphone01:NotConnect->UnauthoredConnect"}), Next());
  Phone("device");
  EXPECT_EQ((Strings{"simphone01:UnauthoredConnect->AuthoredConnect"}), Next());
  const Json::Value authorised = ParseJson(reports::All().back())["changed"][0];
  EXPECT_EQ("Acme", authorised["manufacturer"].asString());
  EXPECT_EQ("Phone X", authorised["model"].asString());
  EXPECT_EQ("14", authorised["os_version"].asString());
  Phone("offline");
  EXPECT_EQ((Strings{"simphone01:AuthoredConnect->OfflineConnect"}), Next());
  server_.SetDevices({});
  EXPECT_EQ((Strings{"simphone01:OfflineConnect->NotConnect"}), Next());
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(4u, reports::All().size()) << "each state is reported once";
}

TEST_F(PollThroughServer, AKilledServerIsReportedWithItsCodeAndTheRecoveryFollows) {
  Phone("device");
  watcher_.Plug(UsbDevice("SimPhone01", 6353, 20199, "Acme", "Phone X"));
  AndListenerEx listener(reports::Collect, {&watcher_, 50ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"simphone01:NotConnect->AuthoredConnect"}), Next());

  server_.Stop();
  EXPECT_EQ((Strings{"simphone01:AuthoredConnect->MtpConnect"}), Next());
  EXPECT_EQ(TARNWELL_ERR_NO_SERVER, CodeOfLastReport());

  ASSERT_TRUE(server_.Restart());
  EXPECT_EQ((Strings{"simphone01:MtpConnect->AuthoredConnect"}), Next());
  EXPECT_EQ(0, CodeOfLastReport());
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(3u, reports::All().size());
}

TEST_F(PollThroughServer, EveryAdbStateMeansWhatItSaysAndSerialsStayWhole) {
  const std::string wireless = "adb-R58M30ABCDE-AbC123._adb-tls-connect._tcp";
  const std::map<std::string, std::string> model = {{"ro.product.model", "Phone X"}};
  std::vector<sim_adb::Device> devices = {
      {wireless, "device", model}, {"build-host.lan:5555", "device", model},
      {"odd;serial", "unauthorized", {}}, {"off-1", "offline", {}},
      {"np-1", "no permissions (user in plugdev group; are your udev rules wrong?); see [x]", {}},
      {"boot-1", "bootloader", {}}, {"rec-1", "recovery", {}}, {"side-1", "sideload", {}},
      {"resc-1", "rescue", {}}, {"host-1", "host", {}}, {"det-1", "detached", {}},
      {"conn-1", "connecting", {}}, {"auth-1", "authorizing", model}};
  server_.SetDevices(devices);
  AndListenerEx listener(reports::Collect, {&watcher_, 50ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"adb-r58m30abcde-abc123._adb-tls-connect._tcp:NotConnect->AuthoredConnect",
                     "boot-1:NotConnect->AdbConnect", "build-host.lan:5555:NotConnect->AuthoredConnect",
                     "det-1:NotConnect->AdbConnect", "host-1:NotConnect->AdbConnect",
                     "np-1:NotConnect->AdbConnect", "odd,serial:NotConnect->UnauthoredConnect",
                     "off-1:NotConnect->OfflineConnect", "rec-1:NotConnect->AdbConnect",
                     "resc-1:NotConnect->AdbConnect", "side-1:NotConnect->AdbConnect"}),
            Next());
  const Json::Value first = ParseJson(reports::All().back())["changed"];
  EXPECT_EQ(wireless, first[0]["actual_serial"].asString());
  EXPECT_EQ("Phone X", first[0]["model"].asString());
  EXPECT_EQ("Phone X", first[2]["model"].asString());
  for (const char* unusable : {"np-1", "boot-1", "rec-1", "side-1", "resc-1", "host-1", "det-1"}) {
    EXPECT_EQ(0, server_.RequestCount(std::string("host:transport:") + unusable)) << unusable;
  }

  // Once ADB has settled, the phone arrives as authorised with its details in the same report.
  devices.back().state = "device";
  server_.SetDevices(devices);
  EXPECT_EQ((Strings{"auth-1:NotConnect->AuthoredConnect"}), Next());
  EXPECT_EQ("Phone X", ParseJson(reports::All().back())["changed"][0]["model"].asString());
}

// Phones behind Debian's adb server.
class PollThroughRealAdb : public ::testing::Test {
 protected:
  void SetUp() override {
    if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
    LoadTestConfiguration();
    reports::Clear();
  }
  static std::unique_ptr<sim_phone::SimPhone> Phone(const std::string& model, std::uint16_t port = 0,
                                                    bool shell_answers = true) {
    sim_phone::PhoneConfig config;
    config.model = model;
    config.port = port;
    config.shell_answers = shell_answers;
    try {
      return std::make_unique<sim_phone::SimPhone>(config);
    } catch (const std::exception&) {
      return nullptr;
    }
  }
  TableWatcher watcher_;
};

TEST_F(PollThroughRealAdb, TwoEmulatorsKeepTheirWholeSerialsAndLeaveOneAtATime) {
  // adb looks for emulators' daemons on 5555, 5557, ... when its server starts.
  auto first = Phone("Emu A", 5555);
  auto second = Phone("Emu B", 5557);
  if (!first || !second) GTEST_SKIP() << "the emulator ports 5555 and 5557 are taken";
  sim_phone::PrivateAdbServer server(true);
  server.ApplyToThisProcess();
  std::string why;
  ASSERT_TRUE(server.Start(&why)) << why;
  AndListenerEx listener(reports::Collect, {&watcher_, 50ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ("Emu A", WaitForEntry("emulator-5554", "AuthoredConnect", 10s)["model"].asString());
  const Json::Value b = WaitForEntry("emulator-5556", "AuthoredConnect", 10s);
  EXPECT_EQ("Emu B", b["model"].asString());
  EXPECT_EQ("emulator-5556", b["actual_serial"].asString());

  // adb shows a daemon that went away as offline before it drops it; either way it goes alone.
  const size_t before = reports::All().size();
  second->Leave();
  ASSERT_FALSE(WaitForEntry("emulator-5556", "NotConnect", 10s).isNull());
  const Strings all = reports::All();
  for (size_t i = before; i < all.size(); ++i) {
    for (const std::string& move : Transitions(all[i])) EXPECT_EQ(0u, move.find("emulator-5556:")) << move;
  }
}

TEST_F(PollThroughRealAdb, AHungPhoneDelaysNeitherOtherPhonesNorTheStop) {
  sim_phone::PrivateAdbServer server;
  server.ApplyToThisProcess();
  std::string why;
  ASSERT_TRUE(server.Start(&why)) << why;
  auto hung = Phone("Hung", 0, false);
  ASSERT_TRUE(hung && server.Connect(hung->port()));
  auto listener = std::make_unique<AndListenerEx>(reports::Collect, ListenerWiring{&watcher_});

  // Polls by hand: the first pays the property bound once, the next ones only the retry pauses.
  const UsbTable usb;
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_code = 0;
  for (int poll = 0; poll < 3; ++poll) {
    const auto start = Clock::now();
    AdbTable adb;
    const int code = GetDevicesAuthorStatusEx(adb);
    listener->DealListenInfo(&usb, code == 0 ? &adb : nullptr, &previous, code, &last_code);
    EXPECT_TRUE(poll == 0 || Clock::now() - start < 1500ms) << "poll " << poll;
  }
  ASSERT_FALSE(WaitForEntry(hung->serial(), "AuthoredConnect", 0ms).isNull());

  // The poll thread, with the library's own pause: another phone is reported promptly.
  ASSERT_EQ(0, listener->StartListen());
  auto other = Phone("Other");
  ASSERT_TRUE(other && server.Connect(other->port()));
  EXPECT_EQ("Other", WaitForEntry(other->serial(), "AuthoredConnect", 2s)["model"].asString());

  const auto stop = Clock::now();
  listener->StopListen();
  const size_t at_stop = reports::All().size();
  listener.reset();  // waits for the poll thread to end
  EXPECT_LT(Clock::now() - stop, 2500ms);
  EXPECT_LE(reports::All().size(), at_stop + 1);
}

}  // namespace
