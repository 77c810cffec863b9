// The watcher logic through the IOKit source on a simulated IOKit: string descriptor decoding,
// arrival and termination, the validity check and every failure line, with the ADB service
// library and the log library replaced by in-memory stand-ins. Every IOKit handle, plug-in,
// device interface and CF object taken must be given back by the time the watcher stops.
#include <gtest/gtest.h>

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

class FilterLists : public ::testing::Environment {
 public:
  void SetUp() override { LoadUsbTestFilterLists(); }
};
const auto* const kFilterLists = ::testing::AddGlobalTestEnvironment(new FilterLists);

Device Phone(const std::string& id, uint16_t vid = kAndroidVid, uint16_t pid = kPlainPid) {
  Device device;
  device.id = id;
  device.serial = id;
  device.vid = vid;
  device.pid = pid;
  device.strings[1] = Text("Acme");
  device.strings[2] = Text("Phone " + id);
  return device;
}

std::string ManufacturerAnswer(const std::string& value) {
  fake_adb::Script script;
  script.property = [value](const std::string&, const std::string& property, std::string* out) {
    if (property != "ro.product.manufacturer") return 0;
    *out = value;
    return 0;
  };
  fake_adb::SetScript(script);
  return value;
}

void AdbFailsWith(int code) {
  fake_adb::Script script;
  script.property = [code](const std::string&, const std::string&, std::string*) { return code; };
  fake_adb::SetScript(script);
}

int AdbManufacturerCalls() {
  int n = 0;
  for (const std::string& call : fake_adb::Calls()) n += call.rfind("AdbGetPhoneManufacturer", 0) == 0;
  return n;
}

class Watcher : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_adb::Reset();
    log_capture::Clear();
    world_ = std::make_unique<iokit_standin::World>();
    SetUsbPlatformFactory(world_->Factory());
    watcher_ = static_cast<ListenDeviceChangeMac*>(GetListenDeviceChangeMacInstance());
  }

  void TearDown() override {
    watcher_->StopListen();
    const iokit_standin::Handles left = world_->Outstanding();
    EXPECT_EQ(left.services, 0);
    EXPECT_EQ(left.plugins, 0);
    EXPECT_EQ(left.interfaces, 0);
    EXPECT_EQ(left.notifications, 0);
    EXPECT_EQ(left.others, 0) << "iterator, notification port, run-loop source or CF object";
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

// ---------------------------------------------------------------------------------------------

TEST_F(Watcher, DecodesStringDescriptorsByTheirLowByteUpToTheFirstZeroUnit) {
  struct Case {
    std::string id;
    StringAnswer answer;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"sams", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, "Sams"},
      {"wrong-type", {{0x0A, 0x04, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, ""},
      {"short-transfer", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}, 0, 8u}, ""},
      {"long-transfer", {{0x08, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}}, ""},
      {"failed-request", {{0x0A, 0x03, 'S', 0, 'a', 0, 'm', 0, 's', 0}, 0x1F}, ""},
      {"latin1", {{0x06, 0x03, 'C', 0, 0xE9, 0x00}}, "C\xE9"},
      {"cjk", {{0x06, 0x03, 0x2D, 0x4E, 'x', 0}}, "?x"},
      {"zero-unit", {{0x08, 0x03, 'A', 0, 0, 0, 'B', 0}}, "A"},
      {"zero-low-byte", {{0x06, 0x03, 0x00, 0x01, 'B', 0}}, "?B"},
      {"too-short", {{0x02, 0x03}}, ""},
      {"odd-length", {{0x05, 0x03, 'A', 0, 'B'}}, "AB"},
  };
  Start();
  for (const Case& c : cases) {
    Device device = Phone(c.id);
    device.strings[1] = c.answer;
    Plug(device);
  }
  const auto table = Table();
  for (const Case& c : cases) {
    ASSERT_EQ(table.count(c.id), 1u) << c.id;
    EXPECT_EQ(table.at(c.id).manufacturer, c.expected) << c.id;
    EXPECT_EQ(table.at(c.id).product, "Phone " + c.id) << c.id;
  }
}

