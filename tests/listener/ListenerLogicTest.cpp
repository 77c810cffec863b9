// The listener's logic over the in-memory ADB library: one poll's merge and report as tables, the
// detail lookups, and the poll thread over time.
#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "AndListenerEx.h"
#include "FakeTarnwell.h"
#include "ListenerTestSupport.h"
#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;
using AdbList = std::vector<std::pair<std::string, DeviceAuthorStatus>>;
constexpr const char* kVersion = "ro.build.version.release";
constexpr const char* kManufacturer = "ro.product.manufacturer";
constexpr const char* kModel = "ro.product.model";

class Listener : public ListenerTest {
 protected:
  // Also between the cases of a table: a fresh stand-in, log and listener.
  void SetUp() override {
    ListenerTest::SetUp();
    fake_adb::Reset();
    log_capture::Clear();
    answers_.clear();
    listener_.emplace(reports::Collect);
    previous_.clear();
    last_code_ = 0;
    fake_adb::Script script;
    // Every phone's properties as {code, text}; one not in the map is an empty text.
    script.property = [this](const std::string&, const std::string& property, std::string* value) {
      const auto answer = answers_.find(property);
      if (answer == answers_.end()) return 0;
      *value = answer->second.second;
      return answer->second.first;
    };
    fake_adb::SetScript(script);
  }
  // One poll by hand, with no ADB view when the query failed; the reports it produced.
  Strings Poll(const UsbTable& usb, const AdbTable& adb, int code = 0) {
    const size_t before = reports::All().size();
    listener_->DealListenInfo(&usb, code == 0 ? &adb : nullptr, &previous_, code, &last_code_);
    const Strings all = reports::All();
    return Strings(all.begin() + static_cast<long>(before), all.end());
  }
  static void List(const std::string& text, int code = 0) { fake_adb::SetList(text, code); }
  static int Asked(const std::string& function) {
    int count = 0;
    for (const std::string& call : fake_adb::Calls()) count += call.rfind(function, 0) == 0 ? 1 : 0;
    return count;
  }
  static bool Eventually(const std::function<bool()>& done) {
    for (auto until = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < until;) {
      if (done()) return true;
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }
  static bool WaitForLine(const std::string& text, int count) {
    return Eventually([&] { return log_capture::CountContaining(text) >= count; });
  }

  std::map<std::string, std::pair<int, std::string>> answers_;
  std::optional<AndListenerEx> listener_;
  std::map<std::string, DeviceBasicInfo_> previous_;
  int last_code_ = 0;
};

struct Step {
  std::vector<DeviceModleInfo> usb;
  AdbList adb;
  int code;
  Strings expected;  // the one report's transitions; none: no report
};

TEST_F(Listener, EachPollReportsWhatChangedOnceInOrder) {
  const auto stick = UsbDevice("stick", 65535, 2);
  const auto a1 = UsbDevice("a1", 1256, 1);
  const AdbList a1b2 = {{"a1", DeviceUnauthored}, {"b2", DeviceOffline}};
  const std::vector<std::vector<Step>> scenarios = {
      // A phone on USB, one on ADB; unchanged, no report. (One on both: DetailLookup.)
      {{{UsbDevice("ABC", 1256, 1)}, {{"ZX1", DeviceUnauthored}}, 0,
        {"abc:NotConnect->MtpConnect", "zx1:NotConnect->UnauthoredConnect"}},
       {{UsbDevice("ABC", 1256, 1)}, {{"ZX1", DeviceUnauthored}}, 0, {}}},
      // A failing query: with nothing attached nothing; then once per new code.
      {{{}, {}, 5, {}}, {{}, {}, 5, {}},
       {{stick}, {}, 5, {"stick:NotConnect->MtpConnect#5"}},
       {{stick}, {}, 6, {"stick:MtpConnect->MtpConnect#6"}}, {{stick}, {}, 6, {}}, {{stick}, {}, 6, {}},
       {{stick}, {}, -1, {"stick:MtpConnect->MtpConnect#-1"}}},
      // A dropped query moves phones to the USB view and back, without a second snapshot.
      {{{a1}, a1b2, 0, {"a1:NotConnect->UnauthoredConnect", "b2:NotConnect->OfflineConnect"}},
       {{a1}, {}, 9, {"a1:UnauthoredConnect->MtpConnect#9", "b2:OfflineConnect->NotConnect#9"}},
       {{a1}, a1b2, 0, {"a1:MtpConnect->UnauthoredConnect", "b2:NotConnect->OfflineConnect"}}},
      // White-listed phones first, each group in key order.
      {{{UsbDevice("e1", 1256, 1), UsbDevice("e2", 1256, 26720), UsbDevice("e3", 6353, 26720),
         UsbDevice("e4", 1256, 26720)}, {}, 0,
        {"e2:NotConnect->MtpConnect", "e4:NotConnect->MtpConnect", "e1:NotConnect->MtpConnect",
         "e3:NotConnect->MtpConnect"}}},
      // A change of ids alone is a change; a change of texts is not.
      {{{UsbDevice("k", 1256, 1, "Old", "Old")}, {}, 0, {"k:NotConnect->MtpConnect"}},
       {{UsbDevice("k", 1256, 1, "New", "New")}, {}, 0, {}},
       {{UsbDevice("k", 1256, 2)}, {}, 0, {"k:MtpConnect->MtpConnect"}}},
  };
  for (size_t s = 0; s < scenarios.size(); ++s) {
    SetUp();
    for (size_t i = 0; i < scenarios[s].size(); ++i) {
      const Step& step = scenarios[s][i];
      log_capture::Clear();
      const Strings got = Poll(UsbTableOf(step.usb), AdbTableOf(step.adb), step.code);
      ASSERT_EQ(step.expected.empty() ? 0u : 1u, got.size()) << "scenario " << s << " step " << i;
      if (got.empty()) {
        EXPECT_TRUE(log_capture::Lines().empty()) << "a silent poll writes nothing";
        continue;
      }
      EXPECT_EQ(step.expected, Transitions(got[0])) << "scenario " << s << " step " << i;
      EXPECT_EQ(1, log_capture::CountContaining("callback return " +
                                                std::to_string(reports::All().size()) + "\n"));
    }
  }
}

TEST_F(Listener, TheWholeReportTextIsExactlyAsTheHostReadsIt) {
  answers_ = {{kVersion, {0, "13"}}, {kManufacturer, {0, "samsung"}}, {kModel, {0, "SM-G991B"}}};
  // ADB's letter case is the actual serial; details are fetched before the report.
  const Strings reports =
      Poll(UsbTableOf({UsbDevice("r58m123abc", 1256, 26720, "SAMSUNG", "SAMSUNG_Android")}),
           AdbTableOf({{"R58M123ABC", DeviceAuthored}}));
  ASSERT_EQ(1u, reports.size());
  const std::string expected =
      "{\n   \"changed\" : \n   [\n      {\n"
      "         \"actual_serial\" : \"R58M123ABC\",\n         \"adb_error_code\" : 0,\n"
      "         \"key_serial\" : \"r58m123abc\",\n         \"manufacturer\" : \"samsung\",\n"
      "         \"model\" : \"SM-G991B\",\n         \"new_status\" : \"AuthoredConnect\",\n"
      "         \"old_status\" : \"NotConnect\",\n         \"os_version\" : \"13\",\n"
      "         \"pid\" : 26720,\n         \"vid\" : 1256,\n         \"vid_manufacturer\" : \"SAMSUNG\"\n"
      "      }\n   ]\n}";
  EXPECT_EQ(expected, reports[0]);
  EXPECT_EQ(1, log_capture::Count(1, expected)) << "the whole report goes to the log";
}

// The report's texts from a detail record made by hand.
struct TextCase {
  uint32_t vid;
  std::string usb_manufacturer, usb_product, manufacturer, model, os_version;
  std::string vendor_out, model_out, manufacturer_out, os_out;
};

TEST_F(Listener, ReportTextsComeFromTheRightSourceCleanedAsTheHostExpects) {
  const std::vector<TextCase> cases = {
      {0, "Anything", "", "", "", "", "", "", "", ""},  // no USB side
      {6353, "", "", "", "", "", "", "", "", ""},       // chipset vendors never fall back to the list
      {1256, "", "", "", "", "", "Samsung", "", "", ""},  // listed vendor, no USB string
      {4242, "Unknown Co", "", "", "", "", "", "", "", ""},  // vendor not listed
      // "\u" is removed from the USB product, also where a removal makes a new one.
      {0, "", "Pixel\\u00207\\\\uu", "Google Inc.", "", "", "", "Pixel00207", "", ""},
      {0, "", "", "a,b", "", "", "", "", "", ""},
      {0, "", "", "a\\ub", "", "", "", "", "", ""},
      {0, "", "", "a\\b u", "", "", "", "", "a\\b u", ""},
      // Bytes that are not UTF-8 reach the host as the Latin-1 characters they are.
      {0, "", "", "Caf\xc3\xa9 \xe6\x97\xa5", "Pixel\xe9 X", "\xed\xa0\x80", "", "Pixel\xc3\xa9 X",
       "Caf\xc3\xa9 \xe6\x97\xa5", "\xc3\xad\xc2\xa0\xc2\x80"},
  };
  for (const TextCase& c : cases) {
    DeviceInfo_ record;
    record.vid = c.vid;
    record.usb_manufacturer = c.usb_manufacturer;
    record.usb_product = c.usb_product;
    record.manufacturer = c.manufacturer;
    record.model = c.model;
    record.os_version = c.os_version;
    const std::string report = listener_->ConvertDeviceChangeToJson(
        {{"k\xff", "K\xff", NotConnect, MtpConnect}}, {{"k\xff", record}}, 0);
    const Json::Value entry = ParseJson(report)["changed"][0];
    const Strings got = {entry["vid_manufacturer"].asString(), entry["model"].asString(),
                         entry["manufacturer"].asString(), entry["os_version"].asString()};
    EXPECT_EQ((Strings{c.vendor_out, c.model_out, c.manufacturer_out, c.os_out}), got) << report;
    EXPECT_EQ("K\xc3\xbf", entry["actual_serial"].asString());
  }
}

// ADB's list text into the status map, each device as "key serial status" (0 authorised,
// 1 unauthorised, 2 offline, 3 not usable through ADB). Each text is read twice, as two polls would.
struct ListCase {
  std::string text;
  Strings expected;
  int offline_lines;        // on each poll
  int no_permission_lines;  // on the first poll only
};

TEST_F(Listener, TheAdbListTextIsReadEntryByEntry) {
  const std::string wireless = "adb-R58M30ABCDE-AbC123._adb-tls-connect._tcp";
  const std::vector<ListCase> cases = {
      {"", {}, 0, 0},
      {"Ab-device;aB-unauthorized;", {"ab aB 1"}, 0, 0},
      {"emulator-5554-offline;emulator-5556-device;",
       {"emulator-5554 emulator-5554 2", "emulator-5556 emulator-5556 0"}, 1, 0},
      {wireless + "-device;build-host.lan:5555-unauthorized;",
       {"adb-r58m30abcde-abc123._adb-tls-connect._tcp " + wireless + " 0",
        "build-host.lan:5555 build-host.lan:5555 1"}, 0, 0},
      {"x-unauthorized offline;", {"x x 1"}, 0, 0},
      {"x-OFFLINE;w-someday;b-bootloader;r-recovery;s-sideload;e-rescue;h-host;d-detached;",
       {"b b 3", "d d 3", "e e 3", "h h 3", "r r 3", "s s 3", "w w 3", "x x 3"}, 0, 0},
      {"c-connecting;a-authorizing;", {}, 0, 0},  // left out until ADB settles
      {"np-1-no permissions;NP2-no permissions;", {"np-1 np-1 3", "np2 NP2 3"}, 0, 2},
      {"nodash;-device;a-device;b-device", {"a a 0"}, 0, 0},
  };
  for (const ListCase& c : cases) {
    SetUp();
    List(c.text);
    for (int poll = 0; poll < 2; ++poll) {
      std::map<std::string, DeviceAuthorInfo_> devices;
      ASSERT_EQ(0, GetDevicesAuthorStatusEx(devices)) << c.text;
      Strings got;
      for (const auto& [key, device] : devices) {
        got.push_back(key + " " + device.serial + " " + std::to_string(device.status));
      }
      EXPECT_EQ(c.expected, got) << c.text;
    }
    EXPECT_EQ(2 * c.offline_lines, log_capture::Count(3, "Device offline.\r")) << c.text;
    EXPECT_EQ(c.no_permission_lines, log_capture::CountContaining("51-pelmora-android.rules")) << c.text;
  }
}

// The detail cache: what is asked of ADB for a phone, when, and what its entries show.
enum Seen { Gone, UsbOnly, Authorised, Unauthorised, NotUsable };
struct DetailStep {
  std::map<std::string, std::pair<int, std::string>> answers;  // changed before the poll
  Seen seen;
  std::string entry;  // "old>new os_version/manufacturer/model"; "" for no report
  std::string asked;  // reads so far of the version, manufacturer and model
  Strings errors = {};  // the poll's error lines
};

using DetailLookup = Listener;
TEST_F(DetailLookup, EachTextIsAskedUntilKnownAndLateTextsAreReportedAgain) {
  const std::string closed = "AdbGetPhoneSoftVersion() error code：0， buffer：error: closed";
  const std::vector<std::vector<DetailStep>> scenarios = {
      // Fetched once and kept while the phone stays, shown only while it is authorised.
      {{{}, UsbOnly, "NotConnect>MtpConnect //Pixel 8 USB", "0/0/0"},
       {{}, Authorised, "MtpConnect>AuthoredConnect 14/Google/Pixel 8", "1/1/1"},
       {{}, Authorised, "", "1/1/1"},
       {{}, Unauthorised, "AuthoredConnect>UnauthoredConnect 14//Pixel 8 USB", "1/1/1"},
       {{}, NotUsable, "UnauthoredConnect>AdbConnect 14//Pixel 8 USB", "1/1/1"},
       {{}, Authorised, "AdbConnect>AuthoredConnect 14/Google/Pixel 8", "1/1/1"},
       {{}, Gone, "AuthoredConnect>NotConnect //", "1/1/1"},
       {{}, Authorised, "NotConnect>AuthoredConnect 14/Google/Pixel 8", "2/2/2"}},
      // A version that keeps failing is tried five times per poll, silently.
      {{{{kVersion, {105, ""}}}, Authorised, "NotConnect>AuthoredConnect /Google/Pixel 8", "5/1/1"},
       {{{kVersion, {0, "15"}}}, Authorised, "AuthoredConnect>AuthoredConnect 15/Google/Pixel 8", "6/1/1"}},
      // A closed link ends the poll's lookup.
      {{{{kVersion, {0, "error: closed"}}}, Authorised, "NotConnect>AuthoredConnect //Pixel 8 USB", "1/0/0",
        {closed}},
       {{{kVersion, {0, "14"}}}, Authorised, "AuthoredConnect>AuthoredConnect 14/Google/Pixel 8", "2/1/1"}},
      // A failing or empty manufacturer or model is logged, asked again, and reported when it comes.
      {{{{kManufacturer, {104, ""}}}, Authorised, "NotConnect>AuthoredConnect 14//Pixel 8 USB", "1/1/0",
        {"AdbGetPhoneManufacturer() error 104"}},
       {{{kManufacturer, {0, "Google"}}, {kModel, {106, ""}}}, Authorised,
        "AuthoredConnect>AuthoredConnect 14/Google/Pixel 8 USB", "1/2/1", {"AdbGetPhoneProductModel() error 106"}},
       {{{kModel, {0, ""}}}, Authorised, "", "1/2/2"},
       {{{kModel, {0, "Pixel 8"}}}, Authorised, "AuthoredConnect>AuthoredConnect 14/Google/Pixel 8", "1/2/3"},
       {{}, Authorised, "", "1/2/3"}},
  };
  const UsbTable usb = UsbTableOf({UsbDevice("GX7", 6353, 20199, "Google", "Pixel\\u 8 USB")});
  const AdbList adb[] = {{}, {}, {{"GX7", DeviceAuthored}}, {{"GX7", DeviceUnauthored}},
                         {{"GX7", DeviceNotUsableThroughAdb}}};  // by Seen
  for (size_t s = 0; s < scenarios.size(); ++s) {
    SetUp();
    answers_ = {{kVersion, {0, "14"}}, {kManufacturer, {0, "Google"}}, {kModel, {0, "Pixel 8"}}};
    for (size_t i = 0; i < scenarios[s].size(); ++i) {
      const DetailStep& step = scenarios[s][i];
      for (const auto& [property, answer] : step.answers) answers_[property] = answer;
      log_capture::Clear();
      const Strings got = Poll(step.seen == Gone ? UsbTable{} : usb, AdbTableOf(adb[step.seen]));
      std::string entry;
      for (const std::string& report : got) {
        const Json::Value e = ParseJson(report)["changed"][0];
        entry += e["old_status"].asString() + ">" + e["new_status"].asString() + " " + e["os_version"].asString() +
                 "/" + e["manufacturer"].asString() + "/" + e["model"].asString();
      }
      Strings errors;
      for (const log_capture::Line& line : log_capture::Lines()) {
        if (line.level == 3) errors.push_back(line.text);
      }
      const std::string where = "scenario " + std::to_string(s) + " step " + std::to_string(i);
      EXPECT_EQ(step.entry, entry) << where;
      EXPECT_EQ(step.asked, std::to_string(Asked("AdbGetPhoneSoftVersion")) + "/" +
                                std::to_string(Asked("AdbGetPhoneManufacturer")) + "/" +
                                std::to_string(Asked("AdbGetPhoneProductModel"))) << where;
      EXPECT_EQ(step.errors, errors) << where;
    }
  }
}

// The poll thread: its reports over time, starts and stops, and tables written meanwhile.
TEST_F(Listener, TheFilterListsCanBeReloadedWhileThePollThreadReadsThem) {
  List("W1-device;");
  watcher_.Plug(UsbDevice("W1", 1256, 26720));
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 1ms});
  ASSERT_EQ(0, listener_->StartListen());
  ASSERT_EQ((Strings{"w1:NotConnect->AuthoredConnect"}), Next());
  // As a second InitPelmora would; the USB table written meanwhile is the soak test's part.
  const TempDir dir;
  for (int i = 0; i < 100; ++i) {
    List(i % 2 == 0 ? "W1-device;" : "W1-unauthorized;");
    std::ofstream(dir.path() + "/AndroidVID.ini") << "Vendor" << i << "=" << 20000 + i << "\n";
    std::ofstream(dir.path() + "/AndroidPIDWhite.ini") << 20000 + i << "=1\n";
    ASSERT_EQ(0, LoadVIDConfig(dir.path().c_str()));
  }
  listener_->StopListen();
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));
  for (const std::string& report : reports::All()) {
    EXPECT_EQ("Samsung", ParseJson(report)["changed"][0]["vid_manufacturer"].asString()) << report;
  }
}

