// The watcher logic through the IOKit source on a simulated IOKit: string descriptor decoding,
// arrival and termination, the validity check and every failure line, with the ADB service
// library and the log library replaced by in-memory stand-ins. Every IOKit handle, plug-in,
// device interface and CF object taken must be given back by the time the watcher stops.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <set>
#include <string>

#include "FakeTarnwell.h"
#include "IOKitStandIn.h"
#include "ListenDeviceChangeMac.h"
#include "LogCapture.h"
#include "UsbTestLists.h"

using iokit_standin::Device;
using iokit_standin::StringAnswer;
using iokit_standin::Text;

namespace {

Device Phone(const std::string& id) {
  Device device;
  device.id = id;
  device.serial = id;
  device.vid = kAndroidVid;
  device.pid = kPlainPid;
  device.strings[1] = Text("Acme");
  device.strings[2] = Text("Phone " + id);
  return device;
}

// Every property read answers code, the manufacturer read with this text.
void AdbAnswers(int code, const std::string& manufacturer = "") {
  fake_adb::Script script;
  script.property = [=](const std::string&, const std::string& property, std::string* out) {
    if (property == "ro.product.manufacturer") *out = manufacturer;
    return code;
  };
  fake_adb::SetScript(script);
}

class Watcher : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { LoadUsbTestFilterLists(); }
  void SetUp() override {
    fake_adb::Reset();
    log_capture::Clear();
    world_ = std::make_unique<iokit_standin::World>();
    SetUsbPlatformFactory(world_->Factory());
    watcher_ = static_cast<ListenDeviceChangeMac*>(GetListenDeviceChangeMacInstance());
  }

  void TearDown() override {
    watcher_->StopListen();
    EXPECT_EQ(world_->Outstanding(), iokit_standin::Handles{}) << "every handle given back";
    EXPECT_TRUE(watcher_->CopyUSBDeviceMap().empty()) << "a stopped watcher leaves no entry";
    SetUsbPlatformFactory(nullptr);
  }

  void Start() {
    ASSERT_EQ(watcher_->StartListen(), 0);
    ASSERT_TRUE(watcher_->WaitUntilListening(std::chrono::seconds(5)));
  }
  void Plug(const Device& device) {
    world_->Plug(device);
    ASSERT_TRUE(world_->WaitIdle());
  }
  void Unplug(const std::string& id) {
    world_->Unplug(id);
    ASSERT_TRUE(world_->WaitIdle());
  }
  std::map<std::string, DeviceModleInfo> Table() { return watcher_->CopyUSBDeviceMap(); }

  std::unique_ptr<iokit_standin::World> world_;
  ListenDeviceChangeMac* watcher_ = nullptr;
};

// Half the devices are attached before the start, half plugged after it. The stand-in answers
// only a bounded GET_DESCRIPTOR(STRING) in US English, by the index in the request.
TEST_F(Watcher, RecordsPhonesWithTheirStringsDecodedByTheLowByteUpToTheFirstZeroUnit) {
  struct Case {
    uint8_t index;  // of the manufacturer string
    std::string id;
    StringAnswer answer;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {1, "sams", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, "Sams"},
      {1, "wrong-type", {{0x0A, 0x04, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, ""},
      {1, "short-transfer", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}, 0, 8u}, ""},
      {1, "long-transfer", {{0x08, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, ""},
      {1, "failed-request", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}, 0x1F}, ""},
      {1, "latin1", {{0x06, 0x03, 'C', 0, 0xE9, 0x00}}, "C\xE9"},
      {1, "cjk", {{0x06, 0x03, 0x2D, 0x4E, 'x', 0}}, "?x"},
      {1, "zero-unit", {{0x08, 0x03, 'A', 0, 0, 0, 'B', 0}}, "A"},
      {1, "zero-low-byte", {{0x06, 0x03, 0x00, 0x01, 'B', 0}}, "?B"},
      {1, "too-short", {{0x02, 0x03}}, ""},
      {1, "odd-length", {{0x05, 0x03, 'A', 0, 'B'}}, "AB"},
      {0, "lang", {{0x04, 0x03, 0x09, 0x04}}, "?"},  // index 0 asks for the language table
  };
  std::vector<Device> plugged;
  for (size_t i = 0; i < cases.size(); ++i) {
    Device device = Phone(cases[i].id);
    device.manufacturer_index = cases[i].index;
    device.strings[cases[i].index] = cases[i].answer;
    (i % 2 == 0 ? world_->attached : plugged).push_back(device);
  }
  world_->attached.push_back(Phone("SER1AL"));
  Start();
  for (const Device& device : plugged) Plug(device);
  const auto table = Table();
  ASSERT_EQ(table.size(), cases.size() + 1);
  for (const Case& c : cases) {
    EXPECT_EQ(table.at(c.id).manufacturer, c.expected) << c.id;
    EXPECT_EQ(table.at(c.id).product, "Phone " + c.id) << c.id;
  }
  const DeviceModleInfo& upper = table.at("ser1al");
  EXPECT_EQ(upper.serial, "SER1AL") << "the key is lower case, the serial as the device says";
  EXPECT_EQ(upper.vid, kAndroidVid);
  EXPECT_EQ(upper.pid, kPlainPid);
  EXPECT_EQ(world_->Outstanding()["interface"], static_cast<int>(table.size())) << "kept while recorded";
  EXPECT_EQ(world_->Outstanding()["notification"], static_cast<int>(table.size()));
  EXPECT_EQ(world_->Outstanding()["service"], 0);
}