TEST_F(Watcher, AsksForStringsWithTheStandardRequestIndexZeroIncluded) {
  Device device = Phone("lang");
  device.manufacturer_index = 0;
  device.strings[0] = {{0x04, 0x03, 0x09, 0x04}};  // the language table
  Start();
  Plug(device);
  EXPECT_EQ(Table().at("lang").manufacturer, "?");
  const auto requests = world_->Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].bmRequestType, 0x80);
  EXPECT_EQ(requests[0].bRequest, 6);
  EXPECT_EQ(requests[0].wValue, 0x0300);
  EXPECT_EQ(requests[0].wIndex, 0x0409);
  EXPECT_EQ(requests[0].wLength, 256);
  EXPECT_GT(requests[0].noDataTimeout, 0u) << "a silent device must not hold the watcher up";
  EXPECT_GT(requests[0].completionTimeout, 0u);
  EXPECT_EQ(requests[1].wValue, 0x0302);
}

TEST_F(Watcher, RecordsAttachedDevicesBeforeListeningAndKeepsSerialCase) {
  world_->attached = {Phone("SER1AL"), Phone("second")};
  Start();
  const auto table = Table();
  ASSERT_EQ(table.size(), 2u);
  const DeviceModleInfo& first = table.at("ser1al");
  EXPECT_EQ(first.serial, "SER1AL");
  EXPECT_EQ(first.vid, kAndroidVid);
  EXPECT_EQ(first.pid, kPlainPid);
  EXPECT_EQ(first.manufacturer, "Acme");
  EXPECT_EQ(first.product, "Phone SER1AL");
  EXPECT_EQ(first.reported_manufacturer, "");
  EXPECT_EQ(first.reported_model, "");
  EXPECT_EQ(world_->Outstanding().notifications, 2);
  EXPECT_EQ(world_->Outstanding().interfaces, 2) << "kept for the device's lifetime";
  EXPECT_EQ(world_->Outstanding().services, 0);
}

TEST_F(Watcher, DeviceWithoutUsableSerialLeavesNoTrace) {
  Device absent = Phone("absent");
  absent.serial.reset();
  Device empty = Phone("empty");
  empty.serial = "";
  Device too_long = Phone("too-long", kUnknownVid);
  too_long.serial = std::string(260, 'x');
  Device longest = Phone("longest");
  longest.serial = std::string(259, 'y');
  Device number = Phone("number");
  number.serial_is_number = true;
  Start();
  for (const Device& device : {absent, empty, too_long, number}) Plug(device);
  EXPECT_TRUE(Table().empty());
  EXPECT_TRUE(log_capture::Lines().empty());
  EXPECT_TRUE(fake_adb::Calls().empty());
  EXPECT_TRUE(world_->Requests().empty()) << "nothing is asked of a device without serial";
  EXPECT_EQ(world_->Outstanding().notifications, 0);
  EXPECT_EQ(world_->Outstanding().services, 0);
  Plug(longest);
  EXPECT_EQ(Table().count(std::string(259, 'y')), 1u);
}

TEST_F(Watcher, TerminationRemovesTheEntryAndReleasesTheDevice) {
  Start();
  Plug(Phone("one"));
  Plug(Phone("two"));
  world_->Message("one", 0xE0000020);  // some other notification about the device
  ASSERT_TRUE(world_->WaitIdle());
  EXPECT_EQ(Table().size(), 2u);
  EXPECT_EQ(world_->Outstanding().notifications, 2);
  Unplug("one");
  const auto table = Table();
  EXPECT_EQ(table.count("one"), 0u);
  EXPECT_EQ(table.count("two"), 1u);
  EXPECT_EQ(world_->Outstanding().notifications, 1);
  EXPECT_EQ(world_->Outstanding().interfaces, 1);
  Unplug("one");  // a second termination finds no registration
  EXPECT_EQ(Table().size(), 1u);
}

