// The Linux USB source through real libudev and usbfs calls, against devices that umockdev
// simulates: the initial enumeration, add and remove events, the kernel's sysfs strings, and
// control transfers answered (or refused) by a simulated device node for strings sysfs lacks.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

#include "Common.h"
#include "FakeTarnwell.h"
#include "ListenDeviceChangeMac.h"
#include "LogCapture.h"
#include "UsbTestLists.h"
#include "UsbTestbed.h"

namespace {

using namespace std::chrono_literals;

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

SimulatedUsbDevice Phone(int number, const std::string& serial) {
  SimulatedUsbDevice device;
  device.number = number;
  device.serial = serial;
  device.vid = kAndroidVid;
  device.pid = kPlainPid;
  device.sysfs_manufacturer = "Acme";
  device.sysfs_product = "Phone " + serial;
  return device;
}

class UdevSource : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { LoadUsbTestFilterLists(); }

  void SetUp() override {
    ASSERT_TRUE(UmockdevPreloaded()) << "run with LD_PRELOAD=libumockdev-preload.so.0";
    fake_adb::Reset();
    log_capture::Clear();
    SetUsbPlatformFactory(nullptr);  // the real Linux source
    testbed_ = std::make_unique<UsbTestbed>();
    watcher_ = static_cast<ListenDeviceChangeMac*>(GetListenDeviceChangeMacInstance());
  }

  void TearDown() override {
    watcher_->StopListen();
    EXPECT_TRUE(watcher_->CopyUSBDeviceMap().empty());
    testbed_.reset();
  }

  void Start() {
    ASSERT_EQ(watcher_->StartListen(), 0);
    ASSERT_TRUE(watcher_->WaitUntilListening(5s));
  }
  bool Has(const std::string& key) { return watcher_->CopyUSBDeviceMap().count(key) == 1; }
  DeviceModleInfo Entry(const std::string& key) { return watcher_->CopyUSBDeviceMap().at(key); }
  // Plugs a device the watcher records and waits for its entry: every event sent before it has
  // been handled then, since events are handled in order.
  void PlugAndWait(const SimulatedUsbDevice& device) {
    testbed_->Plug(device);
    ASSERT_TRUE(WaitFor([&] { return Has(*device.serial); })) << *device.serial;
  }

  std::unique_ptr<UsbTestbed> testbed_;
  ListenDeviceChangeMac* watcher_ = nullptr;
};

TEST_F(UdevSource, DevicesAttachedBeforeTheStartAreInTheTableAfterTheInitialDrain) {
  testbed_->Plug(Phone(2, "early-one"));
  SimulatedUsbDevice no_serial = Phone(3, "unused");
  no_serial.serial.reset();
  testbed_->Plug(no_serial);
  testbed_->Plug(Phone(4, "EARLY-TWO"));
  Start();
  const auto table = watcher_->CopyUSBDeviceMap();
  ASSERT_EQ(table.size(), 2u);
  EXPECT_EQ(table.at("early-two").serial, "EARLY-TWO");
  EXPECT_EQ(table.at("early-one").vid, kAndroidVid);
  EXPECT_EQ(table.at("early-one").pid, kPlainPid);
}

TEST_F(UdevSource, AddEventEntersADeviceAndRemoveEventTakesItOut) {
  Start();
  SimulatedUsbDevice no_serial = Phone(5, "unused");
  no_serial.serial.reset();
  testbed_->Plug(no_serial);
  const std::string one = testbed_->Plug(Phone(6, "one"));
  ASSERT_TRUE(WaitFor([&] { return Has("one"); }));
  PlugAndWait(Phone(7, "two"));
  EXPECT_EQ(watcher_->CopyUSBDeviceMap().size(), 2u) << "the device without serial left no trace";

  testbed_->Unplug(one);
  ASSERT_TRUE(WaitFor([&] { return !Has("one"); }));
  EXPECT_TRUE(Has("two"));
}