// Each device leaves exactly its one line (or none), and only the device the lists call
// non-Android is asked about through ADB.
TEST_F(Watcher, PassesOverDevicesItCannotUseWithTheirLines) {
  const auto configuration = [](std::vector<std::array<unsigned char, 3>> interfaces) {
    std::vector<unsigned char> bytes = {9, 2, 0, 0, static_cast<unsigned char>(interfaces.size()), 1, 0, 0x80, 50};
    for (const auto& c : interfaces) bytes.insert(bytes.end(), {9, 4, 0, 0, 0, c[0], c[1], c[2], 0});
    bytes[2] = static_cast<unsigned char>(bytes.size());
    return bytes;
  };
  const std::string no_plugin = "IOCreatePlugInInterfaceForService returned ";
  const std::string not_a_phone = "usb device passed over, no interface a phone has: serial:";
  struct Case {
    std::string id;
    std::function<void(Device&)> change;
    bool recorded;
    int level;  // of its one line; 0 for none
    std::string line;
    Case(std::string i, std::function<void(Device&)> f, bool r, int l = 0, std::string t = "")
        : id(std::move(i)), change(std::move(f)), recorded(r), level(l), line(std::move(t)) {}
  };
  const std::vector<Case> cases = {
      {"absent", [](Device& d) { d.serial.reset(); }, false},
      {"empty", [](Device& d) { d.serial = ""; }, false},
      {"too-long", [](Device& d) { d.serial = std::string(260, 'x'), d.vid = kUnknownVid; }, false},
      {"number", [](Device& d) { d.serial_is_number = true; }, false},
      {"longest", [](Device& d) { d.serial = std::string(259, 'y'); }, true},
      {"refused", [](Device& d) { d.plugin_result = static_cast<int>(0xE00002C7); }, false, 3,
       no_plugin + "0xe00002c7.\n"},
      {"no-plugin", [](Device& d) { d.plugin_missing = true; }, false, 3, no_plugin + "0x00000000.\n"},
      {"no-interface", [](Device& d) { d.interface_result = 0x7; }, false, 1, "no io usb device info"},
      {"too-old", [](Device& d) { d.interface_version = 320; }, false, 1, "no io usb device info"},
      {"older", [](Device& d) { d.interface_version = 650; }, true},
      {"keyboard", [&](Device& d) { d.configuration = configuration({{0x03, 1, 1}}); }, false, 1,
       not_a_phone + "keyboard vid:6353 pid:1"},
      {"radio", [&](Device& d) { d.configuration = configuration({{0xE0, 1, 1}, {0xFE, 1, 1}}); }, false, 1,
       not_a_phone + "radio vid:6353 pid:1"},
      {"phone", [&](Device& d) { d.configuration = configuration({{0x06, 1, 1}, {0xFF, 0x42, 1}}); }, true},
      {"tethering", [&](Device& d) { d.configuration = configuration({{0xE0, 1, 3}, {0x0A, 0, 0}}); }, true},
      {"broken", [](Device& d) { d.configuration = {9, 2, 12, 0, 1, 1, 0, 0x80, 50, 0, 4, 0}; }, true},
      {"STICK", [](Device& d) { d.vid = kUnknownVid, d.pid = 5; }, false, 2,
       "android device disconnected or invalid,ret=7, key serial:STICK, vid:4660, pid:5"},
      {"stuck", [](Device& d) { d.interest_result = static_cast<int>(0xE00002BC); }, true, 3,
       "IOServiceAddInterestNotification failed, return 0xe00002bc."},
  };
  AdbAnswers(7);
  Start();
  std::multiset<std::pair<int, std::string>> expected_lines;
  int recorded = 0;
  for (const Case& c : cases) {
    Device device = Phone(c.id);
    c.change(device);
    Plug(device);
    EXPECT_EQ(Table().count(device.serial.value_or("")), c.recorded ? 1u : 0u) << c.id;
    recorded += c.recorded;
    if (c.level != 0) expected_lines.insert({c.level, c.line});
  }
  std::multiset<std::pair<int, std::string>> lines;
  for (const log_capture::Line& line : log_capture::Lines()) {
    lines.insert({line.level, line.text});
    EXPECT_EQ(line.has_category ? line.category : "", line.level == 2 ? "Pelmora" : "") << line.text;
  }
  EXPECT_EQ(lines, expected_lines);
  EXPECT_EQ(fake_adb::Calls(), std::vector<std::string>{"AdbGetPhoneManufacturer:STICK"});
  EXPECT_EQ(world_->Outstanding()["plug-in"], 0);
  EXPECT_EQ(world_->Outstanding()["interface"], recorded) << "only recorded devices keep one";
  EXPECT_EQ(world_->Outstanding()["notification"], recorded - 1) << "all but the stuck one";
  Unplug("stuck");
  EXPECT_EQ(Table().count("stuck"), 1u) << "no termination arrives for it";
}

