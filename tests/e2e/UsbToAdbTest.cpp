// A phone seen first on USB and then through adb, as a host sees it: the library loaded with
// dlopen, its USB watcher reading devices that umockdev simulates (run under
// LD_PRELOAD=libumockdev-preload.so.0), its poll thread asking Debian's real adb server on a
// private port, to which a simulated phone is attached later under the USB device's serial.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "HostHarness.h"
#include "PrivateAdbServer.h"
#include "SimPhone.h"
#include "UsbTestbed.h"

namespace fs = std::filesystem;

namespace {

constexpr uint16_t kGoogleVid = 6353;   // one of the vendors whose USB string is reported as is
constexpr uint16_t kSamsungVid = 1256;  // an ordinary configured vendor
constexpr uint16_t kPixelPid = 0x4ee1;
constexpr uint16_t kGalaxyPid = 0x6860;

// The first entry for this key with this move; null when none came in time.
Json::Value WaitForMove(const std::string& key_serial, const std::string& old_status,
                        const std::string& new_status) {
  return host_reports::WaitFor([&](const Json::Value& entry) {
    return entry["key_serial"].asString() == key_serial &&
           entry["old_status"].asString() == old_status && entry["new_status"].asString() == new_status;
  });
}

// The moves reported for one key, as "old>new".
std::vector<std::string> MovesOf(const std::string& key_serial) {
  std::vector<std::string> moves;
  for (const Json::Value& entry : host_reports::Entries()) {
    if (entry["key_serial"].asString() == key_serial) {
      moves.push_back(entry["old_status"].asString() + ">" + entry["new_status"].asString());
    }
  }
  return moves;
}

std::u16string Utf16(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

class UsbToAdb : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(UmockdevPreloaded()) << "run with LD_PRELOAD=libumockdev-preload.so.0";
    // The preload is in this process for good; the adb processes started from here must see the
    // machine's own /sys and /dev, not the testbed's simulated USB bus, so they do not inherit it.
    // Done before the testbed exists, while this process still has one thread.
    ::unsetenv("LD_PRELOAD");
    // The testbed comes before anything in the library touches libudev.
    testbed_ = std::make_unique<UsbTestbed>();
    ASSERT_TRUE(api_.Load()) << dlerror();
    root_ = fs::temp_directory_path() / ("pelmora-usb-e2e-" + std::to_string(::getpid()));
    fs::create_directories(root_ / "config");
    fs::create_directories(root_ / "resources");
    std::ofstream(root_ / "config" / "AndroidVID.ini") << "Google=6353\nSamsung=1256\n";
    std::ofstream(root_ / "config" / "AndroidPIDBlack.ini") << "";
    std::ofstream(root_ / "config" / "AndroidPIDWhite.ini") << "";
    std::ofstream(root_ / "config" / "iManufactureAndiProduct.ini") << "";
    server_.ApplyToThisProcess();
    const std::string config = Dir("config"), resources = Dir("resources"), logs = Dir("logs");
    ASSERT_EQ(0, api_.init(config.c_str(), resources.c_str(), logs.c_str()));
    ASSERT_EQ(0, api_.start_adb(false)) << "starts the private server on its port";
  }

  void TearDown() override {
    if (api_.stop) api_.stop();
    fs::remove_all(root_);
    // The watcher thread is never stopped and the testbed stays until the process ends with it.
  }

  std::string Dir(const char* name) const { return (root_ / name).string(); }

  // A phone with USB debugging off: its strings come by control transfer on its device node.
  static SimulatedUsbDevice Pixel(const std::string& serial) {
    SimulatedUsbDevice device;
    device.number = 5;
    device.serial = serial;
    device.vid = kGoogleVid;
    device.pid = kPixelPid;
    device.has_node = true;
    device.strings = {{1, Utf16("Google")}, {2, Utf16("Pixel 8")}};
    return device;
  }

  PelmoraApi api_;
  std::unique_ptr<UsbTestbed> testbed_;
  fs::path root_;
  sim_phone::PrivateAdbServer server_;
};