TEST_F(Watcher, DevicesSharingAKeySerialShareOneEntryUntilTheFirstLeaves) {
  Device upper = Phone("upper");
  upper.serial = "ABC123";
  upper.strings[1] = Text("First");
  Device lower = Phone("lower");
  lower.serial = "abc123";
  lower.strings[1] = Text("Second");
  Start();
  Plug(upper);
  Plug(lower);
  auto table = Table();
  ASSERT_EQ(table.size(), 1u);
  EXPECT_EQ(table.at("abc123").serial, "ABC123");
  EXPECT_EQ(table.at("abc123").manufacturer, "First");
  EXPECT_EQ(world_->Outstanding().notifications, 2) << "both are registered";
  Unplug("lower");
  EXPECT_TRUE(Table().empty()) << "the first termination takes the shared entry out";
  Unplug("upper");
  EXPECT_TRUE(Table().empty());
  EXPECT_EQ(world_->Outstanding().notifications, 0);
}

TEST_F(Watcher, DevicesDeclaringOnlyInterfacesNoPhoneHasArePassedOver) {
  // A configuration descriptor with one interface descriptor per (class, subclass, protocol).
  const auto configuration = [](std::vector<std::vector<unsigned char>> interfaces) {
    std::vector<unsigned char> bytes = {9, 2, 0, 0, static_cast<unsigned char>(interfaces.size()), 1, 0, 0x80, 50};
    for (const auto& c : interfaces) bytes.insert(bytes.end(), {9, 4, 0, 0, 0, c[0], c[1], c[2], 0});
    bytes[2] = static_cast<unsigned char>(bytes.size());
    return bytes;
  };
  struct Case {
    std::string id;
    std::vector<unsigned char> configuration;
    bool recorded;
  };
  const std::vector<Case> cases = {
      {"keyboard", configuration({{0x03, 1, 1}}), false},
      {"radio", configuration({{0xE0, 1, 1}, {0xFE, 1, 1}}), false},
      {"phone", configuration({{0x06, 1, 1}, {0xFF, 0x42, 1}}), true},
      {"tethering", configuration({{0xE0, 1, 3}, {0x0A, 0, 0}}), true},
      {"broken", {9, 2, 12, 0, 1, 1, 0, 0x80, 50, 0, 4, 0}, true},  // cannot tell: kept
      {"unconfigured", {}, true},
  };
  Start();
  for (const Case& c : cases) {
    Device device = Phone(c.id);
    device.configuration = c.configuration;
    Plug(device);
  }
  for (const Case& c : cases) {
    EXPECT_EQ(Table().count(c.id), c.recorded ? 1u : 0u) << c.id;
    const std::string line = "usb device passed over, no interface a phone has: serial:" + c.id +
                             " vid:6353 pid:1";
    EXPECT_EQ(log_capture::Count(1, line), c.recorded ? 0 : 1) << c.id;
  }
}

TEST_F(Watcher, FailedTerminationRegistrationKeepsTheEntry) {
  Device device = Phone("stuck");
  device.interest_result = static_cast<int>(0xE00002BC);
  Start();
  Plug(device);
  EXPECT_EQ(log_capture::Count(3, "IOServiceAddInterestNotification failed, return 0xe00002bc."), 1);
  Unplug("stuck");
  EXPECT_EQ(Table().count("stuck"), 1u) << "no termination arrives for it";
}

TEST_F(Watcher, DevicesWithoutAnInterfaceArePassedOverWithTheirLogLines) {
  Device refused = Phone("refused");
  refused.plugin_result = static_cast<int>(0xE00002C7);
  Device empty = Phone("empty");
  empty.plugin_missing = true;
  Device no_interface = Phone("no-interface");
  no_interface.interface_result = 0x7;
  Device too_old = Phone("too-old");
  too_old.interface_version = 320;  // older than any version asked for
  Device older = Phone("older");
  older.interface_version = 650;
  Start();
  for (const Device& device : {refused, empty, no_interface, too_old, older}) Plug(device);
  EXPECT_EQ(Table().size(), 1u);
  EXPECT_EQ(Table().count("older"), 1u) << "the newest interface the system offers serves";
  EXPECT_EQ(log_capture::Count(3, "IOCreatePlugInInterfaceForService returned 0xe00002c7.\n"), 1);
  EXPECT_EQ(log_capture::Count(3, "IOCreatePlugInInterfaceForService returned 0x00000000.\n"), 1);
  EXPECT_EQ(log_capture::Count(1, "no io usb device info"), 2);
  for (const log_capture::Line& line : log_capture::Lines()) EXPECT_FALSE(line.has_category);
  EXPECT_EQ(world_->Outstanding().plugins, 0);
  EXPECT_EQ(world_->Outstanding().interfaces, 1) << "only the recorded device keeps one";
}

