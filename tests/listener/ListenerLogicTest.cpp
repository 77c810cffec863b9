// The listener's logic over the in-memory ADB library: one table of polls made by hand (the merge,
// the report and its texts, the detail lookups), ADB's list text, and the poll thread over time.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>

#include "AndListenerEx.h"
#include "Tarnwell.h"
#include "Common.h"
#include "FakeTarnwell.h"
#include "ListenerTestSupport.h"
#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;
using AdbList = std::vector<std::pair<std::string, DeviceAuthorStatus>>;
using Answers = std::map<std::string, std::pair<int, std::string>>;
const std::string kVersion = "ro.build.version.release";
const std::string kManufacturer = "ro.product.manufacturer";
const std::string kModel = "ro.product.model";

UsbView UsbOf(const std::vector<DeviceModleInfo>& devices) {
  UsbView usb;
  for (const DeviceModleInfo& device : devices) usb[GetLowerCaseString(device.serial)] = device;
  return usb;
}
AdbView AdbOf(const AdbList& devices) {
  AdbView adb;
  for (const auto& [serial, status] : devices) adb[GetLowerCaseString(serial)] = {status, serial};
  return adb;
}

class Listener : public ListenerTest {
 protected:
  // Also between the cases of a table: a fresh stand-in, log and listener.
  void SetUp() override {
    ListenerTest::SetUp();
    fake_adb::Reset();
    log_capture::Clear();
    answers_ = {{kVersion, {0, "14"}}, {kManufacturer, {0, "Google"}}, {kModel, {0, "Pixel 8"}}};
    listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 0ms, true});
    previous_.clear();
    last_code_ = 0;
    fake_adb::Script script;
    // Every phone's properties as {code, text}, by "property serial" before "property"; one in
    // neither is an empty text.
    script.property = [this](const std::string& serial, const std::string& property, std::string* value) {
      auto answer = answers_.find(property + " " + serial);
      if (answer == answers_.end()) answer = answers_.find(property);
      if (answer == answers_.end()) return 0;
      *value = answer->second.second;
      return answer->second.first;
    };
    fake_adb::SetScript(script);
  }
  // One poll by hand, with no ADB view when the query failed; the reports it produced.
  Strings Poll(const std::vector<DeviceModleInfo>& usb_devices, const AdbList& adb_devices, int code = 0) {
    const UsbView usb = UsbOf(usb_devices);
    const AdbView adb = AdbOf(adb_devices);
    const size_t before = reports::All().size();
    listener_->DealListenInfo(&usb, code == 0 ? &adb : nullptr, &previous_, code, &last_code_);
    const Strings all = reports::All();
    return Strings(all.begin() + static_cast<long>(before), all.end());
  }
  // How often the version, manufacturer and model were read so far, as "v/m/m".
  static std::string Asked() {
    std::string counts;
    for (const char* read : {"AdbGetPhoneSoftVersion", "AdbGetPhoneManufacturer", "AdbGetPhoneProductModel"}) {
      int count = 0;
      for (const std::string& call : fake_adb::Calls()) count += call.rfind(read, 0) == 0 ? 1 : 0;
      counts += (counts.empty() ? "" : "/") + std::to_string(count);
    }
    return counts;
  }
  static bool WaitForLine(const std::string& text, int count) {
    return Eventually([&] { return log_capture::CountContaining(text) >= count; });
  }

  Answers answers_;
  std::optional<AndListenerEx> listener_;
  std::map<std::string, DeviceBasicInfo_> previous_;
  int last_code_ = 0;
};

// One poll by hand: the phones on USB and on ADB, or the failing query's code.
struct Step {
  std::vector<DeviceModleInfo> usb;
  AdbList adb;
  int code;
  Strings expected;        // the one report's entries, as Entries() writes them; none: no report
  std::string asked = "";  // Asked() after the poll; "": not checked
  Answers answers = {};    // changed before the poll
  Strings errors = {};     // the poll's error lines
};

