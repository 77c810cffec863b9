// libTarnwell through its exported functions, against the simulated ADB server: the list text,
// the property reads, every error path, the time bounds, and concurrent callers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Quenwick.h"
#include "SimAdbServer.h"
#include "Tarnwell.h"
#include "TempDir.h"

namespace {

using sim_adb::Reaction;
using Clock = std::chrono::steady_clock;

class AdbClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server_.port()).c_str(), 1);
    log_path_ = dir_.path() + "/client.log";
    ASSERT_EQ(InitLogEx(dir_.path().c_str(), "Test", log_path_.c_str()), 0);
  }

  // The list text, or "ERR <code>".
  std::string List() {
    char* list = nullptr;
    int count = -1;
    int result = AdbGetDevicesEx(&list, &count, 0);
    if (result != TARNWELL_OK) return "ERR " + std::to_string(result);
    std::string text = list == nullptr ? "" : list;
    EXPECT_EQ(list == nullptr, count == 0);
    AdbFreeResource(&list);
    EXPECT_EQ(list, nullptr);
    return text;
  }

  std::string LogText() {
    std::ifstream in(log_path_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  int CountInLog(const std::string& part) {
    const std::string log = LogText();
    int count = 0;
    for (auto at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) ++count;
    return count;
  }

  TempDir dir_;
  std::string log_path_;
  sim_adb::SimAdbServer server_;
};

std::string Read(int (*query)(const char*, char*, int, int), const char* serial, int size = 100) {
  std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '#');
  int result = query(serial, buffer.data(), size, 0);
  if (result != TARNWELL_OK) return "ERR " + std::to_string(result);
  EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '#') << "wrote past size";
  return buffer.data();
}

TEST_F(AdbClientTest, ListTextForNoneOneAndManyDevices) {
  EXPECT_EQ(List(), "");
  server_.SetDevices({{"R58M123", "device", {}}});
  EXPECT_EQ(List(), "R58M123-device;");
  const std::string why = "(user in plugdev group; are your udev rules wrong?); "
                          "see [http://developer.android.com/tools/device.html]";
  server_.SetDevices({{"emulator-5554", "device", {}},
                      {"b;2", "unauthorized", {}},
                      {"127.0.0.1:40001", "offline", {}},
                      {"C3", "no permissions " + why, {}},
                      {"D4", "fast-boot;mode (a later adb)", {}}});
  // The state's word alone, without '-' or ';'; adb's explanation goes to the log once.
  for (int poll = 0; poll < 2; ++poll) {
    EXPECT_EQ(List(), "emulator-5554-device;b,2-unauthorized;127.0.0.1:40001-offline;"
                      "C3-no permissions;D4-fast_boot_mode;");
  }
  EXPECT_EQ(CountInLog("C3: no permissions " + why), 1) << LogText();
  EXPECT_EQ(CountInLog("D4: fast_boot_mode (a later adb)"), 1) << LogText();
  int count = 0;
  char* list = nullptr;
  ASSERT_EQ(AdbGetDevicesEx(&list, &count, 0), 0);
  EXPECT_EQ(count, 5);
  AdbFreeResource(&list);
  EXPECT_EQ(AdbFreeResource(nullptr), 0);
}

TEST_F(AdbClientTest, LongSerialAndLooseLineEndingsArePassedWhole) {
  std::string serial(259, 's');
  serial[0] = 'X';
  server_.SetDeviceListPayload(serial + "\tdevice\r\n\nZ9\trecovery");
  EXPECT_EQ(List(), serial + "-device;Z9-recovery;");
}

