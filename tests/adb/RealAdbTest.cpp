// The whole path: libTarnwell against Debian's real adb server, on a private port, with
// simulated phones attached through `adb connect`.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PrivateAdbServer.h"
#include "SimPhone.h"
#include "Tarnwell.h"

namespace {

using sim_phone::PhoneConfig;
using sim_phone::SimPhone;

std::string List() {
  char* list = nullptr;
  int count = 0;
  int result = AdbGetDevicesEx(&list, &count, 0);
  if (result != TARNWELL_OK) return "ERR " + std::to_string(result);
  std::string text = list == nullptr ? "" : list;
  AdbFreeResource(&list);
  return text;
}

// Polls the list until it holds (or, with listed false, lacks) entry, at most 5 s.
bool Listed(const std::string& entry, bool listed = true) {
  for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
       (List().find(entry) != std::string::npos) != listed;) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string Read(int (*query)(const char*, char*, int, int), const std::string& serial) {
  char buffer[100] = {};
  int result = query(serial.c_str(), buffer, sizeof buffer, 0);
  return result == TARNWELL_OK ? std::string(buffer) : "ERR " + std::to_string(result);
}

class RealAdbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
    server_.ApplyToThisProcess();
    std::string why;
    ASSERT_TRUE(server_.Start(&why)) << why;
  }
  sim_phone::PrivateAdbServer server_;
};

TEST_F(RealAdbTest, APhoneIsListedInEachStateAndAnswersOnlyWhenAuthorised) {
  PhoneConfig config;
  config.authorized = false;
  config.manufacturer = "Google";
  config.model = "Pixel 7";
  config.android_version = "14";
  SimPhone phone(config);
  server_.Connect(phone.port());
  const std::string failed = "ERR " + std::to_string(TARNWELL_ERR_SERVER_FAIL);
  ASSERT_TRUE(Listed(phone.serial() + "-unauthorized;")) << List();
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, phone.serial()), failed);

  phone.Authorize();
  ASSERT_TRUE(Listed(phone.serial() + "-device;")) << List();
  // Three callers at once, as the poll thread, the USB watcher and the host may be.
  std::vector<std::string> got(3);
  std::vector<std::thread> threads;
  threads.emplace_back([&] { got[0] = Read(AdbGetPhoneSoftVersion, phone.serial()); });
  threads.emplace_back([&] { got[1] = Read(AdbGetPhoneManufacturer, phone.serial()); });
  threads.emplace_back([&] { got[2] = Read(AdbGetPhoneProductModel, phone.serial()); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(got, (std::vector<std::string>{"14", "Google", "Pixel 7"}));

  // The link dropping when the shell opens reads "error: closed".
  phone.SetDropOnOpen(true);
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, phone.serial()), "error: closed");

  phone.Leave();
  server_.Disconnect(phone.port());
  EXPECT_TRUE(Listed(phone.serial(), false)) << List();
  EXPECT_EQ(Read(AdbGetPhoneProductModel, phone.serial()), failed);
}

TEST_F(RealAdbTest, BannerKindIsTheStateAndAdbsOwnShellReadsTheProperties) {
  PhoneConfig config;
  config.banner_kind = "recovery";
  config.extra_properties["ro.serialno"] = "SIM0001";
  SimPhone phone(config);
  std::string said;
  server_.Connect(phone.port(), &said);
  ASSERT_NE(said.find(phone.serial()), std::string::npos) << said;
  ASSERT_TRUE(Listed(phone.serial() + "-recovery;")) << List();
  // adb's own client speaks the framed shell (shell,v2) to a phone that offers it.
  auto run = server_.Adb({"-s", phone.serial(), "shell", "getprop", "ro.serialno"});
  EXPECT_EQ(run.exit_code, 0) << run.output;
  EXPECT_EQ(run.output, "SIM0001\n");
  ASSERT_FALSE(phone.OpenedServices().empty());
  EXPECT_EQ(phone.OpenedServices().back().rfind("shell,v2,", 0), 0u) << phone.OpenedServices().back();
}

}  // namespace
