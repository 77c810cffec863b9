// The watcher logic through the IOKit source on a simulated IOKit, with in-memory ADB and log
// stand-ins. Every IOKit handle and CF object taken must be given back by the time it stops.
#include <array>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <tuple>

#include "IOKitStandIn.h"
#include "UsbWatcherTest.h"

using iokit_standin::Device;

namespace {

// A string descriptor carrying ASCII text.
iokit_standin::StringAnswer Text(const std::string& ascii) {
  iokit_standin::StringAnswer answer{{static_cast<unsigned char>(2 + 2 * ascii.size()), 3}};
  for (char c : ascii) answer.bytes.insert(answer.bytes.end(), {static_cast<unsigned char>(c), 0});
  return answer;
}

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

class Watcher : public UsbWatcherTest {
 protected:
  void SetUp() override {
    UsbWatcherTest::SetUp();
    world_ = std::make_unique<iokit_standin::World>();
    SetUsbPlatformFactory(CreateMacUsbPlatform);  // the macOS source, built against the stand-in
  }
  void TearDown() override {
    UsbWatcherTest::TearDown();
    EXPECT_EQ(world_->Outstanding(), iokit_standin::Handles{}) << "every handle given back";
    SetUsbPlatformFactory(nullptr);
  }
  int Held(const char* kind) { return world_->Outstanding()[kind]; }

