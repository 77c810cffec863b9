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
using Query = int (*)(const char*, char*, int, int);

std::string Err(int code) { return "ERR " + std::to_string(code); }

long long MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class AdbClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ANDROID_ADB_SERVER_PORT", std::to_string(server_.port()).c_str(), 1);
    log_path_ = dir_.path() + "/client.log";
    ASSERT_EQ(InitLogEx(dir_.path().c_str(), "Test", log_path_.c_str()), 0);
    server_.SetDevices({{"R58M", "device",
                         {{"ro.build.version.release", "13"},
                          {"ro.product.manufacturer", "samsung\r"},
                          {"ro.product.model", "SM-G991B"}}},
                        {"LOCKED", "unauthorized", {}},
                        {"GONE", "offline", {}}});
  }
  // The list text, or "ERR <code>"; a failed call must leave the caller's pointer and count alone.
  static std::string List() {
    char sentinel = 0;
    char* list = &sentinel;
    int count = 77;
    const int result = AdbGetDevicesEx(&list, &count, 0);
    if (result != TARNWELL_OK) {
      EXPECT_TRUE(list == &sentinel && count == 77);
      return Err(result);
    }
    std::string text = list == nullptr ? "" : list;
    EXPECT_EQ(list == nullptr, count == 0);
    AdbFreeResource(&list);
    EXPECT_EQ(list, nullptr);
    return text;
  }
  static std::string Read(Query query, const char* serial, int size = 100) {
    std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '#');
    const int result = query(serial, buffer.data(), size, 0);
    if (result != TARNWELL_OK) return Err(result);
    EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '#') << "wrote past size";
    return buffer.data();
  }
  std::string LogText() const {
    std::ifstream in(log_path_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  int CountInLog(const std::string& part) const {
    const std::string log = LogText();
    int count = 0;
    for (auto at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) ++count;
    return count;
  }

  TempDir dir_;
  std::string log_path_;
  sim_adb::SimAdbServer server_;
};

TEST_F(AdbClientTest, ListRepliesGiveTheirTextOrTheirCode) {
  std::string serial(259, 's');
  serial[0] = 'X';
  const std::string loose = serial + "\tdevice\r\n\nZ9\trecovery";
  const struct {
    Reaction reaction;
    std::string expected;
  } cases[] = {
      {Reaction::Answer(), "R58M-device;LOCKED-unauthorized;GONE-offline;"},
      {Reaction::Raw("OKAY0000"), ""},
      {Reaction::Raw("OKAY000BR58M\tdevice"), "R58M-device;"},  // either case of hex digit
      // A long serial and loose line endings are passed whole.
      {Reaction::Raw("OKAY" + sim_adb::Hex4(loose.size()) + loose), serial + "-device;Z9-recovery;"},
      {Reaction::Fail("insufficient permissions"), Err(TARNWELL_ERR_SERVER_FAIL)},
      {Reaction::Close(), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("OKAY00"), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("OKAY0020R58M\tdev"), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("FAIL0030cut"), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("OKEY0000"), Err(TARNWELL_ERR_MALFORMED)},
      {Reaction::Raw("OKAYzz10"), Err(TARNWELL_ERR_MALFORMED)},
      {Reaction::Raw("OKAY0009no-tab-x\n"), Err(TARNWELL_ERR_MALFORMED)},
      {Reaction::Answer(300), "R58M-device;LOCKED-unauthorized;GONE-offline;"},  // slow is waited for
  };
  for (const auto& c : cases) {
    server_.ClearReactions();
    server_.React("host:devices", c.reaction);
    EXPECT_EQ(List(), c.expected) << c.reaction.text;
  }
  EXPECT_NE(LogText().find("insufficient permissions"), std::string::npos) << LogText();
  EXPECT_EQ(AdbGetDevicesEx(nullptr, nullptr, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbFreeResource(nullptr), 0);
}

TEST_F(AdbClientTest, StateWordsStandAloneAndAdbsExplanationIsLoggedOnce) {
  const std::string why = "(user in plugdev group; are your udev rules wrong?); "
                          "see [http://developer.android.com/tools/device.html]";
  server_.SetDevices({{"emulator-5554", "device", {}},
                      {"b;2", "unauthorized", {}},
                      {"127.0.0.1:40001", "offline", {}},
                      {"C3", "no permissions " + why, {}},
                      {"D4", "fast-boot;mode (a later adb)", {}}});
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
}

TEST_F(AdbClientTest, TheServerIsFoundOnEveryCallAndASilentOneCostsOnlyTheTimeout) {
  const std::string port = std::to_string(server_.port());
  for (const char* bad : {"not-a-port", "70000"}) {
    setenv("ANDROID_ADB_SERVER_PORT", bad, 1);
    EXPECT_EQ(List(), Err(TARNWELL_ERR_BAD_PORT));
  }
  setenv("ANDROID_ADB_SERVER_PORT", port.c_str(), 1);
  server_.Stop();
  EXPECT_EQ(List(), Err(TARNWELL_ERR_NO_SERVER));
  ASSERT_TRUE(server_.Restart());
  EXPECT_EQ(List(), "R58M-device;LOCKED-unauthorized;GONE-offline;");

  server_.React("host:devices", Reaction::Silent());
  const auto start = Clock::now();
  EXPECT_EQ(List(), Err(TARNWELL_ERR_TIMEOUT));
  EXPECT_GE(MillisecondsSince(start), TARNWELL_REQUEST_TIMEOUT_MS - 50);
  EXPECT_LT(MillisecondsSince(start), TARNWELL_REQUEST_TIMEOUT_MS + 1500);
}

TEST_F(AdbClientTest, PropertyReadsGiveTheTextWithoutLineBreaksOrTheirCode) {
  const std::string failed = Err(TARNWELL_ERR_SERVER_FAIL);
  const struct {
    Reaction shell;  // how "shell:" is answered
    Query query;
    const char* serial;
    int size;
    std::string expected;
  } cases[] = {
      {Reaction::Answer(), AdbGetPhoneSoftVersion, "R58M", 100, "13"},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "R58M", 100, "samsung"},
      {Reaction::Answer(), AdbGetPhoneProductModel, "R58M", 100, "SM-G991B"},
      {Reaction::Answer(), AdbGetPhoneProductModel, "R58M", 5, "SM-G"},  // cut to the buffer
      {Reaction::Answer(), AdbGetPhoneProductModel, "R58M", 1, ""},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "LOCKED", 100, failed},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "GONE", 100, failed},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "NOPE", 100, failed},
      // The link closing before the shell answers reads "error: closed"; any other FAIL fails.
      {Reaction::Close(), AdbGetPhoneSoftVersion, "R58M", 100, "error: closed"},
      {Reaction::Fail("closed"), AdbGetPhoneSoftVersion, "R58M", 100, "error: closed"},
      {Reaction::Fail("closed"), AdbGetPhoneSoftVersion, "R58M", 6, "error"},
      {Reaction::Fail("closed for good"), AdbGetPhoneSoftVersion, "R58M", 100, failed},
  };
  for (const auto& c : cases) {
    server_.ClearReactions();
    server_.React("shell:", c.shell);
    EXPECT_EQ(Read(c.query, c.serial, c.size), c.expected) << c.serial << " " << c.size;
  }
  const std::vector<std::string> requests = server_.Requests();
  ASSERT_GE(requests.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(requests.begin(), requests.begin() + 6),
            (std::vector<std::string>{"host:transport:R58M", "shell:getprop ro.build.version.release",
                                      "host:transport:R58M", "shell:getprop ro.product.manufacturer",
                                      "host:transport:R58M", "shell:getprop ro.product.model"}));
  const std::string log = LogText();
  for (const char* said : {"[Tarnwell]", "device unauthorized.", "device offline", "device 'NOPE' not found"}) {
    EXPECT_NE(log.find(said), std::string::npos) << said << "\n" << log;
  }

  // An unset property prints an empty line: an empty text, not a failure.
  server_.ClearReactions();
  server_.SetDevices({{"R58M", "device", {}}});
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, "R58M"), "");

  // Bad arguments touch nothing.
  const std::size_t asked = server_.Requests().size();
  char buffer[8] = "keep";
  EXPECT_EQ(AdbGetPhoneSoftVersion(nullptr, buffer, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneSoftVersion("", buffer, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneManufacturer("R58M", nullptr, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneProductModel("R58M", buffer, 0, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneProductModel("R58M", buffer, -5, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_STREQ(buffer, "keep");
  EXPECT_EQ(server_.Requests().size(), asked);
}

TEST_F(AdbClientTest, PhoneThatNeverAnswersOrIsUnknownIsNotAskedAgainDuringItsCoolDown) {
  const std::string timeout = Err(TARNWELL_ERR_TIMEOUT);
  const std::string fail = Err(TARNWELL_ERR_SERVER_FAIL);
  server_.React("shell:", Reaction::Silent());
  const auto start = Clock::now();
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M"), timeout);
  EXPECT_GE(MillisecondsSince(start), TARNWELL_PROPERTY_TIMEOUT_MS - 50);
  EXPECT_LT(MillisecondsSince(start), TARNWELL_PROPERTY_TIMEOUT_MS + 500);
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

TEST_F(AdbClientTest, ThreeThreadsAtOnceEachGetTheirOwnAnswers) {
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
