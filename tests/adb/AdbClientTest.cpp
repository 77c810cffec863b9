// libTarnwell through its exported functions: against the simulated ADB server (every reply and
// error path, the time bounds, concurrent callers, when adb is run) and against Debian's real adb.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Eventually.h"
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

void UsePort(const std::string& port) { setenv("ANDROID_ADB_SERVER_PORT", port.c_str(), 1); }
void UsePort(std::uint16_t port) { UsePort(std::to_string(port)); }

// The list text, or "ERR <code>"; a failed call must leave the caller's pointer and count alone.
std::string List() {
  char sentinel = 0, *list = &sentinel;
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

std::string Read(Query query, const std::string& serial, int size = 100) {
  std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '#');
  const int result = query(serial.c_str(), buffer.data(), size, 0);
  if (result != TARNWELL_OK) return Err(result);
  EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '#') << "wrote past size";
  return buffer.data();
}

void AllAtOnce(int n, const std::function<void(int)>& call) {
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back(call, i);
  for (auto& t : threads) t.join();
}

class Logged : public ::testing::Test {
 protected:
  void SetUp() override {
    log_path_ = dir_.path() + "/tarnwell.log";
    ASSERT_EQ(InitLogEx(dir_.path().c_str(), "Test", log_path_.c_str()), 0);
  }
  std::string LogText() const { return ReadFile(log_path_); }
  int Times(const std::string& text) const {
    const std::string log = LogText();
    int n = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
  }
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
    server_.SetDevices({{"R58M", "device", {{"ro.build.version.release", "13"}, {"ro.product.model", "SM-G991B"},
                                            {"ro.product.manufacturer", "samsung\r"}}},
                        {"LOCKED", "unauthorized", {}}, {"GONE", "offline", {}}});
  }

  sim_adb::SimAdbServer server_;
};

