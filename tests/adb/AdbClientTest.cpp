// libTarnwell through its exported functions: against the simulated ADB server (the list text,
// the property reads, every error path, the time bounds, concurrent callers, when adb is run),
// and against Debian's real adb server on a private port with simulated phones attached.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "PrivateAdbServer.h"
#include "Quenwick.h"
#include "SimAdbServer.h"
#include "SimPhone.h"
#include "Tarnwell.h"
#include "TempDir.h"

namespace {

using sim_adb::Reaction;
using Clock = std::chrono::steady_clock;
using Query = int (*)(const char*, char*, int, int);

std::string Err(int code) { return "ERR " + std::to_string(code); }
std::string Okay(const std::string& payload) { return "OKAY" + sim_adb::Hex4(payload.size()) + payload; }

long long MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void UsePort(std::uint16_t port) {
  setenv("ANDROID_ADB_SERVER_PORT", std::to_string(port).c_str(), 1);
}

// The list text, or "ERR <code>"; a failed call must leave the caller's pointer and count alone.
std::string List() {
  char sentinel = 0;
  char* list = &sentinel;
  int count = 77;
  const int result = AdbGetDevicesEx(&list, &count, 0);
  if (result != TARNWELL_OK) {
    EXPECT_TRUE(list == &sentinel && count == 77);
    return Err(result);
  }
  const std::string text = list == nullptr ? "" : list;
  EXPECT_EQ(list == nullptr, count == 0);
  EXPECT_EQ(count, std::count(text.begin(), text.end(), ';')) << text;
  AdbFreeResource(&list);
  EXPECT_EQ(list, nullptr);
  return text;
}

// The text read, or "ERR <code>".
std::string Read(Query query, const std::string& serial, int size = 100) {
  std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '#');
  const int result = query(serial.c_str(), buffer.data(), size, 0);
  if (result != TARNWELL_OK) return Err(result);
  EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '#') << "wrote past size";
  return buffer.data();
}

// Each test logs to a file of its own in a folder of its own.
class Logged : public ::testing::Test {
 protected:
  void SetUp() override {
    log_path_ = dir_.path() + "/tarnwell.log";
    ASSERT_EQ(InitLogEx(dir_.path().c_str(), "Test", log_path_.c_str()), 0);
  }
  std::string LogText() const { return ReadFile(log_path_); }
  // AdbSdkInit with this folder for configuration and logs.
  int Init(const std::string& resource) {
    return AdbSdkInit(resource.c_str(), dir_.path().c_str(), dir_.path().c_str());
  }

  TempDir dir_;
  std::string log_path_;
};

const char kListed[] = "R58M-device;LOCKED-unauthorized;GONE-offline;";

class AdbClientTest : public Logged {
 protected:
  void SetUp() override {
    Logged::SetUp();
    UsePort(server_.port());
    server_.SetDevices({{"R58M", "device",
                         {{"ro.build.version.release", "13"},
                          {"ro.product.manufacturer", "samsung\r"},
                          {"ro.product.model", "SM-G991B"}}},
                        {"LOCKED", "unauthorized", {}},
                        {"GONE", "offline", {}}});
  }

  sim_adb::SimAdbServer server_;
};

