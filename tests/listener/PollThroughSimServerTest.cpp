// The poll thread as it runs in the library, asking a simulated ADB server through the real ADB
// service library: states over time, and a server that dies and comes back.
#include <gtest/gtest.h>

#include <cstdlib>

#include "AndListenerEx.h"
#include "ListenerTestSupport.h"
#include "SimAdbServer.h"
#include "Tarnwell.h"

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

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

TEST_F(PollThroughServer, AServerThatFailsWithNothingElseChangingIsReportedOnceAsASnapshot) {
  watcher_.Plug(UsbDevice("USBONLY", 1256, 1));
  AndListenerEx listener(reports::Collect, {&watcher_, 50ms});
  ASSERT_EQ(0, listener.StartListen());
  EXPECT_EQ((Strings{"usbonly:NotConnect->MtpConnect"}), Next());
  server_.React("host:devices", sim_adb::Reaction::Fail("internal error"));
  EXPECT_EQ((Strings{"usbonly:MtpConnect->MtpConnect"}), Next());
  EXPECT_EQ(TARNWELL_ERR_SERVER_FAIL, CodeOfLastReport());
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(2u, reports::All().size()) << "the same failure is not reported again";
}

}  // namespace