// Each entry of a report as "key:old->new#code", then " vendor|os/manufacturer/model" when any of
// those texts is set. The actual serial is ADB's letter case of the key.
Strings Entries(const std::string& report) {
  Strings out = Transitions(report);
  const Json::Value parsed = ParseJson(report);  // kept: the loop must not outlive it
  for (Json::ArrayIndex i = 0; i < parsed["changed"].size(); ++i) {
    const Json::Value& e = parsed["changed"][i];
    const std::string texts = e["vid_manufacturer"].asString() + "|" + e["os_version"].asString() + "/" +
                              e["manufacturer"].asString() + "/" + e["model"].asString();
    if (texts != "|//") out[i] += " " + texts;
    const std::string actual = e["actual_serial"].asString();
    EXPECT_TRUE(actual.empty() || GetLowerCaseString(actual) == e["key_serial"].asString()) << report;
  }
  return out;
}

TEST_F(Listener, EachPollReportsWhatChangedAndItsTextsOnceInOrder) {
  const auto stick = UsbDevice("stick", 65535, 2);
  const auto a1 = UsbDevice("a1", 1256, 1);
  const AdbList a1b2 = {{"a1", DeviceUnauthored}, {"b2", DeviceNotUsableThroughAdb}};
  const auto gx7 = UsbDevice("GX7", 6353, 20199, "Google", "Pixel\\u 8 USB");
  const AdbList on = {{"GX7", DeviceAuthored}};
  const std::string gx7_on = "gx7:AuthoredConnect->AuthoredConnect Google|";
  const std::vector<std::vector<Step>> scenarios = {
      // A failing query: with nothing attached nothing; then once per new code.
      {{{}, {}, 5, {}}, {{}, {}, 5, {}},
       {{stick}, {}, 5, {"stick:NotConnect->MtpConnect#5"}},
       {{stick}, {}, 6, {"stick:MtpConnect->MtpConnect#6"}}, {{stick}, {}, 6, {}}, {{stick}, {}, 6, {}},
       {{stick}, {}, -1, {"stick:MtpConnect->MtpConnect#-1"}}},
      // A dropped query moves phones to the USB view and back, without a second snapshot.
      {{{a1}, a1b2, 0, {"a1:NotConnect->UnauthoredConnect Samsung|//", "b2:NotConnect->AdbConnect"}},
       {{a1}, {}, 9, {"a1:UnauthoredConnect->MtpConnect#9 Samsung|//", "b2:AdbConnect->NotConnect#9"}},
       {{a1}, a1b2, 0, {"a1:MtpConnect->UnauthoredConnect Samsung|//", "b2:NotConnect->AdbConnect"}}},
      // White-listed phones first, each group in key order. The vendor: the USB string of a listed
      // vendor, else the list's name; none for an unlisted vendor, for no ID, and for chipset
      // vendors, whose list name says nothing of the phone's maker.
      {{{UsbDevice("e1", 1256, 1), UsbDevice("e2", 1256, 26720), UsbDevice("e3", 6353, 26720),
         UsbDevice("e4", 1256, 26720, "Acme"), UsbDevice("e5", 4242, 1, "Unknown Co"),
         UsbDevice("e0", 0, 0, "Anything")}, {}, 0,
        {"e2:NotConnect->MtpConnect Samsung|//", "e4:NotConnect->MtpConnect Acme|//",
         "e0:NotConnect->MtpConnect", "e1:NotConnect->MtpConnect Samsung|//", "e3:NotConnect->MtpConnect",
         "e5:NotConnect->MtpConnect"}}},
      // A change of ids alone is a change; a change of texts is not.
      {{{UsbDevice("k", 1256, 1, "Old", "Old")}, {}, 0, {"k:NotConnect->MtpConnect Old|//Old"}},
       {{UsbDevice("k", 1256, 1, "New", "New")}, {}, 0, {}},
       {{UsbDevice("k", 1256, 2)}, {}, 0, {"k:MtpConnect->MtpConnect Samsung|//"}}},
      // ADB's texts as the host reads them: a manufacturer with "\u", "," or "." is left out; "\u"
      // is cut from the USB product, also where a cut makes a new one; bytes that are not UTF-8
      // are the Latin-1 characters they are.
      {{{UsbDevice("p", 0, 0, "", "Pixel\\u00207\\\\uu")},
        {{"p", DeviceAuthored}, {"m1", DeviceAuthored}, {"m2", DeviceAuthored}, {"m3", DeviceAuthored},
         {"K\xff", DeviceAuthored}}, 0,
        {"k\xc3\xbf:NotConnect->AuthoredConnect |\xc3\xad\xc2\xa0\xc2\x80/Caf\xc3\xa9 \xe6\x97\xa5/Pixel\xc3\xa9 X",
         "m1:NotConnect->AuthoredConnect |14//Pixel 8", "m2:NotConnect->AuthoredConnect |14//Pixel 8",
         "m3:NotConnect->AuthoredConnect |14/a\\b u/Pixel 8", "p:NotConnect->AuthoredConnect |14//Pixel00207"},
        "", {{kModel + " p", {0, ""}}, {kManufacturer + " p", {0, "Google Inc."}},
             {kManufacturer + " m1", {0, "a,b"}}, {kManufacturer + " m2", {0, "a\\ub"}},
             {kManufacturer + " m3", {0, "a\\b u"}}, {kVersion + " K\xff", {0, "\xed\xa0\x80"}},
             {kManufacturer + " K\xff", {0, "Caf\xc3\xa9 \xe6\x97\xa5"}}, {kModel + " K\xff", {0, "Pixel\xe9 X"}}}}},
      // ADB's texts: fetched once and kept while the phone stays, shown only while it is authorised.
      {{{gx7}, {}, 0, {"gx7:NotConnect->MtpConnect Google|//Pixel 8 USB"}, "0/0/0"},
       {{gx7}, on, 0, {"gx7:MtpConnect->AuthoredConnect Google|14/Google/Pixel 8"}, "1/1/1"},
       {{gx7}, on, 0, {}, "1/1/1"},
       {{gx7}, {{"GX7", DeviceUnauthored}}, 0, {"gx7:AuthoredConnect->UnauthoredConnect Google|14//Pixel 8 USB"},
        "1/1/1"},
       {{gx7}, {{"GX7", DeviceNotUsableThroughAdb}}, 0,
        {"gx7:UnauthoredConnect->AdbConnect Google|14//Pixel 8 USB"}, "1/1/1"},
       {{gx7}, on, 0, {"gx7:AdbConnect->AuthoredConnect Google|14/Google/Pixel 8"}, "1/1/1"},
       {{}, {}, 0, {"gx7:AuthoredConnect->NotConnect"}, "1/1/1"},
       {{gx7}, on, 0, {"gx7:NotConnect->AuthoredConnect Google|14/Google/Pixel 8"}, "2/2/2"}},
      // A version that keeps failing is tried five times per poll, silently; texts that come late
      // are reported again, from authorised to authorised.
      {{{gx7}, on, 0, {"gx7:NotConnect->AuthoredConnect Google|/Google/Pixel 8"}, "5/1/1", {{kVersion, {105, ""}}}},
       {{gx7}, on, 0, {gx7_on + "15/Google/Pixel 8"}, "6/1/1", {{kVersion, {0, "15"}}}}},
      // A closed link ends the poll's lookup and keeps nothing; a failing or empty manufacturer or
      // model is logged, asked again, and reported when it comes.
      {{{gx7}, on, 0, {"gx7:NotConnect->AuthoredConnect Google|//Pixel 8 USB"}, "1/0/0",
        {{kVersion, {0, "error: closed"}}}, {"AdbGetPhoneSoftVersion() error code：0， buffer：error: closed"}},
       {{gx7}, on, 0, {gx7_on + "14//Pixel 8 USB"}, "2/1/0", {{kVersion, {0, "14"}}, {kManufacturer, {0, "error: closed"}}},
        {"AdbGetPhoneManufacturer() error code：0， buffer：error: closed"}},
       {{gx7}, on, 0, {gx7_on + "14/Google/Pixel 8 USB"}, "2/2/1", {{kManufacturer, {0, "Google"}}, {kModel, {0, "error: closed"}}},
        {"AdbGetPhoneProductModel() error code：0， buffer：error: closed"}},
       {{gx7}, on, 0, {}, "2/2/2", {{kModel, {106, ""}}}, {"AdbGetPhoneProductModel() error 106"}},
       {{gx7}, on, 0, {}, "2/2/3", {{kModel, {0, ""}}}},
       {{gx7}, on, 0, {gx7_on + "14/Google/Pixel 8"}, "2/2/4", {{kModel, {0, "Pixel 8"}}}},
       {{gx7}, on, 0, {}, "2/2/4"}},
  };
  for (size_t s = 0; s < scenarios.size(); ++s) {
    SetUp();
    for (size_t i = 0; i < scenarios[s].size(); ++i) {
      const Step& step = scenarios[s][i];
      const std::string where = "scenario " + std::to_string(s) + " step " + std::to_string(i);
      for (const auto& [property, answer] : step.answers) answers_[property] = answer;
      log_capture::Clear();
      const Strings got = Poll(step.usb, step.adb, step.code);
      ASSERT_EQ(step.expected.empty() ? 0u : 1u, got.size()) << where;
      if (!step.asked.empty()) { EXPECT_EQ(step.asked, Asked()) << where; }
      EXPECT_EQ(step.expected, got.empty() ? Strings{} : Entries(got[0])) << where;
      // The poll's log, the report itself aside: its error lines, then the callback's answer.
      Strings lines, expected_lines;
      for (const std::string& error : step.errors) expected_lines.push_back("3 " + error);
      if (!got.empty()) expected_lines.push_back("1 callback return " + std::to_string(reports::All().size()) + "\n");
      for (const log_capture::Line& line : log_capture::Lines()) {
        if (got.empty() || line.text != got[0]) lines.push_back(std::to_string(line.level) + " " + line.text);
      }
      EXPECT_EQ(expected_lines, lines) << where;
    }
  }
}