TEST_F(AdbClientTest, ListRepliesGiveTheirTextOrTheirCode) {
  const std::string serial = "X" + std::string(258, 's');
  const std::string loose = serial + "\tdevice\r\n\nZ9\trecovery";
  const std::string why = "(user in plugdev group; are your udev rules wrong?); "
                          "see [http://developer.android.com/tools/device.html]";
  const std::string states = "emulator-5554\tdevice\nb;2\tunauthorized\n127.0.0.1:40001\toffline\n"
                             "C3\tno permissions " + why + "\nD4\tfast-boot;mode (a later adb)\n";
  const std::string words = "emulator-5554-device;b,2-unauthorized;127.0.0.1:40001-offline;"
                            "C3-no permissions;D4-fast_boot_mode;";
  const struct {
    Reaction reaction;
    std::string expected;
  } cases[] = {
      {Reaction::Answer(), kListed},
      {Reaction::Raw("OKAY0000"), ""},
      {Reaction::Raw("OKAY000BR58M\tdevice"), "R58M-device;"},  // either case of hex digit
      // A long serial and loose line endings are passed whole.
      {Reaction::Raw(Okay(loose)), serial + "-device;Z9-recovery;"},
      // State words stand alone; adb's explanation of one is logged once, not on every list.
      {Reaction::Raw(Okay(states)), words},
      {Reaction::Raw(Okay(states)), words},
      {Reaction::Fail("insufficient permissions"), Err(TARNWELL_ERR_SERVER_FAIL)},
      {Reaction::Raw(""), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("OKAY00"), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("OKAY0020R58M\tdev"), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("FAIL0030cut"), Err(TARNWELL_ERR_CLOSED)},
      {Reaction::Raw("OKEY0000"), Err(TARNWELL_ERR_MALFORMED)},
      {Reaction::Raw("OKAYzz10"), Err(TARNWELL_ERR_MALFORMED)},
      {Reaction::Raw("OKAY0009no-tab-x\n"), Err(TARNWELL_ERR_MALFORMED)},
  };
  for (const auto& c : cases) {
    server_.ClearReactions();
    server_.React("host:devices", c.reaction);
    EXPECT_EQ(List(), c.expected) << c.reaction.text;
  }
  const std::string log = LogText();
  for (const std::string& said : std::vector<std::string>{"insufficient permissions", "C3: no permissions " + why,
                                                         "D4: fast_boot_mode (a later adb)"}) {
    EXPECT_TRUE(log.find(said) != std::string::npos && log.find(said) == log.rfind(said)) << said << "\n" << log;
  }
  EXPECT_EQ(AdbGetDevicesEx(nullptr, nullptr, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbFreeResource(nullptr), 0);
}

TEST_F(AdbClientTest, TheServerIsFoundOnEveryCallAndASilentOneCostsOnlyTheTimeout) {
  for (const char* bad : {"not-a-port", "70000"}) {
    setenv("ANDROID_ADB_SERVER_PORT", bad, 1);
    EXPECT_EQ(List(), Err(TARNWELL_ERR_BAD_PORT));
  }
  UsePort(server_.port());
  server_.Stop();
  EXPECT_EQ(List(), Err(TARNWELL_ERR_NO_SERVER));
  ASSERT_TRUE(server_.Restart());
  EXPECT_EQ(List(), kListed);

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
    int size;  // of the buffer
    std::string expected;
  } cases[] = {
      {Reaction::Answer(), AdbGetPhoneSoftVersion, "R58M", 100, "13"},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "R58M", 100, "samsung"},
      {Reaction::Answer(), AdbGetPhoneProductModel, "R58M", 100, "SM-G991B"},
      {Reaction::Answer(), AdbGetPhoneProductModel, "R58M", 5, "SM-G"},  // cut to the buffer
      {Reaction::Answer(), AdbGetPhoneProductModel, "R58M", 1, ""},
      {Reaction::Raw("OKAY\n"), AdbGetPhoneSoftVersion, "R58M", 100, ""},  // unset: not a failure
      {Reaction::Answer(), AdbGetPhoneManufacturer, "LOCKED", 100, failed},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "GONE", 100, failed},
      {Reaction::Answer(), AdbGetPhoneManufacturer, "NOPE", 100, failed},
      // The link closing before the shell answers reads "error: closed"; any other FAIL fails.
      {Reaction::Raw(""), AdbGetPhoneSoftVersion, "R58M", 100, "error: closed"},
      {Reaction::Fail("closed"), AdbGetPhoneSoftVersion, "R58M", 100, "error: closed"},
      {Reaction::Fail("closed"), AdbGetPhoneSoftVersion, "R58M", 6, "error"},
      {Reaction::Fail("closed for good"), AdbGetPhoneSoftVersion, "R58M", 100, failed},
  };
  for (const auto& c : cases) {
    server_.ClearReactions();
    server_.React("shell:", c.shell);
    EXPECT_EQ(Read(c.query, c.serial, c.size), c.expected) << c.serial << " " << c.size;
  }
  const std::string log = LogText();
  for (const char* said : {"[Tarnwell]", "device unauthorized.", "device offline", "device 'NOPE' not found"}) {
    EXPECT_NE(log.find(said), std::string::npos) << said << "\n" << log;
  }

  // Bad arguments touch nothing.
  const int asked = server_.RequestCount("");
  char buffer[8] = "keep";
  EXPECT_EQ(AdbGetPhoneSoftVersion(nullptr, buffer, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneSoftVersion("", buffer, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneManufacturer("R58M", nullptr, 8, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbGetPhoneProductModel("R58M", buffer, 0, 0), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_STREQ(buffer, "keep");
  EXPECT_EQ(server_.RequestCount(""), asked);
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

  const int requests = server_.RequestCount("");
  for (auto read : {AdbGetPhoneSoftVersion, AdbGetPhoneManufacturer, AdbGetPhoneProductModel}) {
    EXPECT_EQ(Read(read, "R58M"), timeout);
    EXPECT_EQ(Read(read, "NOPE"), fail);
  }
  EXPECT_EQ(server_.RequestCount(""), requests) << "answered from memory";
  // A device that says why it cannot answer now is asked every time.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Read(AdbGetPhoneManufacturer, "LOCKED"), fail);
  EXPECT_EQ(server_.RequestCount(""), requests + 2);

  server_.ClearReactions();
  std::this_thread::sleep_for(std::chrono::milliseconds(TARNWELL_UNREACHABLE_COOLDOWN_MS));
  EXPECT_EQ(Read(AdbGetPhoneProductModel, "R58M"), "SM-G991B");
}

TEST_F(AdbClientTest, ThreeThreadsAtOnceEachGetTheirOwnAnswers) {
  const std::function<bool()> calls[] = {[] { return List() == kListed; },
                                         [] { return Read(AdbGetPhoneProductModel, "R58M") == "SM-G991B"; },
                                         [] { return Read(AdbGetPhoneManufacturer, "R58M") == "samsung"; }};
  std::vector<int> failures(3, 0);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] { for (int i = 0; i < 40; ++i) failures[t] += calls[t]() ? 0 : 1; });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, std::vector<int>(3, 0));
}

