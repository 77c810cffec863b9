// One poll's work as behaviour tables: USB table and ADB map in, change reports out.
#include <gtest/gtest.h>

#include "AndListenerEx.h"
#include "FakeTarnwell.h"
#include "ListenerTestSupport.h"
#include "LogCapture.h"

namespace {

using Strings = std::vector<std::string>;

// Each phone's three properties, as the fake ADB library answers them.
void PhonesAnswer(std::map<std::string, std::map<std::string, std::string>> phones) {
  fake_adb::Script script;
  script.property = [phones](const std::string& serial, const std::string& property, std::string* value) {
    const auto phone = phones.find(serial);
    if (phone == phones.end()) return 7;
    const auto found = phone->second.find(property);
    *value = found == phone->second.end() ? "" : found->second;
    return 0;
  };
  fake_adb::SetScript(script);
}

class OnePoll : public ::testing::Test {
 protected:
  void SetUp() override {
    LoadTestConfiguration();
    fake_adb::Reset();
    log_capture::Clear();
    reports::Clear();
  }
  // Runs one poll with these views; the reports it produced.
  Strings Poll(const UsbTable& usb, const AdbTable* adb, int query_code = 0) {
    const size_t before = reports::All().size();
    listener_.DealListenInfo(&usb, adb, &previous_, query_code, &last_query_code_);
    const Strings all = reports::All();
    return Strings(all.begin() + static_cast<long>(before), all.end());
  }
  Strings PollOk(const UsbTable& usb, const AdbTable& adb) { return Poll(usb, &adb, 0); }