TEST_F(UdevSource, StringsComeFromSysfsAndARefusedTransferFallsBackToIt) {
  SimulatedUsbDevice no_node = Phone(8, "no-node");
  no_node.sysfs_manufacturer = "Soci\xC3\xA9t\xC3\xA9";  // UTF-8 é twice
  no_node.sysfs_product = "\xE4\xB8\xAD-Phone";          // a CJK character
  // The node of a desktop without udev rules: 0664, and usbfs refuses a read-only descriptor.
  SimulatedUsbDevice read_only = Phone(19, "read-only");
  read_only.sysfs_product = "Pixel\xC3\xA9 X";
  read_only.has_node = true;
  read_only.fail_with_errno = EPERM;
  SimulatedUsbDevice half = Phone(20, "half");  // sysfs lacks the product: one transfer, refused
  half.sysfs_product.reset();
  half.has_node = true;
  half.fail_with_errno = EPERM;
  Start();
  PlugAndWait(no_node);
  PlugAndWait(read_only);
  PlugAndWait(half);
  EXPECT_EQ(Entry("no-node").manufacturer, "Soci\xE9t\xE9") << "Latin-1 characters as one byte";
  EXPECT_EQ(Entry("no-node").product, "?-Phone");
  EXPECT_EQ(Entry("read-only").manufacturer, "Acme");
  EXPECT_EQ(Latin1FallbackUtf8(Entry("read-only").product), "Pixel\xC3\xA9 X") << "valid UTF-8 again";
  EXPECT_EQ(Entry("half").manufacturer, "Acme");
  EXPECT_EQ(Entry("half").product, "");
  EXPECT_EQ(log_capture::CountContaining("strings taken from sysfs"), 2) << "once per device";
  EXPECT_EQ(log_capture::CountContaining("strings read by control transfer"), 1);
  EXPECT_EQ(log_capture::CountContaining("refused (Operation not permitted); sysfs answers the rest"), 1);
  EXPECT_EQ(testbed_->Transfers().size(), 1u) << "only the string sysfs lacks goes to the device";
}

TEST_F(UdevSource, ManufacturerIndexZeroReadsTheLanguageTableFromEitherPath) {
  SimulatedUsbDevice from_sysfs = Phone(9, "zero-sysfs");
  from_sysfs.manufacturer_index = 0;
  from_sysfs.sysfs_manufacturer.reset();
  SimulatedUsbDevice from_node = Phone(10, "zero-node");
  from_node.manufacturer_index = 0;
  from_node.has_node = true;
  from_node.sysfs_product.reset();
  from_node.strings[2] = u"Node";
  Start();
  PlugAndWait(from_sysfs);
  PlugAndWait(from_node);
  EXPECT_EQ(Entry("zero-sysfs").manufacturer, "?");
  EXPECT_EQ(Entry("zero-node").manufacturer, "?");
  EXPECT_EQ(Entry("zero-node").product, "Node");
}

TEST_F(UdevSource, ControlTransfersOnTheNodeAnswerTheStrings) {
  SimulatedUsbDevice device = Phone(11, "node");
  device.has_node = true;
  device.sysfs_manufacturer.reset();
  device.sysfs_product.reset();
  device.strings[1] = u"Acm\u00e9";
  device.strings[2] = u"\u4e2d Phone";
  SimulatedUsbDevice stalls = Phone(12, "stalls");
  stalls.has_node = true;
  stalls.sysfs_manufacturer.reset();
  stalls.sysfs_product.reset();
  stalls.strings[1] = u"Only";  // index 2 stalls
  SimulatedUsbDevice gone = Phone(13, "gone");
  gone.has_node = true;
  gone.sysfs_manufacturer.reset();
  gone.fail_with_errno = ENODEV;
  Start();
  PlugAndWait(device);
  PlugAndWait(stalls);
  PlugAndWait(gone);

  EXPECT_EQ(Entry("node").manufacturer, "Acm\xE9");
  EXPECT_EQ(Entry("node").product, "? Phone");
  EXPECT_EQ(Entry("stalls").manufacturer, "Only");
  EXPECT_EQ(Entry("stalls").product, "");
  EXPECT_EQ(Entry("gone").manufacturer, "") << "a failed transfer gives an empty text";
  EXPECT_EQ(Entry("gone").product, "Phone gone") << "sysfs still answers what it holds";
  EXPECT_EQ(log_capture::CountContaining("strings read by control transfer"), 3);
  EXPECT_EQ(log_capture::CountContaining("strings taken from sysfs"), 0);
  const auto transfers = testbed_->Transfers();
  ASSERT_EQ(transfers.size(), 5u);
  EXPECT_EQ(transfers[0].wValue, 0x0301);
  EXPECT_EQ(transfers[0].wIndex, 0x0409);
  EXPECT_EQ(transfers[0].wLength, 256);
  EXPECT_EQ(transfers[1].wValue, 0x0302);
}