TEST_F(UsbToAdb, AUsbPhoneBecomesAuthorisedUnderTheSameKeyWhenAdbSeesItsSerial) {
  sim_phone::PhoneConfig properties;
  properties.manufacturer = "Google";
  properties.model = "Pixel 8 Pro";
  properties.android_version = "14";
  sim_phone::SimPhone phone(properties);  // listening, but not attached to adb yet
  const std::string key = phone.serial();  // "127.0.0.1:<port>", already lower case

  ASSERT_EQ(0, api_.start(host_reports::Callback));
  const std::string syspath = testbed_->Plug(Pixel(key));

  const Json::Value usb_only = WaitForMove(key, "NotConnect", "MtpConnect");
  ASSERT_FALSE(usb_only.isNull()) << "the USB phone was not reported";
  EXPECT_EQ("", usb_only["actual_serial"].asString()) << "adb does not know it yet";
  EXPECT_EQ(kGoogleVid, usb_only["vid"].asUInt());
  EXPECT_EQ(kPixelPid, usb_only["pid"].asUInt());
  EXPECT_EQ("Google", usb_only["vid_manufacturer"].asString());
  EXPECT_EQ("Pixel 8", usb_only["model"].asString()) << "the USB product stands in for the model";
  EXPECT_EQ(0, usb_only["adb_error_code"].asInt());
  EXPECT_FALSE(testbed_->Transfers().empty()) << "the strings were read from the device node";

  ASSERT_TRUE(server_.Connect(phone.port()));
  const Json::Value authorised = WaitForMove(key, "MtpConnect", "AuthoredConnect");
  ASSERT_FALSE(authorised.isNull()) << "the phone behind adb was not reported";
  EXPECT_EQ(key, authorised["actual_serial"].asString());
  EXPECT_EQ(kGoogleVid, authorised["vid"].asUInt()) << "the USB IDs stay with the key";
  EXPECT_EQ(kPixelPid, authorised["pid"].asUInt());
  EXPECT_EQ("Google", authorised["vid_manufacturer"].asString());
  EXPECT_EQ("Google", authorised["manufacturer"].asString());
  EXPECT_EQ("Pixel 8 Pro", authorised["model"].asString()) << "the phone's own model wins";
  EXPECT_EQ("14", authorised["os_version"].asString());

  // adb loses the phone first (debugging switched off), then the cable comes out.
  phone.Leave();
  server_.Disconnect(phone.port());
  const Json::Value back_to_usb = WaitForMove(key, "AuthoredConnect", "MtpConnect");
  ASSERT_FALSE(back_to_usb.isNull()) << "adb's loss of the phone was not reported";
  EXPECT_EQ(key, back_to_usb["actual_serial"].asString());
  EXPECT_EQ(kGoogleVid, back_to_usb["vid"].asUInt());

  testbed_->Unplug(syspath);
  const Json::Value gone = WaitForMove(key, "MtpConnect", "NotConnect");
  ASSERT_FALSE(gone.isNull()) << "the unplugged phone was not reported gone";
  EXPECT_EQ(0u, gone["vid"].asUInt()) << "its details left with it";
  EXPECT_EQ("", gone["vid_manufacturer"].asString());

  // Each move once, none between.
  EXPECT_EQ((std::vector<std::string>{"NotConnect>MtpConnect", "MtpConnect>AuthoredConnect",
                                      "AuthoredConnect>MtpConnect", "MtpConnect>NotConnect"}),
            MovesOf(key));
}

TEST_F(UsbToAdb, AUsbPhoneWithoutAManufacturerStringGetsTheConfiguredVendorName) {
  // Plugged before the start: the watcher finds it in its first look at the bus. Its node cannot
  // be opened, so its strings come from sysfs, which has a product but no manufacturer.
  SimulatedUsbDevice galaxy;
  galaxy.number = 6;
  galaxy.serial = "R58M12ABCDE";
  galaxy.vid = kSamsungVid;
  galaxy.pid = kGalaxyPid;
  galaxy.sysfs_product = "Galaxy S10";
  const std::string syspath = testbed_->Plug(galaxy);

  ASSERT_EQ(0, api_.start(host_reports::Callback));
  const Json::Value arrived = WaitForMove("r58m12abcde", "NotConnect", "MtpConnect");
  ASSERT_FALSE(arrived.isNull()) << "the USB phone was not reported under its lower-case key";
  EXPECT_EQ("Samsung", arrived["vid_manufacturer"].asString());
  EXPECT_EQ(kSamsungVid, arrived["vid"].asUInt());
  EXPECT_EQ(kGalaxyPid, arrived["pid"].asUInt());
  EXPECT_EQ("Galaxy S10", arrived["model"].asString());

  testbed_->Unplug(syspath);
  EXPECT_FALSE(WaitForMove("r58m12abcde", "MtpConnect", "NotConnect").isNull());
}

}  // namespace
