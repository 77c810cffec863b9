// The Linux USB source through real libudev and usbfs calls, against devices umockdev simulates.
#include <functional>
#include <iterator>
#include <optional>

#include "Eventually.h"
#include "UsbTestbed.h"
#include "UsbWatcherTest.h"

namespace {

using Change = std::function<void(SimulatedUsbDevice&)>;

SimulatedUsbDevice Phone(int number, const std::string& serial, const Change& change = nullptr) {
  SimulatedUsbDevice device;
  device.number = number;
  device.serial = serial;
  device.vid = kAndroidVid;
  device.pid = kPlainPid;
  device.sysfs_manufacturer = "Acme";
  device.sysfs_product = "Phone " + serial;
  if (change) change(device);
  return device;
}

class UdevSource : public UsbWatcherTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(UmockdevPreloaded()) << "run with LD_PRELOAD=libumockdev-preload.so.0";
    UsbWatcherTest::SetUp();
    SetUsbPlatformFactory(nullptr);  // the real Linux source
    testbed_ = std::make_unique<UsbTestbed>();
  }
  void TearDown() override {
    UsbWatcherTest::TearDown();
    testbed_.reset();
  }
  bool Has(const std::string& key) { return Table().count(key) == 1; }
  // Events are handled in order: once its entry is there, every event sent before it was handled.
  std::string PlugAndWait(const SimulatedUsbDevice& device) {
    const std::string syspath = testbed_->Plug(device);
    EXPECT_TRUE(Eventually([&] { return Has(*device.serial); })) << *device.serial;
    return syspath;
  }

  std::unique_ptr<UsbTestbed> testbed_;
};

// Passed over: no serial, a class or only interfaces no phone has (which ones is the watcher
// logic's decision, tested there), no or truncated descriptors.
TEST_F(UdevSource, AttachedAddedRemovedPassedOverAndSeenAgainAfterARestart) {
  testbed_->Plug(Phone(2, "early-one"));
  testbed_->Plug(Phone(3, "unused", [](SimulatedUsbDevice& d) { d.serial.reset(); }));
  testbed_->Plug(Phone(4, "early-two"));
  Start();
  const auto table = Table();
  ASSERT_EQ(table.size(), 2u);
  EXPECT_EQ(std::tie(table.at("early-one").vid, table.at("early-one").pid), std::tie(kAndroidVid, kPlainPid));

  testbed_->Plug(Phone(6, "keyboard", [](SimulatedUsbDevice& d) { d.interfaces = {{0x03, 1, 1}, {0x03, 0, 0}}; }));
  testbed_->Plug(Phone(5, "hub", [](SimulatedUsbDevice& d) { d.device_class = 0x09; }));
  testbed_->Plug(Phone(7, "no-descriptors", [](SimulatedUsbDevice& d) { d.descriptors.emplace(); }));
  testbed_->Plug(Phone(8, "truncated", [](SimulatedUsbDevice& d) { d.descriptors = {{18, 1, 0, 2}}; }));
  testbed_->Unplug(PlugAndWait(Phone(9, "adb-phone", [](SimulatedUsbDevice& d) { d.interfaces = {{6, 1, 1}, {0xFF, 0x42, 1}}; })));
  ASSERT_TRUE(Eventually([&] { return !Has("adb-phone"); }));
  EXPECT_EQ(Table().size(), 2u) << "the devices passed over left no entry";
  EXPECT_EQ(log_capture::CountContaining("no interface a phone has: serial:keyboard"), 1);
  EXPECT_EQ(log_capture::CountContaining("no interface a phone has: serial:hub"), 1) << "by its device class";
  EXPECT_EQ(log_capture::Count(3, "IOCreatePlugInInterfaceForService returned 0x00000002.\n"), 1) << "ENOENT";
  EXPECT_EQ(log_capture::Count(1, "no io usb device info"), 1) << "truncated";
  EXPECT_TRUE(fake_adb::Calls().empty()) << "the lists and ADB are not asked for them";

  watcher_->StopListen();
  Start();
  EXPECT_EQ(Table().size(), 2u) << "the devices still attached, again";
  PlugAndWait(Phone(10, "after"));
}

// sysfs's UTF-8 passes unchanged; only strings sysfs lacks go to the node, index 0 nowhere; a node
// this host may not use (EPERM: 0664 without udev rules) leaves them empty.
TEST_F(UdevSource, StringsComeFromSysfsOrTheNode) {
  using Strings = std::map<uint8_t, std::u16string>;
  // sysfs strings, manufacturer index, the node's strings (none: no node), every transfer's errno.
  const auto with = [](std::optional<std::string> m, std::optional<std::string> p, uint8_t index,
                       std::optional<Strings> node = std::nullopt, int error = 0) {
    return [=](SimulatedUsbDevice& d) {
      d.sysfs_manufacturer = m, d.sysfs_product = p, d.manufacturer_index = index;
      d.has_node = node.has_value(), d.strings = node.value_or(Strings{}), d.fail_with_errno = error;
    };
  };
  const std::nullopt_t none = std::nullopt;
  const std::string cjk = "\xE4\xB8\xAD \xF0\x9F\x98\x80";  // U+4E2D, then U+1F600: a pair in UTF-16
  const struct {
    SimulatedUsbDevice device;
    std::string manufacturer, product;
    int transfers;
  } cases[] = {
      {Phone(8, "no-node", with("Soci\xC3\xA9t\xC3\xA9", cjk, 1)), "Soci\xC3\xA9t\xC3\xA9", cjk, 0},
      {Phone(10, "half", with("Acme", none, 1, Strings{}, EPERM)), "Acme", "", 1},
      {Phone(12, "zero-node", with("Acme", none, 0, Strings{{2, u"Node"}})), "", "Node", 1},
      {Phone(14, "stalls", with(none, none, 1, Strings{{1, u"Only"}})), "Only", "", 2},
      {Phone(15, "gone", with(none, "Phone gone", 1, Strings{}, ENODEV)), "", "Phone gone", 1},
  };
  Start();
  for (const auto& c : cases) {
    const int before = testbed_->Transfers();
    const std::string syspath = PlugAndWait(c.device);
    const DeviceModleInfo e = Table().at(*c.device.serial);
    EXPECT_EQ(std::tie(e.manufacturer, e.product), std::tie(c.manufacturer, c.product)) << syspath;
    EXPECT_EQ(testbed_->Transfers() - before, c.transfers) << syspath;
    const char* way = c.device.has_node ? "read by control transfer" : "taken from sysfs";
    EXPECT_EQ(log_capture::CountContaining(syspath + ": strings " + way), 1) << syspath;
  }
  EXPECT_EQ(log_capture::CountContaining(": strings "), static_cast<int>(std::size(cases))) << "one line per device";
  EXPECT_EQ(log_capture::CountContaining("refused (Operation not permitted); strings sysfs lacks stay empty"), 1);
}

}  // namespace