// The merge step alone, poll after poll at given times: a USB device with adb's interface waits
// for the ADB server to list it, a phone that has just become authorised for its details, each up
// to its bound; everything else is told at once.
TEST(DeviceTableSteps, HeldDevicesWaitForTheirNewsOrTheirBoundAndHoldUpNoOther) {
  struct Poll {
    int at_ms;
    std::vector<DeviceModleInfo> usb;
    std::optional<AdbList> adb;  // none: the query failed
    std::set<std::string> ready;  // phones whose details are in
    Strings changes;
  };
  const auto debug = UsbDevice("p", 6353, 1, "", "", true);  // declares adb's interface
  const auto plain = UsbDevice("p", 6353, 1);
  const auto other = UsbDevice("q", 6353, 2);
  const AdbList authorised = {{"p", DeviceAuthored}};
  const int adb_wait = static_cast<int>(kAdbListingWait.count());
  const int details_wait = static_cast<int>(kDetailsWait.count());
  const std::vector<std::vector<Poll>> scenarios = {
      {{0, {debug}, AdbList{}, {}, {}}, {adb_wait - 1, {debug, other}, AdbList{}, {}, {"q:NotConnect->MtpConnect"}},
       {adb_wait - 1, {debug, other}, AdbList{{"p", DeviceUnauthored}}, {}, {"p:NotConnect->UnauthoredConnect"}}},
      {{0, {debug}, AdbList{}, {}, {}}, {adb_wait, {debug}, AdbList{}, {}, {"p:NotConnect->MtpConnect"}}},
      // A phone adb has just found is offline until it answers; one that stays so is told.
      {{0, {plain}, AdbList{}, {}, {"p:NotConnect->MtpConnect"}}, {1, {plain}, AdbList{{"p", DeviceOffline}}, {}, {}},
       {2, {plain}, AdbList{{"p", DeviceUnauthored}}, {}, {"p:MtpConnect->UnauthoredConnect"}},
       {3, {plain}, AdbList{{"p", DeviceOffline}}, {}, {"p:UnauthoredConnect->OfflineConnect"}}},
      {{0, {}, AdbList{{"p", DeviceOffline}}, {}, {}}, {adb_wait, {}, AdbList{{"p", DeviceOffline}}, {}, {"p:NotConnect->OfflineConnect"}}},
      // Without adb's interface, or without a server to ask, nothing is awaited.
      {{0, {plain}, AdbList{}, {}, {"p:NotConnect->MtpConnect"}}},
      {{0, {debug}, std::nullopt, {}, {"p:NotConnect->MtpConnect#"}}},
      // Authorised: held until the details are in, or until the bound; at the status the host knows.
      {{0, {plain}, authorised, {}, {}}, {5, {plain}, authorised, {"p"}, {"p:NotConnect->AuthoredConnect"}}},
      {{0, {plain}, AdbList{}, {}, {"p:NotConnect->MtpConnect"}}, {10, {plain}, authorised, {}, {}},
       {10 + details_wait - 1, {plain, other}, authorised, {}, {"q:NotConnect->MtpConnect"}},
       {10 + details_wait, {plain, other}, authorised, {}, {"p:MtpConnect->AuthoredConnect"}}},
      // One wait after the other: the details' bound starts when ADB has listed the phone.
      {{0, {debug}, AdbList{}, {}, {}}, {adb_wait - 1, {debug}, authorised, {}, {}},
       {adb_wait - 1 + details_wait, {debug}, authorised, {}, {"p:NotConnect->AuthoredConnect"}}},
      // A device that leaves while held was never told of.
      {{0, {plain}, authorised, {}, {}}, {1, {}, AdbList{}, {}, {}}},
  };
  for (size_t s = 0; s < scenarios.size(); ++s) {
    DeviceTable previous;
    ReportHolds holds;
    const SteadyTime start = SteadyTime{} + std::chrono::hours(1);
    for (const Poll& poll : scenarios[s]) {
      const UsbView usb = UsbOf(poll.usb);
      const AdbView adb = AdbOf(poll.adb.value_or(AdbList{}));
      const PollViews views{&usb, poll.adb ? &adb : nullptr, &poll.ready, start + std::chrono::milliseconds(poll.at_ms)};
      DeviceTable merged;
      AndListenerEx::GetAssembleBasicInfo(&usb, views.adb, merged);
      DeviceTableStep step = StepDeviceTable(previous, merged, views, holds);
      Strings got;
      for (const DevicesStatusChangeInfo_& c : step.changes) {
        got.push_back(c.key_serial + ":" + DeviceStatusName(c.old_status) + "->" + DeviceStatusName(c.new_status) +
                      (poll.adb ? "" : "#"));
      }
      EXPECT_EQ(poll.changes, got) << "scenario " << s << " at " << poll.at_ms << " ms";
      previous = std::move(step.told);
    }
  }
}

