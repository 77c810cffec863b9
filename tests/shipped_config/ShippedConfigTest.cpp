// The configuration shipped in config/: every line is either a remark the loaders skip or an entry
// they accept, and the tables they build hold what the files say.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

#include "LoadConfig.h"
#include "LogCapture.h"

namespace {

const std::string kDir = PELMORA_SHIPPED_CONFIG_DIR;

std::vector<std::string> Lines(const std::string& file) {
  std::string text;
  EXPECT_EQ(0, ReadTotalFile((kDir + "/" + file).c_str(), &text)) << file;
  return split(text, "[\r\n]+");
}

bool IsRemark(const std::string& line) { return line.empty() || line[0] == ';'; }

struct KeyNumber {
  std::string key;
  unsigned long number;
};

// Every line of a key-number file: remarks must be skipped by the grammar, the rest accepted.
std::vector<KeyNumber> EntriesOf(const std::string& file) {
  std::vector<KeyNumber> entries;
  for (const std::string& line : Lines(file)) {
    std::string key, number;
    const bool accepted = MatchKeyNumberLine(line, &key, &number);
    if (IsRemark(line)) {
      EXPECT_FALSE(accepted) << file << ": a remark the loader would take as an entry: " << line;
    } else {
      EXPECT_TRUE(accepted) << file << ": an entry the loader would skip: " << line;
      if (accepted) entries.push_back({key, std::stoul(number)});
    }
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

// Each vendor once, with a valid USB ID; product entries only of listed vendors, never on both lists.
TEST_F(ShippedConfig, VendorAndProductListsAreConsistent) {
  const std::vector<KeyNumber> vendor_entries = EntriesOf("AndroidVID.ini");
  std::set<unsigned long> vendors;
  for (const KeyNumber& e : vendor_entries) {
    EXPECT_GT(e.number, 0u) << e.key;
    EXPECT_LE(e.number, 0xFFFFu) << e.key;
    EXPECT_TRUE(vendors.insert(e.number).second) << "vendor ID listed twice: " << e.number;
  }
  {
    ConfigTablesReadLock lock = LockConfigTablesForReading();
    EXPECT_EQ(vendor_entries.size(), GetVIDConfigMap().size());
  }
  std::set<std::pair<unsigned long, unsigned long>> black;
  for (const char* file : {"AndroidPIDBlack.ini", "AndroidPIDWhite.ini"}) {
    const std::vector<KeyNumber> entries = EntriesOf(file);
    EXPECT_FALSE(entries.empty()) << file;
    for (const KeyNumber& e : entries) {
      const unsigned long vid = std::stoul(e.key);
      EXPECT_EQ(e.key, std::to_string(vid)) << file << ": the vendor must be plain decimal";
      EXPECT_EQ(1u, vendors.count(vid)) << file << ": vendor " << vid << " is not in AndroidVID.ini";
      EXPECT_LE(e.number, 0xFFFFu) << file;
      if (std::string(file) == "AndroidPIDBlack.ini") {
        black.insert({vid, e.number});
      } else {
        EXPECT_EQ(0u, black.count({vid, e.number})) << vid << ":" << e.number << " on both lists";
      }
    }
  }
}

// Real devices (IDs from usb.ids and the public phone lists): phones pass the lists without an ADB
// question, under their maker's name; everything else is refused or left to ADB to name a maker.
TEST_F(ShippedConfig, NamedRealDevicesAreTakenOrLeftToAdb) {
  const struct {
    uint16_t vid, pid;
    bool phone;
    const char* maker;  // its AndroidVID.ini name; empty when the vendor is not listed
    const char* name;
  } devices[] = {
      {0x18D1, 0x4EE7, true, "Google", "Pixel, charging + debug"},
      {0x04E8, 0x6860, true, "Samsung", "Galaxy, MTP"},
      {0x339B, 0x107D, true, "Honor", "Honor X8/X9 5G"},
      {0x2E04, 0xC025, true, "HMD", "Nokia 6.1"},
      {0x2717, 0xFF48, true, "Xiaomi", "Mi/Redmi, MTP + ADB"},
      {0x2D95, 0x6002, true, "vivo", "vivo phone"},
      {0x03F0, 0x2B17, false, "", "HP LaserJet 1020"},
      {0x413C, 0x2107, false, "", "Dell KB212-B keyboard"},
      {0x046D, 0xC52B, false, "", "Logitech Unifying receiver"},
      {0x091E, 0x4CDA, false, "", "Garmin watch"},
      {0x0B05, 0x17CB, false, "Asus", "Broadcom BCM20702A0 Bluetooth dongle"},
      {0x8087, 0x0026, false, "Intel", "AX201 Bluetooth"},
      {0x17EF, 0x3815, false, "Lenovo", "ChipsBnk 2GB USB Stick"},
      {0x04E8, 0x61F5, false, "Samsung", "Portable SSD T5"},
      {0x12D1, 0x14DC, false, "Huawei", "E3372 LTE stick"},
      {0x05C6, 0x9205, false, "Qualcomm", "Gobi 2000 modem"},
      {0x17EF, 0x3060, false, "Lenovo", "ThinkPad Dock"},
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
  std::string text;
  ASSERT_EQ(0, ReadTotalFile(PELMORA_UDEV_RULES, &text));
  int grants = 0;
  for (const std::string& line : split(text, "[\r\n]+")) {
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

TEST_F(ShippedConfig, ManufacturerFileHoldsOnlyTwoFieldLinesBesidesRemarks) {
  for (const std::string& line : Lines("iManufactureAndiProduct.ini")) {
    std::string left, right;
    EXPECT_EQ(!IsRemark(line), MatchTwoFieldLine(line, &left, &right)) << line;
  }
  EXPECT_EQ((std::vector<std::string>{"SAMSUNG_Android"}), GetManufactureProductList("SAMSUNG"));
  EXPECT_EQ(11u, GetManufactureProductList("Google").size());
}

}  // namespace