TEST_F(Listener, EveryStartReportsEveryDeviceAgainWithOneThread) {
  List("A-device;B-unauthorized;");
  const Strings all = {"a:NotConnect->AuthoredConnect", "b:NotConnect->UnauthoredConnect"};
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 300ms});
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ(all, Next());
  // A second start, then a stop and a start within the pause: the same thread goes on, and
  // each start is answered by a fresh report of every device.
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ(all, Next());
  listener_->StopListen();
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ(all, Next());
  EXPECT_EQ(1, log_capture::CountContaining("Enter ListenThread"));
  EXPECT_EQ(0, log_capture::CountContaining("Exit ListenThread"));

  listener_->StopListen();
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ(all, Next());
  EXPECT_EQ(2, log_capture::CountContaining("Enter ListenThread"));
  EXPECT_EQ(4, watcher_.starts) << "every start asks the watcher to start";
  // A failing query is logged on every poll (its report is in PollThroughServer).
  List("", 103);
  EXPECT_TRUE(WaitForLine("[ListenThread] fail to GetDevicesAuthorStatus(), error 103!", 2));
}

TEST_F(Listener, AStopDuringAPollLetsThatPollFinishItsReport) {
  std::mutex gate;
  gate.lock();
  fake_adb::Script script;
  script.list = "SLOW-device;";
  script.property = [&gate](const std::string&, const std::string&, std::string* value) {
    std::lock_guard<std::mutex> held(gate);  // the poll waits here until the test lets it go
    *value = "x";
    return 0;
  };
  fake_adb::SetScript(script);
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 20ms});
  ASSERT_EQ(0, listener_->StartListen());
  ASSERT_TRUE(Eventually([this] { return Asked("AdbGetPhoneSoftVersion") > 0; }));
  listener_->StopListen();
  gate.unlock();
  EXPECT_EQ((Strings{"slow:NotConnect->AuthoredConnect"}), Next());
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));
  EXPECT_EQ(1u, reports::All().size());
}

}  // namespace