TEST_F(Listener, TheWholeReportTextIsExactlyAsTheHostReadsIt) {
  // ADB's letter case is the actual serial; details are fetched before the report.
  const Strings reports =
      Poll({UsbDevice("r58m123abc", 1256, 26720, "SAMSUNG", "SAMSUNG_Android")}, {{"R58M123ABC", DeviceAuthored}});
  ASSERT_EQ(1u, reports.size());
  const std::string expected =
      "{\n   \"changed\" : \n   [\n      {\n"
      "         \"actual_serial\" : \"R58M123ABC\",\n         \"adb_error_code\" : 0,\n"
      "         \"key_serial\" : \"r58m123abc\",\n         \"manufacturer\" : \"Google\",\n"
      "         \"model\" : \"Pixel 8\",\n         \"new_status\" : \"AuthoredConnect\",\n"
      "         \"old_status\" : \"NotConnect\",\n         \"os_version\" : \"14\",\n"
      "         \"pid\" : 26720,\n         \"vid\" : 1256,\n         \"vid_manufacturer\" : \"SAMSUNG\"\n"
      "      }\n   ]\n}";
  EXPECT_EQ(expected, reports[0]);
  EXPECT_EQ(1, log_capture::Count(1, expected)) << "the whole report goes to the log";
}