TEST_F(AdbClientTest, BrokenRepliesGiveTheirCodesAndLeaveTheListAlone) {
  struct Case {
    Reaction reaction;
    int code;
  };
  const Case cases[] = {
      {Reaction::Fail("insufficient permissions"), TARNWELL_ERR_SERVER_FAIL},
      {Reaction::Close(), TARNWELL_ERR_CLOSED},
      {Reaction::Raw("OKAY00"), TARNWELL_ERR_CLOSED},
      {Reaction::Raw("OKAY0020R58M\tdev"), TARNWELL_ERR_CLOSED},
      {Reaction::Raw("FAIL0030cut"), TARNWELL_ERR_CLOSED},
      {Reaction::Raw("OKEY0000"), TARNWELL_ERR_MALFORMED},
      {Reaction::Raw("OKAYzz10"), TARNWELL_ERR_MALFORMED},
      {Reaction::Raw("OKAY0009no-tab-x\n"), TARNWELL_ERR_MALFORMED},
  };
  for (const auto& c : cases) {
    server_.ClearReactions();
    server_.React("host:devices", c.reaction);
    char sentinel = 0;
    char* list = &sentinel;
    int count = 77;
    EXPECT_EQ(AdbGetDevicesEx(&list, &count, 0), c.code) << c.reaction.text;
    EXPECT_EQ(list, &sentinel);
    EXPECT_EQ(count, 77);
  }
  EXPECT_NE(LogText().find("insufficient permissions"), std::string::npos) << LogText();
}

TEST_F(AdbClientTest, SlowServerIsWaitedForSilentOneCostsOnlyTheTimeout) {
  server_.SetDevices({{"S1", "device", {}}});
  server_.React("host:devices", Reaction::Answer(300));
  EXPECT_EQ(List(), "S1-device;");

  server_.ClearReactions();
  server_.React("host:devices", Reaction::Silent());
  auto start = Clock::now();
  EXPECT_EQ(List(), "ERR " + std::to_string(TARNWELL_ERR_TIMEOUT));
  auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  EXPECT_GE(took, TARNWELL_REQUEST_TIMEOUT_MS - 50);
  EXPECT_LT(took, TARNWELL_REQUEST_TIMEOUT_MS + 1500);
}

TEST_F(AdbClientTest, StoppedServerIsNoServerAndARestartIsSeenAtOnce) {
  server_.SetDevices({{"S1", "device", {}}});
  server_.Stop();
  EXPECT_EQ(List(), "ERR " + std::to_string(TARNWELL_ERR_NO_SERVER));
  ASSERT_TRUE(server_.Restart());
  EXPECT_EQ(List(), "S1-device;");
}

TEST_F(AdbClientTest, PortComesFromTheEnvironmentOnEveryCall) {
  setenv("ANDROID_ADB_SERVER_PORT", "not-a-port", 1);
  EXPECT_EQ(List(), "ERR " + std::to_string(TARNWELL_ERR_BAD_PORT));
  setenv("ANDROID_ADB_SERVER_PORT", "70000", 1);
  EXPECT_EQ(List(), "ERR " + std::to_string(TARNWELL_ERR_BAD_PORT));
  setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server_.port()).c_str(), 1);
  EXPECT_EQ(List(), "");
  EXPECT_EQ(AdbGetDevicesEx(nullptr, nullptr, 0), TARNWELL_ERR_BAD_ARGUMENT);
}

class AdbPropertyTest : public AdbClientTest {
 protected:
  void SetUp() override {
    AdbClientTest::SetUp();
    server_.SetDevices({{"R58M", "device",
                         {{"ro.build.version.release", "13"},
                          {"ro.product.manufacturer", "samsung\r"},
                          {"ro.product.model", "SM-G991B"}}},
                        {"LOCKED", "unauthorized", {}},
                        {"GONE", "offline", {}}});
  }
};

TEST_F(AdbPropertyTest, ReadsTheThreePropertiesWithoutLineBreaks) {
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M"), "13");
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, "R58M"), "samsung");
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M"), "SM-G991B");
  auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 6u);
  EXPECT_EQ(requests[0], "host:transport:R58M");
  EXPECT_EQ(requests[1], "shell:getprop ro.build.version.release");
  EXPECT_EQ(requests[3], "shell:getprop ro.product.manufacturer");
  EXPECT_EQ(requests[5], "shell:getprop ro.product.model");
}

TEST_F(AdbPropertyTest, LongValueIsCutToTheBuffer) {
  std::string model(300, 'm');
  server_.SetDevices({{"R58M", "device", {{"ro.product.model", model}}}});
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M", 100), model.substr(0, 99));
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M", 1), "");
  // An unset property prints an empty line: an empty text, not a failure.
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M"), "");
}

