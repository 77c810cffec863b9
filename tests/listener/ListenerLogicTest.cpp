// The listener's logic over the in-memory ADB library: one poll's merge and report as tables, the
// detail lookups, and the poll thread over time.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <thread>

#include "AndListenerEx.h"
#include "FakeTarnwell.h"
#include "ListenerTestSupport.h"
#include "LoadConfig.h"
#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;
using AdbList = std::vector<std::pair<std::string, DeviceAuthorStatus>>;
constexpr const char* kVersion = "ro.build.version.release";
constexpr const char* kManufacturer = "ro.product.manufacturer";
constexpr const char* kModel = "ro.product.model";

class Listener : public ListenerTest {
 protected:
  void SetUp() override {
    ListenerTest::SetUp();
    fake_adb::Reset();
    log_capture::Clear();
    fake_adb::Script script;
    // Each phone's properties as {code, text}; a phone not in the map answers empty texts.
    script.property = [this](const std::string& serial, const std::string& property, std::string* value) {
      const auto phone = phones_.find(serial);
      if (phone == phones_.end()) return 0;
      const auto answer = phone->second[property];
      *value = answer.second;
      return answer.first;
    };
    // What ADB lists, changed by the test while a poll thread runs.
    script.devices = [this](std::string* list) {
      std::lock_guard<std::mutex> lock(list_mutex_);
      *list = list_;
      return list_code_;
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
  void List(const std::string& text, int code = 0) {
    std::lock_guard<std::mutex> lock(list_mutex_);
    list_ = text;
    list_code_ = code;
  }
  int Asked(const std::string& function) {
    int count = 0;
    for (const std::string& call : fake_adb::Calls()) count += call.rfind(function, 0) == 0 ? 1 : 0;
    return count;
  }
  bool WaitForLine(const std::string& text, int count) {
    for (auto until = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < until;) {
      if (log_capture::CountContaining(text) >= count) return true;
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }

  std::map<std::string, std::map<std::string, std::pair<int, std::string>>> phones_;
  std::mutex list_mutex_;
  std::string list_;
  int list_code_ = 0;
  std::optional<AndListenerEx> listener_{std::in_place, reports::Collect};
  std::map<std::string, DeviceBasicInfo_> previous_;
  int last_code_ = 0;
};

struct Step {
  std::vector<DeviceModleInfo> usb;
  AdbList adb;
  int code;
  Strings expected;    // the one report's transitions; none: no report
  std::string entry = "";  // when set, the report's first entry as compact JSON
};

TEST_F(Listener, EachPollReportsWhatChangedOnceInOrder) {
  const auto stick = UsbDevice("stick", 65535, 2, "Acme Corp.", "Stick");
  const auto a1 = UsbDevice("a1", 1256, 1);
  const AdbList a1b2 = {{"a1", DeviceUnauthored}, {"b2", DeviceOffline}};
  const auto r58m = UsbDevice("R58M", 1256, 26720, "SAMSUNG", "Galaxy");
  const auto pix = UsbDevice("PIX1", 6353, 20199, "Google", "Pixel 7");
  phones_["Pix1"] = {{kModel, {0, "Pixel 7"}}};
  const std::vector<std::vector<Step>> scenarios = {
      {{{UsbDevice("ABC", 1256, 1)}, {{"ZX1", DeviceUnauthored}}, 0,
        {"abc:NotConnect->MtpConnect", "zx1:NotConnect->UnauthoredConnect"}},
       {{UsbDevice("ABC", 1256, 1)}, {{"ZX1", DeviceUnauthored}}, 0, {}}},
      // The USB and ADB views of one phone meet under one key, whatever the letter case.
      {{{r58m}, {}, 0, {"r58m:NotConnect->MtpConnect"}},
       {{r58m}, {{"r58m", DeviceUnauthored}}, 0, {"r58m:MtpConnect->UnauthoredConnect"}},
       {{r58m}, {{"r58m", DeviceAuthored}}, 0, {"r58m:UnauthoredConnect->AuthoredConnect"}}},
      // Gone: its serial, zeros and empty texts.
      {{{pix}, {{"Pix1", DeviceAuthored}}, 0, {"pix1:NotConnect->AuthoredConnect"}},
       {{}, {}, 0, {"pix1:AuthoredConnect->NotConnect"},
        R"({"actual_serial":"Pix1","adb_error_code":0,"key_serial":"pix1","manufacturer":"",)"
        R"("model":"","new_status":"NotConnect","old_status":"AuthoredConnect","os_version":"",)"
        R"("pid":0,"vid":0,"vid_manufacturer":""})"}},
      // A failing query: with nothing attached nothing; then once per new code.
      {{{}, {}, 5, {}}, {{}, {}, 5, {}},
       {{stick}, {}, 5, {"stick:NotConnect->MtpConnect#5"},
        R"({"actual_serial":"","adb_error_code":5,"key_serial":"stick","manufacturer":"","model":"Stick",)"
        R"("new_status":"MtpConnect","old_status":"NotConnect","os_version":"","pid":2,"vid":65535,)"
        R"("vid_manufacturer":""})"},
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
    listener_.emplace(reports::Collect);
    previous_.clear();
    last_code_ = 0;
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
      if (!step.entry.empty()) {
        EXPECT_EQ(ParseJson(step.entry), ParseJson(got[0])["changed"][0]);
      }
    }
  }
}

TEST_F(Listener, TheWholeReportTextIsExactlyAsTheHostReadsIt) {
  phones_["R58M123ABC"] = {{kVersion, {0, "13"}}, {kManufacturer, {0, "samsung"}}, {kModel, {0, "SM-G991B"}}};
  // ADB's letter case is the actual serial; details are fetched before the report.
  const Strings reports =
      Poll(UsbTableOf({UsbDevice("r58m123abc", 1256, 26720, "SAMSUNG", "SAMSUNG_Android")}),
           AdbTableOf({{"R58M123ABC", DeviceAuthored}}));
  ASSERT_EQ(1u, reports.size());
  const std::string expected =
      "{\n"
      "   \"changed\" : \n"
      "   [\n"
      "      {\n"
      "         \"actual_serial\" : \"R58M123ABC\",\n"
      "         \"adb_error_code\" : 0,\n"
      "         \"key_serial\" : \"r58m123abc\",\n"
      "         \"manufacturer\" : \"samsung\",\n"
      "         \"model\" : \"SM-G991B\",\n"
      "         \"new_status\" : \"AuthoredConnect\",\n"
      "         \"old_status\" : \"NotConnect\",\n"
      "         \"os_version\" : \"13\",\n"
      "         \"pid\" : 26720,\n"
      "         \"vid\" : 1256,\n"
      "         \"vid_manufacturer\" : \"SAMSUNG\"\n"
      "      }\n"
      "   ]\n"
      "}";
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
      {1478, "Qualcomm Inc", "", "", "", "", "Qualcomm Inc", "", "", ""},
      {1256, "", "", "", "", "", "Samsung", "", "", ""},  // listed vendor, no USB string
      {1256, "SAMSUNG", "", "", "", "", "SAMSUNG", "", "", ""},
      {4242, "Unknown Co", "", "", "", "", "", "", "", ""},  // vendor not listed
      // "\u" is removed from the USB product, also where a removal makes a new one.
      {0, "", "Pixel\\u00207\\\\uu", "Google Inc.", "", "", "", "Pixel00207", "", ""},
      {0, "", "USB name", "Google", "Pixel 7", "14", "", "Pixel 7", "Google", "14"},
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
  EXPECT_EQ("", listener_->ConvertDeviceChangeToJson({}, {{"k", DeviceInfo_{}}}, 0));
}

// ADB's list text into the status map. Each text is read twice, as two polls would.
struct ListCase {
  std::string text;
  std::map<std::string, std::pair<DeviceAuthorStatus, std::string>> expected;
  int offline_lines;        // on each poll
  int no_permission_lines;  // on the first poll only
};

TEST_F(Listener, TheAdbListTextIsReadEntryByEntry) {
  const std::string wireless = "adb-R58M30ABCDE-AbC123._adb-tls-connect._tcp";
  const DeviceAuthorStatus kNotUsable = DeviceNotUsableThroughAdb;
  const std::vector<ListCase> cases = {
      {"", {}, 0, 0},
      {"A1-device;", {{"a1", {DeviceAuthored, "A1"}}}, 0, 0},
      {"Ab-device;aB-unauthorized;", {{"ab", {DeviceUnauthored, "aB"}}}, 0, 0},
      {"emulator-5554-offline;emulator-5556-device;",
       {{"emulator-5554", {DeviceOffline, "emulator-5554"}},
        {"emulator-5556", {DeviceAuthored, "emulator-5556"}}}, 1, 0},
      {wireless + "-device;build-host.lan:5555-unauthorized;",
       {{"adb-r58m30abcde-abc123._adb-tls-connect._tcp", {DeviceAuthored, wireless}},
        {"build-host.lan:5555", {DeviceUnauthored, "build-host.lan:5555"}}}, 0, 0},
      {"x-unauthorized offline;", {{"x", {DeviceUnauthored, "x"}}}, 0, 0},
      {"x-OFFLINE;y-recovery;z-bootloader;", {{"x", {kNotUsable, "x"}}, {"y", {kNotUsable, "y"}},
                                             {"z", {kNotUsable, "z"}}}, 0, 0},
      {"s1-sideload;r1-rescue;h1-host;d1-detached;w1-someday;",
       {{"s1", {kNotUsable, "s1"}}, {"r1", {kNotUsable, "r1"}}, {"h1", {kNotUsable, "h1"}},
        {"d1", {kNotUsable, "d1"}}, {"w1", {kNotUsable, "w1"}}}, 0, 0},
      {"c1-connecting;a1-authorizing;", {}, 0, 0},
      {"np-1-no permissions;NP2-no permissions;",
       {{"np-1", {kNotUsable, "np-1"}}, {"np2", {kNotUsable, "NP2"}}}, 0, 2},
      {"a-device;b-device", {{"a", {DeviceAuthored, "a"}}}, 0, 0},
      {"nodash;-device;a-device;junk", {{"a", {DeviceAuthored, "a"}}}, 0, 0},
      {"a,b-device;", {{"a,b", {DeviceAuthored, "a,b"}}}, 0, 0},
  };
  for (const ListCase& c : cases) {
    SetUp();
    List(c.text);
    for (int poll = 0; poll < 2; ++poll) {
      std::map<std::string, DeviceAuthorInfo_> devices;
      ASSERT_EQ(0, GetDevicesAuthorStatusEx(devices)) << c.text;
      std::map<std::string, std::pair<DeviceAuthorStatus, std::string>> got;
      for (const auto& [key, device] : devices) got[key] = {device.status, device.serial};
      EXPECT_EQ(c.expected, got) << c.text;
    }
    EXPECT_EQ(2 * c.offline_lines, log_capture::Count(3, "Device offline.\r")) << c.text;
    EXPECT_EQ(c.no_permission_lines, log_capture::CountContaining("51-pelmora-android.rules")) << c.text;
    EXPECT_EQ(0, fake_adb::OutstandingLists()) << "every list text is handed back";
  }
  EXPECT_EQ(AdbConnect, ConvertAuthorStatus2ConnectStatus(DeviceNotUsableThroughAdb));

  // A failure is returned, the map kept, and nothing released.
  SetUp();
  List("", 103);
  std::map<std::string, DeviceAuthorInfo_> devices{{"kept", {DeviceOffline, "kept"}}};
  EXPECT_EQ(103, GetDevicesAuthorStatusEx(devices));
  EXPECT_EQ(1u, devices.size());
  EXPECT_EQ((Strings{"AdbGetDevicesEx"}), fake_adb::Calls());
}

// The detail cache: what is asked of ADB for an authorised phone, when, and what the report shows.
class DetailLookup : public Listener {
 protected:
  void SetUp() override {
    Listener::SetUp();
    phones_["GX7"] = {{kVersion, {0, "14"}}, {kManufacturer, {0, "Google"}}, {kModel, {0, "Pixel 8"}}};
  }
  // One poll with the phone attached over USB and listed by ADB in this state; its entry.
  Json::Value PollPhone(DeviceAuthorStatus status, bool attached = true) {
    const Strings got = attached ? Poll(UsbTableOf({UsbDevice("GX7", 6353, 20199, "Google", "Pixel\\u 8 USB")}),
                                        AdbTableOf({{"GX7", status}}))
                                 : Poll({}, {});
    return got.empty() ? Json::Value() : ParseJson(got.back())["changed"][0];
  }
  const DeviceInfo_& Record() { return listener_->DetailCache().at("gx7"); }
  std::pair<int, std::string>& Answer(const char* property) { return phones_["GX7"][property]; }
};

TEST_F(DetailLookup, DetailsAreFetchedOnceAndKeptWhileThePhoneStays) {
  Poll(UsbTableOf({UsbDevice("GX7", 6353, 20199, "Google", "Pixel\\u 8 USB")}), {});
  EXPECT_EQ(MtpConnect, Record().status);
  EXPECT_TRUE(fake_adb::Calls().empty()) << "a USB-only phone is cached without asking ADB";

  const Json::Value entry = PollPhone(DeviceAuthored);
  EXPECT_EQ((Strings{"14", "Google", "Pixel 8"}),
            (Strings{entry["os_version"].asString(), entry["manufacturer"].asString(),
                     entry["model"].asString()}));
  for (int i = 0; i < 3; ++i) PollPhone(DeviceAuthored);
  EXPECT_EQ(3u, fake_adb::Calls().size()) << "each property once";

  // Back to unauthorised: ADB's texts stay cached, the report falls back to the USB side.
  const Json::Value unauthorised = PollPhone(DeviceUnauthored);
  EXPECT_EQ("", unauthorised["manufacturer"].asString());
  EXPECT_EQ("Pixel 8 USB", unauthorised["model"].asString());
  EXPECT_EQ("14", unauthorised["os_version"].asString());
  EXPECT_EQ("Pixel 8", Record().adb_model);

  // Gone and back: asked afresh.
  PollPhone(DeviceAuthored, false);
  EXPECT_TRUE(listener_->DetailCache().empty());
  PollPhone(DeviceAuthored);
  EXPECT_EQ(2, Asked("AdbGetPhoneProductModel"));
}

TEST_F(DetailLookup, AVersionThatKeepsFailingIsTriedFiveTimesPerPollSilently) {
  Answer(kVersion) = {105, ""};
  const Json::Value entry = PollPhone(DeviceAuthored);
  EXPECT_EQ(5, Asked("AdbGetPhoneSoftVersion"));
  EXPECT_EQ("", entry["os_version"].asString());
  EXPECT_EQ("Google", entry["manufacturer"].asString());
  EXPECT_EQ("Pixel 8", entry["model"].asString());
  EXPECT_EQ(2u, log_capture::Lines().size()) << "only the report and the callback's answer";

  Answer(kVersion) = {0, "15"};
  PollPhone(DeviceAuthored);
  EXPECT_EQ(6, Asked("AdbGetPhoneSoftVersion"));
  EXPECT_EQ("15", Record().os_version);
}

TEST_F(DetailLookup, AClosedConnectionStopsThePollsLookupAndIsLoggedOnce) {
  Answer(kVersion) = {0, "error: closed"};
  const Json::Value entry = PollPhone(DeviceAuthored);
  EXPECT_EQ(1, log_capture::Count(3, "AdbGetPhoneSoftVersion() error code：0， buffer：error: closed"));
  EXPECT_EQ(1u, fake_adb::Calls().size());
  EXPECT_EQ("", entry["os_version"].asString());
  EXPECT_EQ("", entry["manufacturer"].asString());
  EXPECT_EQ("Pixel 8 USB", entry["model"].asString());
}

// Texts that come late are reported then, as an entry whose status stays "AuthoredConnect".
TEST_F(DetailLookup, AFailingOrEmptyManufacturerOrModelIsLoggedAskedAgainAndReportedWhenItComes) {
  Answer(kManufacturer) = {104, ""};
  PollPhone(DeviceAuthored);
  EXPECT_EQ(1, log_capture::Count(3, "AdbGetPhoneManufacturer() error 104"));
  EXPECT_EQ(0, Asked("AdbGetPhoneProductModel"));

  Answer(kManufacturer) = {0, "Google"};
  Answer(kModel) = {106, ""};
  Json::Value late = PollPhone(DeviceAuthored);
  EXPECT_EQ(1, log_capture::Count(3, "AdbGetPhoneProductModel() error 106"));
  EXPECT_EQ("AuthoredConnect>AuthoredConnect Google/Pixel 8 USB",
            late["old_status"].asString() + ">" + late["new_status"].asString() + " " +
                late["manufacturer"].asString() + "/" + late["model"].asString());

  Answer(kModel) = {0, ""};
  EXPECT_TRUE(PollPhone(DeviceAuthored).isNull()) << "nothing new, no report";
  Answer(kModel) = {0, "Pixel 8"};
  EXPECT_EQ("Pixel 8", PollPhone(DeviceAuthored)["model"].asString());
  EXPECT_TRUE(PollPhone(DeviceAuthored).isNull());
  EXPECT_EQ((std::vector<int>{1, 2, 3}),
            (std::vector<int>{Asked("AdbGetPhoneSoftVersion"), Asked("AdbGetPhoneManufacturer"),
                              Asked("AdbGetPhoneProductModel")}));
}

// The poll thread: its reports over time, starts and stops, and tables written meanwhile.
TEST_F(Listener, AFailingServerIsReportedWithItsCodeAndLoggedOnEveryPoll) {
  List("P1-device;");
  watcher_.Plug(UsbDevice("P1", 1256, 2));
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 20ms});
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ((Strings{"p1:NotConnect->AuthoredConnect"}), Next());
  List("", 103);
  EXPECT_EQ((Strings{"p1:AuthoredConnect->MtpConnect#103"}), Next());
  EXPECT_TRUE(WaitForLine("[ListenThread] fail to GetDevicesAuthorStatus(), error 103!", 2));
  List("P1-device;");
  EXPECT_EQ((Strings{"p1:MtpConnect->AuthoredConnect"}), Next());
}

TEST_F(Listener, TablesCanChangeWhileThePollThreadReadsThem) {
  watcher_.Plug(UsbDevice("W1", 1256, 26720));
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 1ms});
  ASSERT_EQ(0, listener_->StartListen());
  // The USB table from another thread, and the filter lists reloaded as a second InitPelmora would.
  const auto dir = std::filesystem::temp_directory_path() / ("pelmora-reload-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  for (int i = 0; i < 100; ++i) {
    List(i % 2 == 0 ? "W1-device;" : "W1-unauthorized;");
    watcher_.Plug(UsbDevice("U" + std::to_string(i % 7), 1256, 1));
    watcher_.Unplug("u" + std::to_string((i + 3) % 7));
    std::ofstream(dir / "AndroidVID.ini") << "Vendor" << i << "=" << 20000 + i << "\n";
    std::ofstream(dir / "AndroidPIDWhite.ini") << 20000 + i << "=1\n";
    ASSERT_EQ(0, LoadVIDConfig(dir.c_str()));
  }
  std::filesystem::remove_all(dir);
  watcher_.Plug(UsbDevice("LAST", 1256, 1));
  ASSERT_TRUE(WaitForLine("\"last\"", 1));
  listener_->StopListen();
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));
  for (const std::string& report : reports::All()) {
    const Json::Value parsed = ParseJson(report);
    for (const Json::Value& entry : parsed["changed"]) {
      if (entry["key_serial"] == "w1") {
        EXPECT_EQ("Samsung", entry["vid_manufacturer"].asString()) << report;
      }
    }
  }
  EXPECT_TRUE(IsDeviceOnWhitePidList(20099, 1));
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
}

TEST_F(Listener, AStopDuringAPollLetsThatPollFinishItsReport) {
  std::mutex gate;
  gate.lock();
  fake_adb::Script script;
  script.devices = [](std::string* list) { *list = "SLOW-device;"; return 0; };
  script.property = [&gate](const std::string&, const std::string&, std::string* value) {
    std::lock_guard<std::mutex> held(gate);  // the poll waits here until the test lets it go
    *value = "x";
    return 0;
  };
  fake_adb::SetScript(script);
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 20ms});
  ASSERT_EQ(0, listener_->StartListen());
  std::this_thread::sleep_for(50ms);
  listener_->StopListen();
  gate.unlock();
  EXPECT_EQ((Strings{"slow:NotConnect->AuthoredConnect"}), Next());
  ASSERT_TRUE(WaitForLine("Exit ListenThread", 1));
  EXPECT_EQ(1u, reports::All().size());
}

}  // namespace