// ADB's list text into the status map, each device as "key serial status" (0 authorised,
// 1 unauthorised, 2 offline, 3 not usable through ADB); an empty list is handed out as null. Each
// text is read twice, as two polls would: an offline device is logged on each poll, one without
// permissions on the first only.
TEST_F(Listener, TheAdbListTextIsReadEntryByEntry) {
  const std::string wireless = "adb-R58M30ABCDE-AbC123._adb-tls-connect._tcp";
  const std::string text = "Ab-device;aB-unauthorized;emulator-5554-offline;emulator-5556-device;" + wireless +
                           "-device;build-host.lan:5555-unauthorized;x-unauthorized offline;X2-OFFLINE;w-someday;"
                           "b-bootloader;r-recovery;s-sideload;e-rescue;h-host;d-detached;"
                           "c-connecting;a-authorizing;"  // left out until ADB settles
                           "np-1-no permissions;NP2-no permissions;nodash;-device;z-device;y-device";
  const Strings entries = {"ab aB 1", "adb-r58m30abcde-abc123._adb-tls-connect._tcp " + wireless + " 0", "b b 3",
                           "build-host.lan:5555 build-host.lan:5555 1", "d d 3", "e e 3",
                           "emulator-5554 emulator-5554 2", "emulator-5556 emulator-5556 0", "h h 3",
                           "np-1 np-1 3", "np2 NP2 3", "r r 3", "s s 3", "w w 3", "x x 1", "x2 X2 3", "z z 0"};
  for (const std::string& list : {std::string(), text}) {
    SetUp();
    fake_adb::SetList(list);
    for (int poll = 0; poll < 2; ++poll) {
      std::map<std::string, DeviceAuthorInfo_> devices;
      ASSERT_EQ(0, GetDevicesAuthorStatusEx(devices));
      Strings got;
      for (const auto& [key, device] : devices) got.push_back(key + " " + device.serial + " " + std::to_string(device.status));
      EXPECT_EQ(list.empty() ? Strings{} : entries, got) << "poll " << poll;
    }
    EXPECT_EQ(list.empty() ? 0 : 2, log_capture::Count(3, "Device offline.\r"));
    EXPECT_EQ(list.empty() ? 0 : 2, log_capture::CountContaining("51-pelmora-android.rules"));
  }
}