TEST_F(Watcher, DeviceRejectedAfterAnAdbErrorIsNotRecordedAndNotAskedAgain) {
  AdbFailsWith(7);
  Device stick = Phone("STICK", kUnknownVid, 5);
  Start();
  Plug(stick);
  EXPECT_TRUE(Table().empty());
  EXPECT_EQ(log_capture::Count(
                2, "android device disconnected or invalid,ret=7, key serial:STICK, vid:4660, pid:5"),
            1);
  EXPECT_EQ(fake_adb::Calls(), std::vector<std::string>{"AdbGetPhoneManufacturer:STICK"});
  EXPECT_EQ(world_->Outstanding().interfaces, 0);
  EXPECT_EQ(world_->Outstanding().notifications, 0);
  world_->Message("STICK", 0xE0000020);
  ASSERT_TRUE(world_->WaitIdle());
  EXPECT_EQ(AdbManufacturerCalls(), 1) << "a passed-over device is not looked at again";
}

TEST_F(Watcher, StartStopAndRestart) {
  world_->attached = {Phone("early")};
  Start();
  Plug(Phone("late"));
  EXPECT_EQ(watcher_->StartListen(), 0) << "a second start leaves the running thread alone";
  ASSERT_TRUE(world_->WaitIdle());
  EXPECT_EQ(world_->PlatformsCreated(), 1);
  EXPECT_EQ(Table().size(), 2u);

  watcher_->StopListen();
  EXPECT_TRUE(Table().empty());
  EXPECT_EQ(world_->Outstanding().notifications, 0);
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
}

TEST_F(Watcher, SetUpFailuresEndTheThreadWithTheirLines) {
  world_->matching_fails = true;
  ASSERT_EQ(watcher_->StartListen(), 0);
  ASSERT_TRUE(watcher_->WaitUntilListening(std::chrono::seconds(5)));
  watcher_->StopListen();
  EXPECT_EQ(log_capture::Count(3, "IOServiceMatching return NULL!"), 1);

  world_->matching_fails = false;
  world_->add_matching_result = 0x10;
  EXPECT_EQ(watcher_->StartListenThread(), 4);
  EXPECT_EQ(log_capture::Count(3, "IOServiceAddMatchingNotification failed, return 0x00000010"), 1);
}

// ---------------------------------------------------------------------------------------------
// The validity check on its own.

TEST(IsAndroidValid, AsksAdbOnlyForDevicesTheListsCallNonAndroid) {
  fake_adb::Reset();
  log_capture::Clear();
  AdbFailsWith(7);
  EXPECT_TRUE(IsAndroidValid(kAndroidVid, kWhitePid, "W")) << "white list wins over black list";
  EXPECT_TRUE(IsAndroidValid(kAndroidVid, kPlainPid, "P"));
  EXPECT_TRUE(fake_adb::Calls().empty());
  EXPECT_TRUE(log_capture::Lines().empty());

  EXPECT_FALSE(IsAndroidValid(kAndroidVid, kBlackPid, "Bl"));
  EXPECT_EQ(log_capture::Count(
                2, "android device disconnected or invalid,ret=7, key serial:Bl, vid:6353, pid:11"),
            1);

  ManufacturerAnswer("");
  EXPECT_FALSE(IsAndroidValid(65535, 65535, "Un"));
  EXPECT_EQ(log_capture::Count(2, "invalid android devices,ret=0, key serial:Un, vid:65535, pid:65535"),
            1);
  for (const log_capture::Line& line : log_capture::Lines()) {
    if (line.level == 2) {
      EXPECT_EQ(line.category, "Pelmora");
    }
  }

  ManufacturerAnswer("Acme");
  log_capture::Clear();
  EXPECT_TRUE(IsAndroidValid(kUnknownVid, 3, "Named"));
  EXPECT_TRUE(log_capture::Lines().empty());
}

}  // namespace