  AndListenerEx listener_{reports::Collect};
  std::map<std::string, DeviceBasicInfo_> previous_;
  int last_query_code_ = 0;
};

TEST_F(OnePoll, ArrivalsComeInKeyOrderOnceAndAnUnchangedPollSaysNothing) {
  const UsbTable usb = UsbTableOf({UsbDevice("ABC", 1256, 1)});
  const AdbTable adb = AdbTableOf({{"ZX1", DeviceUnauthored}});
  const Strings first = PollOk(usb, adb);
  ASSERT_EQ(1u, first.size());
  EXPECT_EQ((Strings{"abc:NotConnect->MtpConnect", "zx1:NotConnect->UnauthoredConnect"}),
            Transitions(first[0]));
  EXPECT_EQ(1, log_capture::CountContaining("callback return 1\n"));

  log_capture::Clear();
  EXPECT_TRUE(PollOk(usb, adb).empty());
  EXPECT_TRUE(log_capture::Lines().empty()) << "an unchanged poll writes nothing";
}

TEST_F(OnePoll, UsbAndAdbViewsOfOnePhoneMeetUnderOneKey) {
  PhonesAnswer({{"r58m", {{"ro.product.model", "SM-G991B"}}}});
  const UsbTable usb = UsbTableOf({UsbDevice("R58M", 1256, 26720, "SAMSUNG", "Galaxy")});
  Poll(usb, nullptr, 0);
  const Strings reports = PollOk(usb, AdbTableOf({{"r58m", DeviceUnauthored}}));
  ASSERT_EQ(1u, reports.size());
  const Json::Value entry = ParseJson(reports[0])["changed"][0];
  EXPECT_EQ("r58m", entry["key_serial"].asString());
  EXPECT_EQ("r58m", entry["actual_serial"].asString()) << "ADB's own letter case";
  EXPECT_EQ("MtpConnect", entry["old_status"].asString());
  EXPECT_EQ("UnauthoredConnect", entry["new_status"].asString());
  EXPECT_EQ(1256u, entry["vid"].asUInt());
  EXPECT_EQ("SAMSUNG", entry["vid_manufacturer"].asString());

  const Strings authorised = PollOk(usb, AdbTableOf({{"r58m", DeviceAuthored}}));
  ASSERT_EQ(1u, authorised.size());
  const Json::Value now = ParseJson(authorised[0])["changed"][0];
  EXPECT_EQ("UnauthoredConnect", now["old_status"].asString());
  EXPECT_EQ("AuthoredConnect", now["new_status"].asString());
  EXPECT_EQ("SM-G991B", now["model"].asString()) << "details are fetched before the report";
}

TEST_F(OnePoll, AnUnpluggedPhoneIsReportedWithItsSerialZerosAndEmptyTexts) {
  PhonesAnswer({{"Pix1", {{"ro.product.model", "Pixel 7"}, {"ro.build.version.release", "14"}}}});
  const UsbTable usb = UsbTableOf({UsbDevice("PIX1", 6353, 20199, "Google", "Pixel 7")});
  PollOk(usb, AdbTableOf({{"Pix1", DeviceAuthored}}));
  const Strings gone = PollOk({}, {});
  ASSERT_EQ(1u, gone.size());
  const Json::Value entry = ParseJson(gone[0])["changed"][0];
  EXPECT_EQ("pix1:AuthoredConnect->NotConnect", Transitions(gone[0])[0]);
  EXPECT_EQ("Pix1", entry["actual_serial"].asString());
  EXPECT_EQ(0u, entry["vid"].asUInt());
  EXPECT_EQ(0u, entry["pid"].asUInt());
  for (const char* text : {"vid_manufacturer", "os_version", "model", "manufacturer"}) {
    EXPECT_EQ("", entry[text].asString()) << text;
  }
  EXPECT_EQ(11u, entry.size());
  EXPECT_TRUE(listener_.DetailCache().empty());
}

TEST_F(OnePoll, AFailingQueryIsReportedOncePerNewCode) {
  EXPECT_TRUE(Poll({}, nullptr, 5).empty()) << "nothing attached: nothing to report";
  EXPECT_TRUE(Poll({}, nullptr, 5).empty());

  const UsbTable usb = UsbTableOf({UsbDevice("stick", 4660, 2)});
  previous_.clear();
  last_query_code_ = 0;
  Strings reports = Poll(usb, nullptr, 5);
  ASSERT_EQ(1u, reports.size()) << "an arrival, carrying the code";
  EXPECT_EQ(5, ParseJson(reports[0])["changed"][0]["adb_error_code"].asInt());

  // Same views, new failure: one snapshot, then silence while the code stays.
  reports = Poll(usb, nullptr, 6);
  ASSERT_EQ(1u, reports.size());
  EXPECT_EQ((Strings{"stick:MtpConnect->MtpConnect"}), Transitions(reports[0]));
  EXPECT_EQ(6, ParseJson(reports[0])["changed"][0]["adb_error_code"].asInt());
  EXPECT_TRUE(Poll(usb, nullptr, 6).empty());
  EXPECT_TRUE(Poll(usb, nullptr, 6).empty());

  reports = Poll(usb, nullptr, -1);
  ASSERT_EQ(1u, reports.size());
  EXPECT_EQ(-1, ParseJson(reports[0])["changed"][0]["adb_error_code"].asInt());
}

TEST_F(OnePoll, ADroppedQueryMovesPhonesToTheUsbViewAndBackWithoutASnapshot) {
  const UsbTable usb = UsbTableOf({UsbDevice("a1", 1256, 1)});
  const AdbTable adb = AdbTableOf({{"a1", DeviceUnauthored}, {"b2", DeviceOffline}});
  PollOk(usb, adb);

  Strings reports = Poll(usb, nullptr, 9);
  ASSERT_EQ(1u, reports.size());
  EXPECT_EQ((Strings{"a1:UnauthoredConnect->MtpConnect", "b2:OfflineConnect->NotConnect"}),
            Transitions(reports[0]));
  const Json::Value dropped = ParseJson(reports[0]);
  for (const Json::Value& entry : dropped["changed"]) {
    EXPECT_EQ(9, entry["adb_error_code"].asInt());
  }

  reports = PollOk(usb, adb);
  ASSERT_EQ(1u, reports.size());
  EXPECT_EQ((Strings{"a1:MtpConnect->UnauthoredConnect", "b2:NotConnect->OfflineConnect"}),
            Transitions(reports[0]));
  EXPECT_EQ(0, ParseJson(reports[0])["changed"][0]["adb_error_code"].asInt());
}

TEST_F(OnePoll, WhiteListedPhonesComeFirstEachGroupInKeyOrder) {
  const UsbTable usb = UsbTableOf({UsbDevice("e1", 1256, 1), UsbDevice("e2", 1256, 26720),
                                   UsbDevice("e3", 6353, 26720), UsbDevice("e4", 1256, 26720)});
  const Strings reports = Poll(usb, nullptr, 0);
  ASSERT_EQ(1u, reports.size());
  EXPECT_EQ((Strings{"e2:NotConnect->MtpConnect", "e4:NotConnect->MtpConnect",
                     "e1:NotConnect->MtpConnect", "e3:NotConnect->MtpConnect"}),
            Transitions(reports[0]));
}

TEST_F(OnePoll, AChangeOfIdsAloneIsAChangeButAChangeOfTextsIsNot) {
  Poll(UsbTableOf({UsbDevice("k", 1256, 1, "Old", "Old")}), nullptr);
  EXPECT_TRUE(Poll(UsbTableOf({UsbDevice("k", 1256, 1, "New", "New")}), nullptr).empty());
  const Strings reports = Poll(UsbTableOf({UsbDevice("k", 1256, 2)}), nullptr);
  ASSERT_EQ(1u, reports.size());
  EXPECT_EQ((Strings{"k:MtpConnect->MtpConnect"}), Transitions(reports[0]));
}

TEST_F(OnePoll, TheWholeReportTextIsExactlyAsTheHostReadsIt) {
  PhonesAnswer({{"R58M123ABC",
                 {{"ro.build.version.release", "13"},
                  {"ro.product.manufacturer", "samsung"},
                  {"ro.product.model", "SM-G991B"}}}});
  const Strings reports =
      PollOk(UsbTableOf({UsbDevice("R58M123ABC", 1256, 26720, "SAMSUNG", "SAMSUNG_Android"),
                         UsbDevice("usbonly", 65535, 65535)}),
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
      "      },\n"
      "      {\n"
      "         \"actual_serial\" : \"\",\n"
      "         \"adb_error_code\" : 0,\n"
      "         \"key_serial\" : \"usbonly\",\n"
      "         \"manufacturer\" : \"\",\n"
      "         \"model\" : \"\",\n"
      "         \"new_status\" : \"MtpConnect\",\n"
      "         \"old_status\" : \"NotConnect\",\n"
      "         \"os_version\" : \"\",\n"
      "         \"pid\" : 65535,\n"
      "         \"vid\" : 65535,\n"
      "         \"vid_manufacturer\" : \"\"\n"
      "      }\n"
      "   ]\n"
      "}";
  EXPECT_EQ(expected, reports[0]);
  EXPECT_EQ(1, log_capture::Count(1, expected)) << "the whole report goes to the log";
}

// The report's text rules, on a detail cache made by hand.
struct VendorCase {
  uint32_t vid;
  std::string usb_manufacturer;
  std::string expected;
};

TEST_F(OnePoll, VendorNamesComeFromTheUsbStringOrTheVendorList) {
  const std::vector<VendorCase> cases = {
      {0, "Anything", ""},             // no USB side
      {6353, "", ""},                  // chipset vendors never fall back to the list
      {1478, "Qualcomm Inc", "Qualcomm Inc"},
      {1256, "", "Samsung"},           // listed vendor, no USB string
      {1256, "SAMSUNG", "SAMSUNG"},
      {4242, "Unknown Co", ""},        // vendor not listed
  };
  for (const VendorCase& c : cases) {
    DeviceInfo_ record;
    record.vid = c.vid;
    record.usb_manufacturer = c.usb_manufacturer;
    const std::string report = listener_.ConvertDeviceChangeToJson(
        {{"k", "K", NotConnect, MtpConnect}}, {{"k", record}}, 0);
    EXPECT_EQ(c.expected, ParseJson(report)["changed"][0]["vid_manufacturer"].asString()) << c.vid;
  }
}

TEST_F(OnePoll, ManufacturerAndModelTextsAreCleanedAsTheHostExpects) {
  DeviceInfo_ record;
  record.usb_product = "Pixel\\u00207\\\\uu";
  record.manufacturer = "Google Inc.";
  std::string report =
      listener_.ConvertDeviceChangeToJson({{"k", "", NotConnect, MtpConnect}}, {{"k", record}}, 0);
  Json::Value entry = ParseJson(report)["changed"][0];
  EXPECT_EQ("Pixel00207", entry["model"].asString());
  EXPECT_EQ("", entry["manufacturer"].asString()) << "a full stop makes it invalid";

  for (const char* invalid : {"a,b", "a\\ub"}) EXPECT_TRUE(IsContainInvailChar(invalid)) << invalid;
  for (const char* valid : {"", "Google", "a\\b u"}) EXPECT_FALSE(IsContainInvailChar(valid)) << valid;

  record.model = "Pixel 7";
  record.manufacturer = "Google";
  report = listener_.ConvertDeviceChangeToJson({{"k", "", NotConnect, MtpConnect}}, {{"k", record}}, 0);
  entry = ParseJson(report)["changed"][0];
  EXPECT_EQ("Pixel 7", entry["model"].asString());
  EXPECT_EQ("Google", entry["manufacturer"].asString());
  EXPECT_EQ("", listener_.ConvertDeviceChangeToJson({}, {{"k", record}}, 0));
}

TEST_F(OnePoll, BytesThatAreNotUtf8ReachTheHostAsTheLatin1CharactersTheyAre) {
  DeviceInfo_ record;
  record.model = "Pixel\xe9 X";
  record.manufacturer = "Caf\xc3\xa9 \xe6\x97\xa5";  // valid UTF-8 stays as it is
  record.os_version = "\xed\xa0\x80";                // an encoded surrogate is not UTF-8
  const std::string report = listener_.ConvertDeviceChangeToJson(
      {{"k\xff", "K\xff", NotConnect, MtpConnect}}, {{"k\xff", record}}, 0);
  const Json::Value entry = ParseJson(report)["changed"][0];
  EXPECT_EQ("Pixel\xc3\xa9 X", entry["model"].asString());
  EXPECT_EQ("Caf\xc3\xa9 \xe6\x97\xa5", entry["manufacturer"].asString());
  EXPECT_EQ("\xc3\xad\xc2\xa0\xc2\x80", entry["os_version"].asString());
  EXPECT_EQ("K\xc3\xbf", entry["actual_serial"].asString());
}

TEST(SubStrings, RemovalsThatMakeNewOccurrencesAreRemovedToo) {
  EXPECT_EQ("", StripSubString("\\\\uu", "\\u"));
  EXPECT_EQ("ab", StripSubString("a\\ub\\u", "\\u"));
  EXPECT_EQ("plain", StripSubString("plain", "\\u"));
}

// ADB's list text into the status map. Each text is read twice, as two polls would.
struct ListCase {
  std::string text;
  std::map<std::string, std::pair<DeviceAuthorStatus, std::string>> expected;
  int offline_lines;        // on each poll
  int no_permission_lines;  // on the first poll only
};

TEST(AdbStatusQuery, ParsesTheListTextEntryByEntry) {
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
    fake_adb::Reset();
    log_capture::Clear();
    fake_adb::Script script;
    script.devices = [&c](std::string* list) { *list = c.text; return 0; };
    fake_adb::SetScript(script);
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
}

TEST(AdbStatusQuery, AFailureIsReturnedAndNothingIsReleased) {
  fake_adb::Reset();
  fake_adb::Script script;
  script.devices = [](std::string*) { return 103; };
  fake_adb::SetScript(script);
  std::map<std::string, DeviceAuthorInfo_> devices{{"kept", {DeviceOffline, "kept"}}};
  EXPECT_EQ(103, GetDevicesAuthorStatusEx(devices));
  EXPECT_EQ(1u, devices.size());
  EXPECT_EQ((std::vector<std::string>{"AdbGetDevicesEx"}), fake_adb::Calls());
}

}  // namespace
