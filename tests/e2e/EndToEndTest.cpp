// The library as a host uses it: loaded with dlopen, initialised with a configuration folder,
// the ADB server started, phones simulated behind Debian's real adb server on a private port.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "HostHarness.h"
#include "PrivateAdbServer.h"
#include "SimPhone.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// Waits for an entry about this serial with this new status; its copy, or null on time-out.
Json::Value WaitForEntry(const std::string& actual_serial, const std::string& new_status) {
  return host_reports::WaitFor([&](const Json::Value& entry) {
    return entry["actual_serial"].asString() == actual_serial &&
           entry["new_status"].asString() == new_status;
  });
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class EndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(api_.Load()) << dlerror();
    root_ = fs::temp_directory_path() / ("pelmora-e2e-" + std::to_string(::getpid()));
    fs::create_directories(root_ / "config");
    fs::create_directories(root_ / "resources");
    std::ofstream(root_ / "config" / "AndroidVID.ini") << "; vendors\nGoogle=6353\nAcme=4660\n";
    std::ofstream(root_ / "config" / "AndroidPIDBlack.ini") << "";
    std::ofstream(root_ / "config" / "AndroidPIDWhite.ini") << "";
    std::ofstream(root_ / "config" / "iManufactureAndiProduct.ini") << "Acme=Phone X\n";
    server_.ApplyToThisProcess();
  }
  void TearDown() override {
    if (api_.stop) api_.stop();
    // Let the poll thread end before the process does, as a host that unloads would.
    if (listening_) {
      const auto until = std::chrono::steady_clock::now() + 5s;
      while (ReadFile(root_ / "logs" / "Pelmora.log").find("Exit ListenThread") == std::string::npos &&
             std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(20ms);
      }
    }
    fs::remove_all(root_);
  }
  std::string Dir(const char* name) const { return (root_ / name).string(); }

  PelmoraApi api_;
  bool listening_ = false;
  fs::path root_;
  sim_phone::PrivateAdbServer server_;
};

TEST_F(EndToEnd, MissingFoldersAreRefusedWithoutALogFile) {
  const std::string config = Dir("config"), logs = Dir("logs");
  EXPECT_EQ(PELMORA_ERR_ARGUMENT, api_.init(config.c_str(), "", logs.c_str()));
  EXPECT_EQ(PELMORA_ERR_ARGUMENT, api_.init(nullptr, "/r", logs.c_str()));
  EXPECT_EQ(PELMORA_ERR_ARGUMENT, api_.init(config.c_str(), "/r", nullptr));
  EXPECT_FALSE(fs::exists(root_ / "logs"));
}

TEST_F(EndToEnd, AFailedAdbInitialisationIsLoggedButDoesNotFailTheInitialisation) {
  const std::string config = Dir("config"), logs = Dir("logs") + "/";
  EXPECT_EQ(0, api_.init(config.c_str(), "/no/such/resource/folder", logs.c_str()));
  const std::string log = ReadFile(root_ / "logs" / "Pelmora.log");
  EXPECT_NE(std::string::npos, log.find("[L3] [Pelmora] Fail to init adb sdk, error ")) << log;
  EXPECT_NE(std::string::npos, log.find("[L1] [Pelmora] Pelmora verion 2.0.125-D-e04cbdc")) << log;
}

TEST_F(EndToEnd, PhonesBehindTheRealAdbServerArriveWithTheirStatesAndLeave) {
  const std::string config = Dir("config"), resources = Dir("resources"), logs = Dir("logs");
  ASSERT_EQ(0, api_.init(config.c_str(), resources.c_str(), logs.c_str()));
  ASSERT_EQ(0, api_.start_adb(false)) << "starts the private server on its port";

  sim_phone::PhoneConfig authorised;
  authorised.manufacturer = "Acme";
  authorised.model = "Phone X";
  authorised.android_version = "14";
  sim_phone::SimPhone phone(authorised);
  sim_phone::PhoneConfig locked;
  locked.authorized = false;
  sim_phone::SimPhone stranger(locked);
  ASSERT_TRUE(server_.Connect(phone.port()));
  server_.Connect(stranger.port());  // adb reports an unauthorised phone as a failed connect

  ASSERT_EQ(0, api_.start(host_reports::Callback));
  listening_ = true;
  const Json::Value arrived = WaitForEntry(phone.serial(), "AuthoredConnect");
  ASSERT_FALSE(arrived.isNull()) << "the authorised phone was not reported";
  EXPECT_EQ("Acme", arrived["manufacturer"].asString());
  EXPECT_EQ("Phone X", arrived["model"].asString());
  EXPECT_EQ("14", arrived["os_version"].asString());
  EXPECT_EQ(0, arrived["adb_error_code"].asInt());
  EXPECT_FALSE(WaitForEntry(stranger.serial(), "UnauthoredConnect").isNull());

  phone.Leave();
  stranger.Leave();
  server_.Disconnect(phone.port());
  server_.Disconnect(stranger.port());
  EXPECT_FALSE(WaitForEntry(phone.serial(), "NotConnect").isNull());
  EXPECT_FALSE(WaitForEntry(stranger.serial(), "NotConnect").isNull());

  const std::string log = ReadFile(root_ / "logs" / "Pelmora.log");
  EXPECT_NE(std::string::npos, log.find("StartListenAndroidDevice Enter...")) << log;
  EXPECT_NE(std::string::npos, log.find("callback return 0")) << log;
}

}  // namespace