// Devices of a listed vendor (so that the lists alone would take them) with real interface sets.
TEST_F(UdevSource, DevicesWithOnlyInterfacesNoPhoneHasArePassedOver) {
  const struct {
    const char* serial;
    std::vector<std::array<uint8_t, 3>> interfaces;
    bool recorded;
  } devices[] = {
      {"keyboard", {{0x03, 0x01, 0x01}, {0x03, 0x00, 0x00}}, false},
      {"usb-c-hub", {{0x09, 0x00, 0x01}, {0x09, 0x00, 0x02}}, false},
      {"laserjet", {{0x07, 0x01, 0x02}}, false},
      {"card-reader", {{0x0B, 0x00, 0x00}}, false},
      {"bt-dongle", {{0xE0, 0x01, 0x01}, {0xE0, 0x01, 0x01}, {0xFE, 0x01, 0x01}}, false},
      {"adb-phone", {{0x06, 0x01, 0x01}, {0xFF, 0x42, 0x01}}, true},
      {"tethering", {{0xE0, 0x01, 0x03}, {0x0A, 0x00, 0x00}}, true},
      {"hid-and-mtp", {{0x03, 0x00, 0x00}, {0x06, 0x01, 0x01}}, true},
  };
  Start();
  int number = 21;
  for (const auto& d : devices) {
    SimulatedUsbDevice device = Phone(number++, d.serial);
    device.interfaces = d.interfaces;
    testbed_->Plug(device);
  }
  PlugAndWait(Phone(number, "sentinel"));
  for (const auto& d : devices) EXPECT_EQ(d.recorded, Has(d.serial)) << d.serial;
  EXPECT_EQ(log_capture::CountContaining("no interface a phone has"), 5);
  EXPECT_TRUE(fake_adb::Calls().empty()) << "the lists and ADB are not asked for them";
}

TEST_F(UdevSource, BrokenDescriptorsArePassedOverWithTheirLines) {
  SimulatedUsbDevice missing = Phone(14, "no-descriptors");
  missing.descriptors = std::vector<unsigned char>{};
  SimulatedUsbDevice truncated = Phone(15, "truncated");
  truncated.descriptors = std::vector<unsigned char>{18, 1, 0, 2};
  Start();
  testbed_->Plug(missing);
  testbed_->Plug(truncated);
  PlugAndWait(Phone(16, "sentinel"));
  EXPECT_FALSE(Has("no-descriptors"));
  EXPECT_FALSE(Has("truncated"));
  char missing_line[64];
  std::snprintf(missing_line, sizeof missing_line, "IOCreatePlugInInterfaceForService returned 0x%08x.\n",
                ENOENT);
  EXPECT_EQ(log_capture::Count(3, missing_line), 1);
  EXPECT_EQ(log_capture::Count(1, "no io usb device info"), 1);
}

TEST_F(UdevSource, StopEndsTheThreadAndARestartSeesTheDevicesAgain) {
  testbed_->Plug(Phone(17, "stays"));
  Start();
  EXPECT_TRUE(Has("stays"));
  watcher_->StopListen();
  EXPECT_TRUE(watcher_->CopyUSBDeviceMap().empty());
  Start();
  EXPECT_TRUE(Has("stays"));
  PlugAndWait(Phone(18, "after"));
}

}  // namespace