// A stand-in adb in a folder of its own: notes its arguments in "calls", says and exits as told.
struct FakeAdb {
  explicit FakeAdb(int exit_code = 0, const std::string& says = "") {
    std::ofstream(dir.path() + "/adb") << "#!/bin/sh\necho \"$@\" >> '" << dir.path()
                                       << "/calls'\necho '" << says << "' >&2\nexit " << exit_code << "\n";
    ::chmod((dir.path() + "/adb").c_str(), 0755);
  }
  std::string Calls() const { return ReadFile(dir.path() + "/calls"); }
  TempDir dir;
};

using StartDaemonTest = Logged;

TEST_F(StartDaemonTest, InitChecksItsFoldersAndNothingStartsWithoutAnyAdb) {
  EXPECT_EQ(AdbSdkInit(nullptr, "/", "/"), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbSdkInit("/", "", "/"), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Init(dir_.path() + "/missing"), TARNWELL_ERR_NO_FOLDER);
  EXPECT_EQ(AdbSdkInit(dir_.path().c_str(), "/no/such/config", "/"), TARNWELL_ERR_NO_FOLDER);
  EXPECT_NE(LogText().find("/no/such/config"), std::string::npos);
  EXPECT_EQ(AdbStartDaemon(2, 0), TARNWELL_ERR_BAD_ARGUMENT);

  const std::string saved_path = getenv("PATH") != nullptr ? getenv("PATH") : "";
  setenv("PATH", dir_.path().c_str(), 1);
  UsePort(sim_phone::PrivateAdbServer::FreePort());
  EXPECT_EQ(Init(dir_.path()), TARNWELL_ERR_NO_ADB);
  EXPECT_EQ(AdbStartDaemon(1, 0), TARNWELL_ERR_NO_ADB);
  setenv("PATH", saved_path.c_str(), 1);
}