TEST_F(AdbPropertyTest, DeviceThatIsNotReadyIsAServerFailureWithItsMessageLogged) {
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, "LOCKED"), "ERR " + std::to_string(TARNWELL_ERR_SERVER_FAIL));
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, "GONE"), "ERR " + std::to_string(TARNWELL_ERR_SERVER_FAIL));
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, "NOPE"), "ERR " + std::to_string(TARNWELL_ERR_SERVER_FAIL));
  std::string log = LogText();
  EXPECT_NE(log.find("[Tarnwell]"), std::string::npos) << log;
  EXPECT_NE(log.find("device unauthorized."), std::string::npos) << log;
  EXPECT_NE(log.find("device offline"), std::string::npos) << log;
  EXPECT_NE(log.find("device 'NOPE' not found"), std::string::npos) << log;
}

TEST_F(AdbPropertyTest, LinkClosingBeforeTheShellAnswersReadsErrorClosed) {
  server_.React("shell:", Reaction::Close());
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M"), "error: closed");
  server_.ClearReactions();
  server_.React("shell:", Reaction::Fail("closed"));
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M"), "error: closed");
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M", 6), "error");
  // Any other FAIL of the shell is a failure, not a text.
  server_.ClearReactions();
  server_.React("shell:", Reaction::Fail("closed for good"));
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M"), "ERR " + std::to_string(TARNWELL_ERR_SERVER_FAIL));
}

TEST_F(AdbPropertyTest, PhoneThatNeverAnswersOrIsUnknownIsNotAskedAgainDuringItsCoolDown) {
  const std::string timeout = "ERR " + std::to_string(TARNWELL_ERR_TIMEOUT);
  const std::string fail = "ERR " + std::to_string(TARNWELL_ERR_SERVER_FAIL);
  server_.React("shell:", Reaction::Silent());
  auto start = Clock::now();
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M"), timeout);
  auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  EXPECT_GE(took, TARNWELL_PROPERTY_TIMEOUT_MS - 50);
  EXPECT_LT(took, TARNWELL_PROPERTY_TIMEOUT_MS + 500);
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "NOPE"), fail);

  const std::size_t requests = server_.Requests().size();
  for (auto read : {AdbGetPhoneSoftVersion, AdbGetPhoneManufacturer, AdbGetPhoneProductModel}) {
    EXPECT_EQ(Read(read, "R58M"), timeout);
    EXPECT_EQ(Read(read, "NOPE"), fail);
  }
  EXPECT_EQ(server_.Requests().size(), requests) << "answered from memory";
  // A device that says why it cannot answer now is asked every time.
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, "LOCKED"), fail);
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, "LOCKED"), fail);
  EXPECT_EQ(server_.Requests().size(), requests + 2);

  server_.ClearReactions();
  std::this_thread::sleep_for(std::chrono::milliseconds(TARNWELL_UNREACHABLE_COOLDOWN_MS));
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M"), "SM-G991B");
}

TEST_F(AdbPropertyTest, BadArgumentsTouchNothing) {
  char buffer[8] = "keep";
  EXPECT_EQ(AdbGetPhoneSoftVersion(nullptr, buffer, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneSoftVersion("", buffer, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneManufacturer("R58M", nullptr, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneProductModel("R58M", buffer, 0, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneProductModel("R58M", buffer, -5, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_STREQ(buffer, "keep");
  EXPECT_EQ(server_.Requests().size(), 0u);
}

TEST_F(AdbPropertyTest, ThreeThreadsAtOnceEachGetTheirOwnAnswers) {
  std::vector<std::thread> threads;
  std::vector<int> failures(3, 0);
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        bool ok = (t == 0) ? List() == "R58M-device;LOCKED-unauthorized;GONE-offline;"
                 : (t == 1) ? Read(AdbGetPhoneProductModel, "R58M") == "SM-G991B"
                            : Read(AdbGetPhoneManufacturer, "R58M") == "samsung";
        failures[static_cast<std::size_t>(t)] += ok ? 0 : 1;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, std::vector<int>(3, 0));
}

}  // namespace