TEST_F(Watcher, TerminationRemovesItsDeviceOnceAndASharedKeyWithTheFirstToLeave) {
  Device upper = Phone("upper");
  upper.serial = "ABC123";
  upper.strings[1] = Text("First");
  Device lower = Phone("lower");
  lower.serial = "abc123";
  lower.strings[1] = Text("Second");
  Start();
  for (const Device& device : {Phone("one"), Phone("two"), upper, lower}) Plug(device);
  world_->Message("one", 0xE0000020);  // some other notification about the device
  ASSERT_TRUE(world_->WaitIdle());
  auto table = Table();
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(table.at("abc123").serial, "ABC123");
  EXPECT_EQ(table.at("abc123").manufacturer, "First");
  EXPECT_EQ(world_->Outstanding()["notification"], 4) << "all four are registered";
  Unplug("one");
  Unplug("one");  // a second termination finds no registration
  Unplug("lower");
  table = Table();
  ASSERT_EQ(table.size(), 1u) << "the first termination takes the shared entry out";
  EXPECT_EQ(table.count("two"), 1u);
  EXPECT_EQ(world_->Outstanding()["notification"], 2);
  EXPECT_EQ(world_->Outstanding()["interface"], 2);
  Unplug("upper");
  EXPECT_EQ(Table().size(), 1u);
  EXPECT_EQ(world_->Outstanding()["notification"], 1);
}

TEST_F(Watcher, StartStopRestartAndSetUpFailures) {
  world_->attached = {Phone("early")};
  Start();
  Plug(Phone("late"));
  EXPECT_EQ(watcher_->StartListen(), 0) << "a second start leaves the running thread alone";
  ASSERT_TRUE(world_->WaitIdle());
  EXPECT_EQ(world_->PlatformsCreated(), 1);
  EXPECT_EQ(Table().size(), 2u);

  watcher_->StopListen();
  EXPECT_TRUE(Table().empty());
  EXPECT_EQ(world_->Outstanding()["notification"], 0);
  watcher_->StopListen();  // after the thread ended: nothing to do

  Start();
  EXPECT_EQ(world_->PlatformsCreated(), 2);
  EXPECT_EQ(Table().size(), 2u) << "the new thread drains the attached devices again";

  // A stop that comes before the run loop runs still ends the thread.
  for (int round = 0; round < 5; ++round) {
    watcher_->StopListen();
    ASSERT_EQ(watcher_->StartListen(), 0);
  }
  watcher_->StopListen();
  EXPECT_EQ(world_->PlatformsCreated(), 7) << "each start found the previous thread ended";

  world_->matching_fails = true;
  Start();
  watcher_->StopListen();
  EXPECT_EQ(log_capture::Count(3, "IOServiceMatching return NULL!"), 1);
  world_->matching_fails = false;
  world_->add_matching_result = 0x10;
  EXPECT_EQ(watcher_->StartListenThread(), 4);
  EXPECT_EQ(log_capture::Count(3, "IOServiceAddMatchingNotification failed, return 0x00000010"), 1);
}

TEST_F(Watcher, ValidityCheckAsksAdbOnlyForDevicesTheListsCallNonAndroid) {
  const struct {
    uint16_t vid, pid;
    int adb_code;
    const char* manufacturer;
    bool valid, asks;
    std::string line;  // the warning it leaves, if any
  } cases[] = {
      {kAndroidVid, kWhitePid, 7, "", true, false, ""},  // the white list wins over the black list
      {kAndroidVid, kPlainPid, 7, "", true, false, ""},
      {kAndroidVid, kBlackPid, 7, "", false, true,
       "android device disconnected or invalid,ret=7, key serial:S, vid:6353, pid:11"},
      {65535, 65535, 0, "", false, true, "invalid android devices,ret=0, key serial:S, vid:65535, pid:65535"},
      {kUnknownVid, 3, 0, "Acme", true, true, ""},
  };
  for (const auto& c : cases) {
    fake_adb::Reset();
    log_capture::Clear();
    AdbAnswers(c.adb_code, c.manufacturer);
    EXPECT_EQ(IsAndroidValid(c.vid, c.pid, "S"), c.valid) << c.vid << ":" << c.pid;
    EXPECT_EQ(fake_adb::Calls().size(), c.asks ? 1u : 0u) << c.vid << ":" << c.pid;
    EXPECT_EQ(log_capture::Lines().empty(), c.valid) << c.vid << ":" << c.pid;
    EXPECT_EQ(log_capture::Count(2, c.line), c.line.empty() ? 0 : 1) << c.line;
  }
}

}  // namespace
