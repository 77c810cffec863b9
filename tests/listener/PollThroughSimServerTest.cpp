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
using Clock = std::chrono::steady_clock;

class PollThroughServer : public ListenerTest {
 protected:
  void SetUp() override {
    ListenerTest::SetUp();
    ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server_.port()).c_str(), 1);
  }
  sim_adb::SimAdbServer server_;
};

TEST_F(PollThroughServer, AKilledServerIsReportedWithItsCodeAndTheRecoveryFollows) {
  server_.SetDevices({{"SIMPHONE01", "device", {}}});
  watcher_.Plug(UsbDevice("SimPhone01", 6353, 20199, "Acme", "Phone X"));
  AndListenerEx listener(reports::Collect, {&watcher_, 50ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"simphone01:NotConnect->AuthoredConnect"}), Next());
  server_.Stop();
  EXPECT_EQ((Strings{"simphone01:AuthoredConnect->MtpConnect#" + std::to_string(TARNWELL_ERR_NO_SERVER)}),
            Next());
  ASSERT_TRUE(server_.Restart());
  EXPECT_EQ((Strings{"simphone01:MtpConnect->AuthoredConnect"}), Next());
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
  EXPECT_EQ(wireless, LastEntry(0)["actual_serial"].asString());
  EXPECT_EQ("Phone X", LastEntry(0)["model"].asString());
  EXPECT_EQ("Phone X", LastEntry(2)["model"].asString());
  for (const char* unusable : {"np-1", "boot-1", "rec-1", "side-1", "resc-1", "host-1", "det-1"}) {
    EXPECT_EQ(0, server_.RequestCount(std::string("host:transport:") + unusable)) << unusable;
  }

  // Once ADB has settled, the phone arrives as authorised with its details in the same report.
  devices.back().state = "device";
  server_.SetDevices(devices);
  EXPECT_EQ((Strings{"auth-1:NotConnect->AuthoredConnect"}), Next());
  EXPECT_EQ("Phone X", LastEntry()["model"].asString());
  server_.SetDevices({devices.front()});
  EXPECT_EQ(11u, Next().size()) << "the others leave in one report";
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(3u, reports::All().size()) << "each state is reported once";
}

// Phones behind Debian's adb server.
class PollThroughRealAdb : public ListenerTest {
 protected:
  void SetUp() override {
    if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
    ListenerTest::SetUp();
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
  EXPECT_FALSE(WaitForEntry(other->serial(), "AuthoredConnect", 2s).isNull());
  // On a loaded machine its first reads may miss their bound; the model then follows later.
  EXPECT_FALSE(WaitForEntry(other->serial(), "AuthoredConnect", 8s, "Other").isNull());

  const auto stop = Clock::now();
  listener->StopListen();
  const size_t at_stop = reports::All().size();
  listener.reset();  // waits for the poll thread to end
  EXPECT_LT(Clock::now() - stop, 2500ms);
  EXPECT_LE(reports::All().size(), at_stop + 1);
}

}  // namespace