  std::unique_ptr<iokit_standin::World> world_;
};

// Each device is recorded (strings from the registry, else decoded from UTF-16) or passed over with
// its one line; ADB is asked only about non-Android ones. Half are attached before the start.
TEST_F(Watcher, RecordsPhonesWithDecodedStringsAndPassesOverTheRestWithTheirLines) {
  const auto says = [](uint8_t index, std::vector<unsigned char> bytes, int result = 0, std::optional<uint32_t> done = {}) {
    return [=](Device& d) { d.manufacturer_index = index, d.strings[index] = {bytes, result, done}; };
  };
  const auto classes = [](std::vector<std::array<unsigned char, 3>> interfaces) {
    return [=](Device& d) {
      d.configuration = {9, 2, 0, 0, static_cast<unsigned char>(interfaces.size()), 1, 0, 0x80, 50};
      for (const auto& c : interfaces) d.configuration.insert(d.configuration.end(), {9, 4, 0, 0, 0, c[0], c[1], c[2], 0});
      d.configuration[2] = static_cast<unsigned char>(d.configuration.size());
    };
  };
  const std::string no_plugin = "IOCreatePlugInInterfaceForService returned ";
  const auto of_class = [](UsbClassCodes codes) { return [=](Device& d) { d.device_class = codes; }; };
  const auto passed_over = [](const char* id) {
    return std::string("usb device passed over, no interface a phone has: serial:") + id + " vid:6353 pid:1";
  };
  struct Case {
    const char* id;
    std::function<void(Device&)> change;
    const char* manufacturer;  // as recorded; nullptr when passed over
    int level = 0;             // of its one line; 0 for none
    std::string line = "";
  };
  const std::vector<unsigned char> sams = {0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0};
  const Case cases[] = {
      {"sams", says(1, sams), "Sams"},
      {"wrong-type", says(1, {0x0A, 0x04, 'S', 0, 'a', 0, 'm', 0, 's', 0}), ""},
      {"short-transfer", says(1, sams, 0, 8u), ""},
      {"failed-request", says(1, sams, 0x1F), ""},
      {"latin1", says(1, {0x06, 0x03, 'C', 0, 0xE9, 0x00}), "C\xC3\xA9"},
      // U+5C0F U+7C73, then U+1F600 as a surrogate pair.
      {"cjk", says(1, {0x0A, 0x03, 0x0F, 0x5C, 0x73, 0x7C, 0x3D, 0xD8, 0x00, 0xDE}), "\xE5\xB0\x8F\xE7\xB1\xB3\xF0\x9F\x98\x80"},
      {"unpaired", says(1, {0x08, 0x03, 0x3D, 0xD8, 'x', 0, 0x00, 0xDE}), "\xEF\xBF\xBDx\xEF\xBF\xBD"},
      {"zero-unit", says(1, {0x08, 0x03, 'A', 0, 0, 0, 'B', 0}), "A"},
      {"too-short", says(1, {0x02, 0x03}), ""},
      {"odd-length", says(1, {0x05, 0x03, 'A', 0, 'B'}), "A"},
      {"lang", says(0, {0x04, 0x03, 0x09, 0x04}), ""},  // index 0: no string, nothing asked
      // The registry's decoded text comes first; the descriptor is asked only without it.
      {"registry", [](Device& d) { d.vendor_name = "Xiaomi \xE5\xB0\x8F\xE7\xB1\xB3"; }, "Xiaomi \xE5\xB0\x8F\xE7\xB1\xB3"},
      {"absent", [](Device& d) { d.serial.reset(); }, nullptr},
      {"empty", [](Device& d) { d.serial = ""; }, nullptr},
      {"too-long", [](Device& d) { d.serial = std::string(260, 'x'), d.vid = kUnknownVid; }, nullptr},
      {"number", [](Device& d) { d.serial_is_number = true; }, nullptr},
      {"longest", [](Device& d) { d.serial = std::string(259, 'y'); }, "Acme"},
      {"refused", [](Device& d) { d.plugin_result = static_cast<int>(0xE00002C7); }, nullptr, 3, no_plugin + "0xe00002c7.\n"},
      {"no-plugin", [](Device& d) { d.plugin_missing = true; }, nullptr, 3, no_plugin + "0x00000000.\n"},
      {"no-interface", [](Device& d) { d.interface_result = 0x7; }, nullptr, 1, "no io usb device info"},
      {"too-old", [](Device& d) { d.interface_version = 320; }, nullptr, 1, "no io usb device info"},
      {"older", [](Device& d) { d.interface_version = 650; }, "Acme"},
      {"keyboard", classes({{0x03, 1, 1}, {0x03, 0, 0}}), nullptr, 1, passed_over("keyboard")},
      {"hub", of_class({0x09, 0, 2}), nullptr, 1, passed_over("hub")},
      {"billboard", of_class({0x11, 0, 0}), nullptr, 1, passed_over("billboard")},
      {"hid-device", of_class({0x03, 0, 0}), nullptr, 1, passed_over("hid-device")},
      {"bt-dongle", of_class({0xE0, 1, 1}), nullptr, 1, passed_over("bt-dongle")},
      {"printer", classes({{0x07, 1, 2}}), nullptr, 1, passed_over("printer")},
      {"card-reader", classes({{0x0B, 0, 0}}), nullptr, 1, passed_over("card-reader")},
      {"radio", classes({{0xE0, 1, 1}, {0xFE, 1, 1}}), nullptr, 1, passed_over("radio")},
      {"phone", classes({{0x06, 1, 1}, {0xFF, 0x42, 1}}), "Acme"},
      {"tethering", [&](Device& d) { classes({{0xE0, 1, 3}, {0x0A, 0, 0}})(d), d.device_class = {0xE0, 0, 0}; }, "Acme"},
      {"hid-and-mtp", classes({{0x03, 0, 0}, {0x06, 1, 1}}), "Acme"},
      {"webcam-mode", classes({{0x0E, 1, 0}, {0x0E, 2, 0}}), "Acme"},  // video only as the device's class
      // A keyboard's interface, then a descriptor that does not chain: the platform cannot tell.
      {"broken", [](Device& d) { d.configuration = {9, 2, 21, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 3, 1, 1, 0, 0, 4, 0}; }, "Acme"},
      {"white", [](Device& d) { d.pid = kWhitePid; }, "Acme"},  // on both lists: the white one wins
      {"BLACK", [](Device& d) { d.pid = kBlackPid; }, nullptr, 2,
       "android device disconnected or invalid,ret=7, key serial:BLACK, vid:6353, pid:11"},
      {"nameless", [](Device& d) { d.vid = d.pid = 65535; }, nullptr, 2,
       "invalid android devices,ret=0, key serial:nameless, vid:65535, pid:65535"},
      {"named", [](Device& d) { d.vid = kUnknownVid; }, "Acme"},
      {"stuck", [](Device& d) { d.interest_result = static_cast<int>(0xE00002BC); }, "Acme", 3,
       "IOServiceAddInterestNotification failed, return 0xe00002bc."},
  };
  fake_adb::Script script;
  script.property = [](const std::string& serial, const std::string& property, std::string* out) {
    if (serial == "named" && property == "ro.product.manufacturer") *out = "Acme";
    return serial == "BLACK" ? 7 : 0;
  };
  fake_adb::SetScript(script);
  std::vector<Device> plugged;
  for (const Case& c : cases) ((&c - cases) % 2 == 1 ? world_->attached : plugged).push_back(Phone(c.id, c.change));
  Start();
  for (const Device& device : plugged) ASSERT_TRUE(world_->Plug(device)) << device.id;
  // (level, category, text): the validity check's lines carry the library's category.
  std::multiset<std::tuple<int, std::string, std::string>> expected_lines, lines;
  expected_lines.insert({3, "Pelmora", "Find non-android deivce key serial:BLACK\r vid:6353\r pid:11"});
  const auto table = Table();
  size_t recorded = 0;
  for (const Case& c : cases) {
    if (c.level != 0) expected_lines.insert({c.level, c.level == 2 ? "Pelmora" : "", c.line});
    if (c.manufacturer == nullptr) continue;
    const Device device = Phone(c.id, c.change);
    ASSERT_EQ(table.count(*device.serial), 1u) << c.id;
    const DeviceModleInfo& e = table.at(*device.serial);
    EXPECT_EQ(std::tie(e.manufacturer, e.product, e.serial, e.vid, e.pid),
              std::make_tuple(c.manufacturer, "Phone " + std::string(c.id), *device.serial, device.vid, device.pid));
    ++recorded;
  }
  EXPECT_EQ(table.size(), recorded) << "the devices passed over left no entry";
  for (const log_capture::Line& line : log_capture::Lines()) {
    lines.insert({line.level, line.has_category ? line.category : "", line.text});
  }
  EXPECT_EQ(lines, expected_lines);
  EXPECT_EQ(fake_adb::Calls(), (std::vector<std::string>{"AdbGetPhoneManufacturer:nameless",  // attached
                                                         "AdbGetPhoneManufacturer:BLACK", "AdbGetPhoneManufacturer:named"}));
  const int n = static_cast<int>(recorded);  // "cf": the port and the stop source
  EXPECT_EQ(world_->Outstanding(), (iokit_standin::Handles{{"cf", 2}, {"interface", n}, {"iterator", 1}, {"notification", n - 1}}))
      << "recorded devices keep an interface, all but the stuck one a registration";
  ASSERT_TRUE(world_->Unplug("stuck"));
  EXPECT_EQ(Table().count("stuck"), 1u) << "no termination arrives for it";
}

TEST_F(Watcher, TerminationRemovesItsDeviceOnceAndASharedKeyWithTheFirstToLeave) {
  const Device upper = Phone("upper", [](Device& d) { d.serial = "ABC123", d.strings[1] = Text("First"); });
  const Device lower = Phone("lower", [](Device& d) { d.serial = "abc123", d.strings[1] = Text("Second"); });
  Start();
  for (const Device& device : {Phone("one"), Phone("two"), upper, lower}) ASSERT_TRUE(world_->Plug(device));
  ASSERT_TRUE(world_->Send(Phone("one"), 0xE0000020));  // some other notification about the device
  auto table = Table();
  ASSERT_EQ(table.size(), 3u);
  EXPECT_EQ(table.at("abc123").manufacturer, "First") << "the first to arrive keeps the shared key";
  EXPECT_EQ(Held("notification"), 4) << "all four are registered";
  ASSERT_TRUE(world_->Unplug("one"));
  ASSERT_TRUE(world_->Unplug("one"));  // a second termination finds no registration
  ASSERT_TRUE(world_->Unplug("lower"));
  table = Table();
  ASSERT_EQ(table.size(), 1u) << "the first termination takes the shared entry out";
  EXPECT_EQ(table.count("two"), 1u);
  EXPECT_EQ(Held("notification"), 2);
  EXPECT_EQ(Held("interface"), 2);
  ASSERT_TRUE(world_->Unplug("upper"));
  EXPECT_EQ(Table().size(), 1u);
  EXPECT_EQ(Held("notification"), 1);
}

TEST_F(Watcher, StartStopRestartAndSetUpFailures) {
  world_->attached = {Phone("early")};
  Start();
  ASSERT_TRUE(world_->Plug(Phone("late")));
  EXPECT_EQ(watcher_->StartListen(), 0) << "a second start leaves the running thread alone";
  EXPECT_EQ(world_->PortsCreated(), 1);
  EXPECT_EQ(Table().size(), 2u);

  watcher_->StopListen();  // the fixture's TearDown checks that a stop empties the table
  watcher_->StopListen();  // after the thread ended: nothing to do

  Start();
  EXPECT_EQ(world_->PortsCreated(), 2);
  EXPECT_EQ(Table().size(), 2u) << "the new thread drains the attached devices again";

  // A stop that comes before the run loop runs still ends the thread.
  for (int round = 0; round < 5; ++round) {
    watcher_->StopListen();
    ASSERT_EQ(watcher_->StartListen(), 0);
  }
  watcher_->StopListen();
  EXPECT_EQ(world_->PortsCreated(), 7) << "each start found the previous thread ended";

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