// The poll thread: its reports over time, starts and stops, and tables written meanwhile.
TEST_F(Listener, TheFilterListsCanBeReloadedWhileThePollThreadReadsThem) {
  fake_adb::SetList("W1-device;");
  watcher_.Plug(UsbDevice("W1", 1256, 26720));
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 1ms});
  ASSERT_EQ(0, listener_->StartListen());
  ASSERT_EQ((Strings{"w1:NotConnect->AuthoredConnect"}), Next());
  // As a second InitPelmora would; the USB table written meanwhile is the soak test's part.
  const TempDir dir;
  for (int i = 0; i < 100; ++i) {
    fake_adb::SetList(i % 2 == 0 ? "W1-device;" : "W1-unauthorized;");
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

// The poll thread, with a pause so long that only news makes it poll: the USB table, ADB's own
// tracking, a phone's details coming in, a start; a stop ends it at once.
TEST_F(Listener, NewsWakesThePollEveryStartReportsEveryDeviceAgainAndAStopEndsItAtOnce) {
  fake_adb::SetList("A-device;B-unauthorized;");
  const Strings all = {"a:NotConnect->AuthoredConnect", "b:NotConnect->UnauthoredConnect"};
  listener_.emplace(reports::Collect, ListenerWiring{&watcher_, 60s});
  ASSERT_EQ(0, listener_->StartListen());
  // The authorised phone waits for its details, read off the poll thread; the other does not wait
  // for it (unless the read is quick enough to end within the same poll).
  const Strings first = Next();
  if (first.size() == 1) { EXPECT_EQ(Strings{"b:NotConnect->UnauthoredConnect"}, first); }
  EXPECT_EQ(first.size() == 1 ? Strings{"a:NotConnect->AuthoredConnect"} : all, first.size() == 1 ? Next() : first);
  // A second start, and a stop and a start: every device is reported again.
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ(all, Next());
  listener_->StopListen();
  ASSERT_EQ(0, listener_->StartListen());
  EXPECT_EQ(all, Next());

  watcher_.Plug(UsbDevice("u1", 6353, 1));
  EXPECT_EQ(Strings{"u1:NotConnect->MtpConnect"}, Next());
  fake_adb::SetList("A-device;B-device;");
  ASSERT_TRUE(fake_adb::Track(TARNWELL_TRACK_CHANGED));
  EXPECT_EQ(Strings{"b:UnauthoredConnect->AuthoredConnect"}, Next());
  // The server goes away: its stream's end wakes the poll, whose failure is reported and logged.
  fake_adb::SetList("", 103);
  ASSERT_TRUE(fake_adb::Track(TARNWELL_TRACK_ENDED, TARNWELL_ERR_CLOSED));
  EXPECT_EQ((Strings{"a:AuthoredConnect->NotConnect#103", "b:AuthoredConnect->NotConnect#103"}), Next());
  EXPECT_EQ(1, log_capture::CountContaining("fail to GetDevicesAuthorStatus(), error 103!"));
  // Tracking is tried again after a poll that reaches the server, at most once per pause.
  std::this_thread::sleep_for(kTrackingRetryPause);
  fake_adb::Reset();
  fake_adb::Script script;
  script.list = "SLOW-device;";
  std::mutex gate;
  gate.lock();
  script.property = [&gate](const std::string&, const std::string&, std::string*) {
    std::lock_guard<std::mutex> held(gate);  // the read waits here until the test lets it go
    return 0;
  };
  fake_adb::SetScript(script);
  watcher_.Plug(UsbDevice("u2", 6353, 2));
  EXPECT_EQ(Strings{"u2:NotConnect->MtpConnect"}, Next());
  EXPECT_TRUE(Eventually([] {
    const Strings calls = fake_adb::Calls();
    return std::count(calls.begin(), calls.end(), "AdbTrackDevices") == 1;
  }));
  // A phone whose read hangs holds up no other report, nor the stop.
  ASSERT_TRUE(Eventually([] { return Asked() != "0/0/0"; }));
  watcher_.Plug(UsbDevice("u3", 6353, 3));
  EXPECT_EQ(Strings{"u3:NotConnect->MtpConnect"}, Next());
  listener_->StopListen();
  EXPECT_TRUE(WaitForLine("Exit ListenThread", 1));
  const size_t at_stop = reports::All().size();
  gate.unlock();
  listener_.reset();
  EXPECT_EQ(at_stop, reports::All().size()) << "none after the stop";
  EXPECT_EQ(3, watcher_.starts) << "every start asks the watcher to start";
}

}  // namespace
