// The configuration shipped in config/: every line is either a remark the loaders skip or an entry
// they accept, and the tables they build hold what the files say.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "LoadConfig.h"

namespace {

const std::string kDir = PELMORA_SHIPPED_CONFIG_DIR;
using Entries = std::vector<std::pair<std::string, std::string>>;

std::vector<std::string> Lines(const std::string& path) {
  std::string text;
  EXPECT_EQ(0, ReadTotalFile(path.c_str(), &text)) << path;
  return split(text, "[\r\n]+");
}

// The entries of a file; a remark the loader would take, or an entry it would skip, fails.
Entries EntriesOf(const std::string& file) {
  Entries entries;
  for (const std::string& line : Lines(kDir + "/" + file)) {
    std::string left, right;
    const bool accepted = file == "iManufactureAndiProduct.ini" ? MatchTwoFieldLine(line, &left, &right)
                                                                 : MatchKeyNumberLine(line, &left, &right);
    EXPECT_EQ(!line.empty() && line[0] != ';', accepted) << file << ": " << line;
    if (accepted) entries.emplace_back(left, right);
  }
  return entries;
}

class ShippedConfig : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(0, LoadVIDConfig(kDir.c_str()));
    ASSERT_EQ(0, LoadiManufactureAndiProductConfig(kDir.c_str()));
  }
};

// Each vendor once, with a valid USB ID; product entries only of listed vendors, never on both
// lists; the manufacturer texts are entries.
TEST_F(ShippedConfig, VendorAndProductListsAreConsistent) {
  std::set<unsigned long> vendors;
  for (const auto& [name, id] : EntriesOf("AndroidVID.ini")) {
    EXPECT_TRUE(std::stoul(id) > 0 && std::stoul(id) <= 0xFFFF) << name;
    EXPECT_TRUE(vendors.insert(std::stoul(id)).second) << "vendor ID listed twice: " << id;
  }
  std::set<std::pair<unsigned long, unsigned long>> black;
  for (const char* file : {"AndroidPIDBlack.ini", "AndroidPIDWhite.ini"}) {
    const Entries entries = EntriesOf(file);
    EXPECT_FALSE(entries.empty()) << file;
    for (const auto& [vendor, product] : entries) {
      const std::pair<unsigned long, unsigned long> pair(std::stoul(vendor), std::stoul(product));
      EXPECT_EQ(vendor, std::to_string(pair.first)) << file << ": the vendor must be plain decimal";
      EXPECT_EQ(1u, vendors.count(pair.first)) << file << ": vendor " << vendor << " is not in AndroidVID.ini";
      EXPECT_LE(pair.second, 0xFFFFu) << file;
      if (std::string(file) == "AndroidPIDBlack.ini") {
        black.insert(pair);
      } else {
        EXPECT_EQ(0u, black.count(pair)) << vendor << ":" << product << " on both lists";
      }
    }
  }
  EXPECT_FALSE(EntriesOf("iManufactureAndiProduct.ini").empty());
}

// Real devices from usb.ids and the phone lists (ShippedConfig.UsbListsHoldTheirFloors measures them
// all): phones pass without an ADB question, under their maker's name; the rest is refused or left to ADB.
TEST_F(ShippedConfig, NamedRealDevicesAreTakenOrLeftToAdb) {
  const struct {
    uint16_t vid, pid;
    bool phone;
    const char* maker;  // its AndroidVID.ini name; empty when the vendor is not listed
    const char* name;
  } devices[] = {
      {0x18D1, 0x4EE7, true, "Google", "Pixel, charging + debug"},
      {0x04E8, 0x6860, true, "Samsung", "Galaxy, MTP"},
      {0x03F0, 0x2B17, false, "", "HP LaserJet 1020"},
      {0x0B05, 0x17CB, false, "Asus", "Broadcom BCM20702A0 Bluetooth dongle"},
      {0x04E8, 0x61F5, false, "Samsung", "Portable SSD T5"},
      {0x12D1, 0x14DC, false, "Huawei", "E3372 LTE stick"},
  };
  for (const auto& d : devices) {
    const bool taken = IsDeviceOnWhitePidList(d.vid, d.pid) || !IsDeviceOnNon_AndroidList(d.vid, d.pid, "s");
    EXPECT_EQ(d.phone, taken) << d.name;
    ConfigTablesReadLock lock = LockConfigTablesForReading();
    const auto vendor = GetVIDConfigMap().find(d.vid);
    EXPECT_EQ(d.maker, vendor == GetVIDConfigMap().end() ? "" : vendor->second) << d.name;
  }
}

// The generated udev rules grant access only through an ADB/fastboot interface or a product pair.
TEST_F(ShippedConfig, UdevRulesNeverOpenAWholeVendor) {
  int grants = 0;
  for (const std::string& line : Lines(PELMORA_UDEV_RULES)) {
    if (line.empty() || line[0] == '#') continue;
    const bool by_interface = std::regex_search(line, std::regex(R"(ENV\{ID_USB_INTERFACES\}=="\*:ff420[13]:\*")"));
    const bool by_product = line.find("ATTR{idProduct}==") != std::string::npos;
    EXPECT_TRUE(by_product || line.find("idVendor") == std::string::npos) << line;
    if (line.find("MODE=") == std::string::npos && line.find("uaccess") == std::string::npos) continue;
    ++grants;
    EXPECT_TRUE(by_interface || by_product) << "a rule that narrows neither way: " << line;
  }
  EXPECT_EQ(2 + EntriesOf("AndroidPIDWhite.ini").size(), static_cast<size_t>(grants));
}

}  // namespace