TEST_F(AdbClientTest, RepliesGiveTheirTextOrTheirCodeWithinTheirBound) {
  for (const char* bad : {"not-a-port", "70000"}) {
    UsePort(bad);
    EXPECT_EQ(List(), Err(TARNWELL_ERR_BAD_PORT));
  }
  UsePort(sim_phone::PrivateAdbServer::FreePort());
  EXPECT_EQ(List(), Err(TARNWELL_ERR_NO_SERVER));
  UsePort(server_.port());  // read again on every call

  const std::string serial = "X" + std::string(258, 's');
  const std::string loose = serial + "\tdevice\r\n\nZ9\trecovery";
  const std::string why = "(user in plugdev group; are your udev rules wrong?); "
                          "see [http://developer.android.com/tools/device.html]";
  const std::string states = "emulator-5554\tdevice\nb;2\tunauthorized\n127.0.0.1:40001\toffline\n"
                             "C3\tno permissions " + why + "\nD4\tfast-boot;mode (a later adb)\n";
  const std::string words = "emulator-5554-device;b,2-unauthorized;127.0.0.1:40001-offline;"
                            "C3-no permissions;D4-fast_boot_mode;";
  const std::string failed = Err(TARNWELL_ERR_SERVER_FAIL), timeout = Err(TARNWELL_ERR_TIMEOUT);
  const std::string closed = Err(TARNWELL_ERR_CLOSED), malformed = Err(TARNWELL_ERR_MALFORMED);
  const auto raw = &Reaction::Raw;
  const Reaction answer = Reaction::Answer();
  const Query version = AdbGetPhoneSoftVersion, maker = AdbGetPhoneManufacturer, model = AdbGetPhoneProductModel;
  const struct {
    Reaction reaction;  // to "host:devices" for the list, to "shell:" for a property read
    std::string expected;
    Query query = nullptr;  // the list
    const char* serial = "R58M";
    int size = 100;  // of the buffer
  } cases[] = {
      {answer, kListed},
      {raw("OKAY0000"), ""}, {raw("OKAY000BR58M\tdevice"), "R58M-device;"},  // either case of hex digit
      // A long serial and loose line endings are passed whole.
      {raw(Okay(loose)), serial + "-device;Z9-recovery;"},
      // State words stand alone; adb's explanation of one is logged once, not on every list.
      {raw(Okay(states)), words}, {raw(Okay(states)), words},
      {Reaction::Fail("insufficient permissions"), failed}, {Reaction::Silent(), timeout},
      {raw(""), closed}, {raw("OKAY00"), closed}, {raw("OKAY0020R58M\tdev"), closed}, {raw("FAIL0030cut"), closed},
      {raw("OKEY0000"), malformed}, {raw("OKAYzz10"), malformed}, {raw("OKAY0009no-tab-x\n"), malformed},
      {answer, "13", version}, {answer, "samsung", maker}, {answer, "SM-G991B", model},
      {answer, "SM-G", model, "R58M", 5}, {answer, "", model, "R58M", 1},  // cut to the buffer
      {raw("OKAY\n"), "", version},  // unset: not a failure
      {answer, failed, maker, "LOCKED"}, {answer, failed, maker, "GONE"},
      // The link closing before the shell answers reads "error: closed"; any other FAIL fails.
      {raw(""), "error: closed", version},
      {Reaction::Fail("closed"), "error: closed", version},
      {Reaction::Fail("closed for good"), failed, version},
      // Last, as they start cool-downs.
      {answer, failed, maker, "NOPE"}, {Reaction::Silent(), timeout, model},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reaction.text + (c.query ? " read " : " list ") + c.serial + " " + std::to_string(c.size));
    server_.ClearReactions();
    server_.React(c.query ? "shell:" : "host:devices", c.reaction);
    const auto start = Clock::now();
    EXPECT_EQ(c.query ? Read(c.query, c.serial, c.size) : List(), c.expected);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    const long long bound = c.query ? TARNWELL_PROPERTY_TIMEOUT_MS : TARNWELL_REQUEST_TIMEOUT_MS;
    EXPECT_LT(took, bound * 3 / 2);
    EXPECT_GE(took, c.reaction.kind == Reaction::Kind::kSilent ? bound - 50 : 0);
  }

  // A phone that never answered and one the server does not know are answered from memory during
  // their cool-down; one that says why it cannot answer now is asked every time.
  const int requests = server_.RequestCount();
  for (Query read : {version, maker, model}) {
    EXPECT_EQ(Read(read, "R58M"), timeout);
    EXPECT_EQ(Read(read, "NOPE"), failed);
    EXPECT_EQ(Read(read, "LOCKED"), failed);
  }
  // Bad arguments touch nothing.
  char buffer[8] = "keep";
  const std::vector<int> codes = {AdbGetPhoneSoftVersion(nullptr, buffer, 8, 0),
      AdbGetPhoneSoftVersion("", buffer, 8, 0), AdbGetPhoneManufacturer("R58M", nullptr, 8, 0),
      AdbGetPhoneProductModel("R58M", buffer, 0, 0), AdbGetDevicesEx(nullptr, nullptr, 0),
      AdbSdkInit(nullptr, "/", "/"), AdbSdkInit("/", "", "/"), AdbStartDaemon(2, 0)};
  EXPECT_EQ(codes, std::vector<int>(codes.size(), TARNWELL_ERR_BAD_ARGUMENT));
  EXPECT_STREQ(buffer, "keep");
  EXPECT_EQ(server_.RequestCount(), requests + 3) << "LOCKED's reads only";
  EXPECT_EQ(AdbFreeResource(nullptr), 0);

  // One line per failure, however many lines the server's message has.
  const std::pair<std::string, int> said[] = {
      {"[Tarnwell] AdbGetDevicesEx failed, error 104: insufficient permissions\n", 1},
      {"AdbGetDevicesEx: C3: no permissions " + why + "\n", 1}, {": D4: fast_boot_mode (a later adb)\n", 1},
      {"LOCKED: device unauthorized. This adb server's", 4}, {"GONE: device offline\n", 1}, {"'NOPE' not found", 1}};
  for (const auto& [text, times] : said) EXPECT_EQ(Times(text), times) << text << "\n" << LogText();

  server_.ClearReactions();
  std::this_thread::sleep_for(std::chrono::milliseconds(TARNWELL_UNREACHABLE_COOLDOWN_MS));
  EXPECT_EQ(Read(model, "R58M"), "SM-G991B");
}

TEST_F(AdbClientTest, ThreeThreadsAtOnceEachGetTheirOwnAnswers) {
  const std::function<bool()> calls[] = {[] { return List() == kListed; },
                                         [] { return Read(AdbGetPhoneProductModel, "R58M") == "SM-G991B"; },
                                         [] { return Read(AdbGetPhoneManufacturer, "R58M") == "samsung"; }};
  std::vector<int> failures(3, 0);
  AllAtOnce(3, [&](int t) { for (int i = 0; i < 40; ++i) failures[t] += calls[t]() ? 0 : 1; });
  EXPECT_EQ(failures, std::vector<int>(3, 0));
}

