// The watcher logic through the IOKit source on a simulated IOKit: string descriptor decoding, the
// filter (serial, interface classes, lists, ADB's answer) with every line it leaves, arrival and
// termination, start and stop. The ADB service library and the log library are in-memory
// stand-ins. Every IOKit handle, plug-in, device interface and CF object taken must be given back
// by the time the watcher stops.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <tuple>

#include "FakeTarnwell.h"
#include "IOKitStandIn.h"
#include "ListenDeviceChangeMac.h"
#include "LogCapture.h"
#include "UsbTestLists.h"

using iokit_standin::Device;
using iokit_standin::StringAnswer;
using iokit_standin::Text;

namespace {

Device Phone(const std::string& id, const std::function<void(Device&)>& change = nullptr) {
  Device device;
  device.id = id;
  device.serial = id;
  device.vid = kAndroidVid;
  device.pid = kPlainPid;
  device.strings = {{1, Text("Acme")}, {2, Text("Phone " + id)}};
  if (change) change(device);
  return device;
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
    EXPECT_TRUE(Table().empty()) << "a stopped watcher leaves no entry";
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
  int Held(const char* kind) { return world_->Outstanding()[kind]; }
  std::map<std::string, DeviceModleInfo> Table() { return watcher_->CopyUSBDeviceMap(); }

  std::unique_ptr<iokit_standin::World> world_;
  ListenDeviceChangeMac* watcher_ = nullptr;
};

// Half the devices are attached before the start, half plugged after it. The stand-in answers
// only a bounded GET_DESCRIPTOR(STRING) in US English, by the index in the request.
TEST_F(Watcher, RecordsPhonesWithTheirStringsDecodedByTheLowByteUpToTheFirstZeroUnit) {
  const struct {
    uint8_t index;  // of the manufacturer string
    const char* id;
    StringAnswer answer;
    const char* expected;
  } cases[] = {
      {1, "sams", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, "Sams"},
      {1, "wrong-type", {{0x0A, 0x04, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, ""},
      {1, "short-transfer", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}, 0, 8u}, ""},
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
  for (const auto& c : cases) {
    const Device device = Phone(c.id, [&](Device& d) { d.manufacturer_index = c.index, d.strings[c.index] = c.answer; });
    ((&c - cases) % 2 == 0 ? world_->attached : plugged).push_back(device);
  }
  world_->attached.push_back(Phone("SER1AL"));
  Start();
  for (const Device& device : plugged) Plug(device);
  const auto table = Table();
  ASSERT_EQ(table.size(), std::size(cases) + 1);
  for (const auto& c : cases) {
    EXPECT_EQ(table.at(c.id).manufacturer, c.expected) << c.id;
    EXPECT_EQ(table.at(c.id).product, std::string("Phone ") + c.id) << c.id;
  }
  const DeviceModleInfo& upper = table.at("ser1al");
  EXPECT_EQ(upper.serial, "SER1AL") << "the key is lower case, the serial as the device says";
  EXPECT_EQ(upper.vid, kAndroidVid);
  EXPECT_EQ(upper.pid, kPlainPid);
  EXPECT_EQ(Held("interface"), static_cast<int>(table.size())) << "kept while recorded";
  EXPECT_EQ(Held("notification"), static_cast<int>(table.size()));
  EXPECT_EQ(Held("service"), 0);
}

// Each device leaves exactly its one line (or none); ADB is asked only about the devices the lists
// call non-Android.
TEST_F(Watcher, PassesOverDevicesItCannotUseWithTheirLines) {
  const auto classes = [](std::vector<std::array<unsigned char, 3>> interfaces) {
    return [=](Device& d) {
      d.configuration = {9, 2, 0, 0, static_cast<unsigned char>(interfaces.size()), 1, 0, 0x80, 50};
      for (const auto& c : interfaces) d.configuration.insert(d.configuration.end(), {9, 4, 0, 0, 0, c[0], c[1], c[2], 0});
      d.configuration[2] = static_cast<unsigned char>(d.configuration.size());
    };
  };
  const std::string no_plugin = "IOCreatePlugInInterfaceForService returned ";
  const auto passed_over = [](const char* id) {
    return std::string("usb device passed over, no interface a phone has: serial:") + id + " vid:6353 pid:1";
  };
  struct Case {
    const char* id;
    std::function<void(Device&)> change;
    bool recorded;
    int level = 0;  // of its one line; 0 for none
    std::string line = "";
  };
  const Case cases[] = {
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
      {"keyboard", classes({{0x03, 1, 1}, {0x03, 0, 0}}), false, 1, passed_over("keyboard")},
      {"hub", classes({{0x09, 0, 1}, {0x09, 0, 2}}), false, 1, passed_over("hub")},
      {"printer", classes({{0x07, 1, 2}}), false, 1, passed_over("printer")},
      {"card-reader", classes({{0x0B, 0, 0}}), false, 1, passed_over("card-reader")},
      {"radio", classes({{0xE0, 1, 1}, {0xFE, 1, 1}}), false, 1, passed_over("radio")},
      {"phone", classes({{0x06, 1, 1}, {0xFF, 0x42, 1}}), true},
      {"tethering", classes({{0xE0, 1, 3}, {0x0A, 0, 0}}), true},
      {"hid-and-mtp", classes({{0x03, 0, 0}, {0x06, 1, 1}}), true},
      {"broken", [](Device& d) { d.configuration = {9, 2, 12, 0, 1, 1, 0, 0x80, 50, 0, 4, 0}; }, true},
      {"white", [](Device& d) { d.pid = kWhitePid; }, true},  // on both lists: the white one wins
      {"BLACK", [](Device& d) { d.pid = kBlackPid; }, false, 2,
       "android device disconnected or invalid,ret=7, key serial:BLACK, vid:6353, pid:11"},
      {"nameless", [](Device& d) { d.vid = d.pid = 65535; }, false, 2,
       "invalid android devices,ret=0, key serial:nameless, vid:65535, pid:65535"},
      {"named", [](Device& d) { d.vid = kUnknownVid; }, true},
      {"stuck", [](Device& d) { d.interest_result = static_cast<int>(0xE00002BC); }, true, 3,
       "IOServiceAddInterestNotification failed, return 0xe00002bc."},
  };
  fake_adb::Script script;
  script.property = [](const std::string& serial, const std::string& property, std::string* out) {
    if (serial == "named" && property == "ro.product.manufacturer") *out = "Acme";
    return serial == "BLACK" ? 7 : 0;
  };
  fake_adb::SetScript(script);
  Start();
  // (level, category, text): the validity check's lines carry the library's category.
  std::multiset<std::tuple<int, std::string, std::string>> expected_lines, lines;
  expected_lines.insert({3, "Pelmora", "Find non-android deivce key serial:BLACK\r vid:6353\r pid:11"});
  int recorded = 0;
  for (const Case& c : cases) {
    const Device device = Phone(c.id, c.change);
    Plug(device);
    EXPECT_EQ(Table().count(device.serial.value_or("")), c.recorded ? 1u : 0u) << c.id;
    recorded += c.recorded;
    if (c.level != 0) expected_lines.insert({c.level, c.level == 2 ? "Pelmora" : "", c.line});
  }
  for (const log_capture::Line& line : log_capture::Lines()) {
    lines.insert({line.level, line.has_category ? line.category : "", line.text});
  }
  EXPECT_EQ(lines, expected_lines);
  EXPECT_EQ(fake_adb::Calls(), (std::vector<std::string>{"AdbGetPhoneManufacturer:BLACK",
                                                         "AdbGetPhoneManufacturer:nameless",
                                                         "AdbGetPhoneManufacturer:named"}));
  EXPECT_EQ(Held("plug-in"), 0);
  EXPECT_EQ(Held("interface"), recorded) << "only recorded devices keep one";
  EXPECT_EQ(Held("notification"), recorded - 1) << "all but the stuck one";
  Unplug("stuck");
  EXPECT_EQ(Table().count("stuck"), 1u) << "no termination arrives for it";
}

TEST_F(Watcher, TerminationRemovesItsDeviceOnceAndASharedKeyWithTheFirstToLeave) {
  const Device upper = Phone("upper", [](Device& d) { d.serial = "ABC123", d.strings[1] = Text("First"); });
  const Device lower = Phone("lower", [](Device& d) { d.serial = "abc123", d.strings[1] = Text("Second"); });
  Start();
  for (const Device& device : {Phone("one"), Phone("two"), upper, lower}) Plug(device);
  world_->Message("one", 0xE0000020);  // some other notification about the device
  ASSERT_TRUE(world_->WaitIdle());
  auto table = Table();
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(table.at("abc123").serial, "ABC123");
  EXPECT_EQ(table.at("abc123").manufacturer, "First");
  EXPECT_EQ(Held("notification"), 4) << "all four are registered";
  Unplug("one");
  Unplug("one");  // a second termination finds no registration
  Unplug("lower");
  table = Table();
  ASSERT_EQ(table.size(), 1u) << "the first termination takes the shared entry out";
  EXPECT_EQ(table.count("two"), 1u);
  EXPECT_EQ(Held("notification"), 2);
  EXPECT_EQ(Held("interface"), 2);
  Unplug("upper");
  EXPECT_EQ(Table().size(), 1u);
  EXPECT_EQ(Held("notification"), 1);
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
  EXPECT_EQ(Held("notification"), 0);
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

}  // namespace