TEST_F(StartDaemonTest, AdbIsRunOnlyWhenNoServerAnswersOrTheHostSaysItWasKilled) {
  const struct {
    bool serve, silent;  // a simulated server listens on the port; it never answers "host:version"
    int flag, adb_exit, code;
    bool runs_adb;
  } cases[] = {
      {true, false, 1, 0, 0, false},
      {true, false, 0, 0, 0, true},
      {true, true, 1, 0, TARNWELL_ERR_TIMEOUT, false},  // reported, not replaced
      {false, false, 1, 1, TARNWELL_ERR_START_FAILED, true},
  };
  for (const auto& c : cases) {
    std::optional<sim_adb::SimAdbServer> server;
    if (c.serve) server.emplace();
    if (c.silent) server->React("host:version", Reaction::Silent());
    const std::uint16_t port = c.serve ? server->port() : sim_phone::PrivateAdbServer::FreePort();
    UsePort(port);
    FakeAdb adb(c.adb_exit, c.adb_exit ? "error: could not install *smartsocket* listener" : "");
    ASSERT_EQ(Init(adb.dir.path()), 0);
    EXPECT_EQ(AdbStartDaemon(c.flag, 0), c.code);
    EXPECT_EQ(adb.Calls(), c.runs_adb ? "-P " + std::to_string(port) + " start-server\n" : "");
  }
  EXPECT_NE(LogText().find("smartsocket"), std::string::npos) << "adb's own words";

  // Concurrent starts take turns.
  sim_adb::SimAdbServer server;
  UsePort(server.port());
  FakeAdb adb;
  ASSERT_EQ(Init(adb.dir.path()), 0);
  std::vector<int> results(3, -1);
  std::vector<std::thread> threads;
  for (int& result : results) threads.emplace_back([&result] { result = AdbStartDaemon(0, 0); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(results, std::vector<int>(3, 0));
  const std::string line = "-P " + std::to_string(server.port()) + " start-server\n";
  EXPECT_EQ(adb.Calls(), line + line + line);
}

// Debian's adb server on a private port, started through AdbStartDaemon as a host would.
class RealAdbTest : public Logged {
 protected:
  void SetUp() override {
    if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
    Logged::SetUp();
    server_.ApplyToThisProcess();
    // No adb in the folder: Debian's on PATH is used.
    ASSERT_EQ(Init(dir_.path()), 0);
    EXPECT_EQ(List(), Err(TARNWELL_ERR_NO_SERVER));
    ASSERT_EQ(AdbStartDaemon(1, 0), 0) << LogText();
    // Asking again spawns nothing new.
    ASSERT_EQ(AdbStartDaemon(1, 0), 0) << LogText();
    EXPECT_EQ(server_.ServerProcesses().size(), 1u);
  }
  // Polls the list until it holds (or, with listed false, lacks) entry, at most 5 s.
  static bool Listed(const std::string& entry, bool listed = true) {
    for (auto until = Clock::now() + std::chrono::seconds(5);
         (List().find(entry) != std::string::npos) != listed;) {
      if (Clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  sim_phone::PrivateAdbServer server_;
};

TEST_F(RealAdbTest, APhoneIsListedInEachStateAndAnswersOnlyWhenAuthorised) {
  sim_phone::PhoneConfig config;
  config.authorized = false;
  config.manufacturer = "Google";
  config.model = "Pixel 7";
  config.android_version = "14";
  sim_phone::SimPhone phone(config);
  const std::string serial = phone.serial();
  server_.Connect(phone.port());
  ASSERT_TRUE(Listed(serial + "-unauthorized;")) << List();
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, serial), Err(TARNWELL_ERR_SERVER_FAIL));

  phone.Authorize();
  ASSERT_TRUE(Listed(serial + "-device;")) << List();
  const std::pair<Query, const char*> reads[] = {
      {AdbGetPhoneSoftVersion, "14"}, {AdbGetPhoneManufacturer, "Google"}, {AdbGetPhoneProductModel, "Pixel 7"}};
  for (const auto& [query, text] : reads) EXPECT_EQ(Read(query, serial), text);

  // The link dropping when the shell opens reads "error: closed".
  phone.SetDropOnOpen(true);
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, serial), "error: closed");

  phone.Leave();
  server_.Disconnect(phone.port());
  EXPECT_TRUE(Listed(serial, false)) << List();
  EXPECT_EQ(Read(AdbGetPhoneProductModel, serial), Err(TARNWELL_ERR_SERVER_FAIL));

  // A phone in recovery is listed so; adb's own client speaks the framed shell (shell,v2) to it.
  sim_phone::PhoneConfig recovery;
  recovery.banner_kind = "recovery";
  recovery.extra_properties["ro.serialno"] = "SIM0001";
  sim_phone::SimPhone second(recovery);
  server_.Connect(second.port());
  ASSERT_TRUE(Listed(second.serial() + "-recovery;")) << List();
  auto run = server_.Adb({"-s", second.serial(), "shell", "getprop", "ro.serialno"});
  EXPECT_EQ(run.exit_code, 0) << run.output;
  EXPECT_EQ(run.output, "SIM0001\n");
  ASSERT_FALSE(second.OpenedServices().empty());
  EXPECT_EQ(second.OpenedServices().back().rfind("shell,v2,", 0), 0u) << second.OpenedServices().back();

  // A server killed behind the library's back is started again when the host says so.
  server_.KillServer();
  EXPECT_EQ(List(), Err(TARNWELL_ERR_NO_SERVER));
  ASSERT_EQ(AdbStartDaemon(0, 0), 0) << LogText();
  EXPECT_EQ(List().rfind("ERR", 0), std::string::npos);
}

}  // namespace