// What trackers told, in order: "changed", or "ended <code>".
struct TrackEvents {
  std::mutex mutex;
  std::vector<std::string> told;
  static void On(void* context, int event, int code) {
    auto* self = static_cast<TrackEvents*>(context);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->told.push_back(event == TARNWELL_TRACK_CHANGED ? "changed" : "ended " + std::to_string(code));
  }
  std::vector<std::string> After(size_t n) {
    Eventually([&] { std::lock_guard<std::mutex> lock(mutex); return told.size() >= n; }, std::chrono::seconds(5));
    std::lock_guard<std::mutex> lock(mutex);
    return told;
  }
};

// Each case starts a tracker, does what it says to the server, and stops the tracker: a stop must
// return at once whatever the tracker waits for (Silent: the server never answers the request).
TEST_F(AdbClientTest, TrackingTellsEachChangeOnceFallsBackAndEndsWithTheStream) {
  const std::vector<sim_adb::Device> one = {{"R58M", "device", {}}};
  const std::vector<sim_adb::Device> two = {{"R58M", "device", {}}, {"NEW", "unauthorized", {}}};
  struct Case {
    const char* refuse;  // a service prefix the server answers with `reaction`; "": none
    Reaction reaction;
    std::function<void(sim_adb::SimAdbServer&)> then;
    std::vector<std::string> told;
  };
  const std::vector<Case> cases = {
      // A repeated list is no change; a closed stream ends tracking.
      {"", Reaction::Answer(), [&](auto& s) { s.SetDevices(one); s.SetDevices(one); s.SetDevices(two); s.EndTracking(); },
       {"changed", "changed", "changed", "ended " + std::to_string(TARNWELL_ERR_CLOSED)}},
      // A server that refuses the long form is asked for the short one.
      {"host:track-devices-l", Reaction::Fail("unknown host service"), [&](auto& s) { s.SetDevices(two); },
       {"changed", "changed"}},
      {"host:track-devices", Reaction::Fail("no"), nullptr, {"ended " + std::to_string(TARNWELL_ERR_SERVER_FAIL)}},
      {"host:track-devices", Reaction::Silent(), nullptr, {}},
      {"", Reaction::Answer(), [](auto& s) { s.Stop(); }, {"changed", "ended " + std::to_string(TARNWELL_ERR_CLOSED)}},
  };
  for (const Case& c : cases) {
    sim_adb::SimAdbServer server;
    UsePort(server.port());
    if (*c.refuse != '\0') server.React(c.refuse, c.reaction);
    TrackEvents events;
    TarnwellTracker* tracker = nullptr;
    ASSERT_EQ(TARNWELL_OK, AdbTrackDevices(&TrackEvents::On, &events, &tracker));
    if (c.then) {
      ASSERT_EQ(std::vector<std::string>{"changed"}, events.After(1)) << c.refuse;
      c.then(server);
    }
    EXPECT_EQ(c.told, events.After(c.told.size())) << c.refuse;
    EXPECT_EQ(TARNWELL_OK, AdbStopTrackDevices(tracker));
  }
  EXPECT_EQ(TARNWELL_ERR_BAD_ARGUMENT, AdbTrackDevices(nullptr, nullptr, nullptr));
  EXPECT_EQ(3, Times("AdbTrackDevices: tracking on port")) << LogText();
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

TEST_F(StartDaemonTest, AdbIsFoundAndRunOnlyWhenNoServerAnswersOrTheHostSaysItWasKilled) {
  EXPECT_EQ(Init(dir_.path() + "/missing"), TARNWELL_ERR_NO_FOLDER);
  EXPECT_EQ(AdbSdkInit(dir_.path().c_str(), "/no/such/config", "/"), TARNWELL_ERR_NO_FOLDER);
  EXPECT_EQ(Times("AdbSdkInit failed, error 102: no such folder: /no/such/config\n"), 1);

  const std::string saved_path = getenv("PATH") != nullptr ? getenv("PATH") : "";
  setenv("PATH", dir_.path().c_str(), 1);
  UsePort(sim_phone::PrivateAdbServer::FreePort());
  EXPECT_EQ(Init(dir_.path()), TARNWELL_ERR_NO_ADB);
  EXPECT_EQ(AdbStartDaemon(1, 0), TARNWELL_ERR_NO_ADB);
  setenv("PATH", saved_path.c_str(), 1);

  const struct {
    std::optional<Reaction> version;  // of a simulated server on the port to "host:version"
    int flag, adb_exit, code, adb_runs;  // how many times the stand-in adb is run
    int callers = 1;  // at once: they take turns
  } cases[] = {
      {Reaction::Answer(), 1, 0, 0, 0},
      {Reaction::Answer(), 0, 0, 0, 3, 3},
      // A server that answers wrongly is reported, not replaced.
      {Reaction::Silent(), 1, 0, TARNWELL_ERR_TIMEOUT, 0},
      {Reaction::Raw("OKAY0004zzzz"), 1, 0, TARNWELL_ERR_MALFORMED, 0},
      {std::nullopt, 1, 1, TARNWELL_ERR_START_FAILED, 1},
  };
  for (const auto& c : cases) {
    std::optional<sim_adb::SimAdbServer> server;
    if (c.version) server.emplace().React("host:version", *c.version);
    const std::uint16_t port = server ? server->port() : sim_phone::PrivateAdbServer::FreePort();
    UsePort(port);
    FakeAdb adb(c.adb_exit, c.adb_exit ? "error: could not install *smartsocket* listener" : "");
    ASSERT_EQ(Init(adb.dir.path()), 0);
    std::vector<int> results(static_cast<std::size_t>(c.callers), -1);
    AllAtOnce(c.callers, [&](int i) { results[i] = AdbStartDaemon(c.flag, 0); });
    EXPECT_EQ(results, std::vector<int>(results.size(), c.code)) << port;
    std::string lines;
    for (int i = 0; i < c.adb_runs; ++i) lines += "-P " + std::to_string(port) + " start-server\n";
    EXPECT_EQ(adb.Calls(), lines);
  }
  EXPECT_EQ(Times("error: could not install *smartsocket* listener"), 1) << "adb's own words";
}

// Debian's adb server on a private port, started through AdbStartDaemon, to hold the simulated replies to adb's.
using RealAdbTest = Logged;

TEST_F(RealAdbTest, APhoneIsListedInEachStateAndAnswersOnlyWhenAuthorised) {
  if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
  sim_phone::PrivateAdbServer server;
  server.ApplyToThisProcess();
  ASSERT_EQ(Init(dir_.path()), 0);  // no adb in the folder: Debian's on PATH is used
  ASSERT_EQ(AdbStartDaemon(1, 0), 0) << LogText();
  const auto listed = [](const std::string& entry) {
    return Eventually([&] { return List().find(entry) != std::string::npos; }, std::chrono::seconds(5),
                      std::chrono::milliseconds(20));
  };

  sim_phone::PhoneConfig config;
  config.authorized = false;
  sim_phone::SimPhone phone(config);
  const std::string serial = phone.serial();
  server.Connect(phone.port());
  ASSERT_TRUE(listed(serial + "-unauthorized;")) << List();
  EXPECT_EQ(Read(AdbGetPhoneManufacturer, serial), Err(TARNWELL_ERR_SERVER_FAIL));

  phone.Authorize();
  ASSERT_TRUE(listed(serial + "-device;")) << List();
  EXPECT_EQ(Read(AdbGetPhoneProductModel, serial), config.model);

  phone.SetDropOnOpen(true);
  EXPECT_EQ(Read(AdbGetPhoneSoftVersion, serial), "error: closed");

  // A phone in recovery is listed so; adb's own client speaks the framed shell (shell,v2) to it.
  sim_phone::PhoneConfig recovery;
  recovery.banner_kind = "recovery";
  sim_phone::SimPhone second(recovery);
  server.Connect(second.port());
  ASSERT_TRUE(listed(second.serial() + "-recovery;")) << List();
  auto run = server.Adb({"-s", second.serial(), "shell", "getprop", "ro.product.model"});
  EXPECT_EQ(run.exit_code, 0) << run.output;
  EXPECT_EQ(run.output, recovery.model + "\n");
  ASSERT_FALSE(second.OpenedServices().empty());
  EXPECT_EQ(second.OpenedServices().back().rfind("shell,v2,", 0), 0u) << second.OpenedServices().back();
}

}  // namespace
