// The filter lists: grammar, loading and queries, through the module's functions and real files.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "Common.h"
#include "LoadConfig.h"
#include "LogCapture.h"
#include "TempDir.h"

using Pieces = std::vector<std::string>;
using Pids = std::vector<unsigned int>;

namespace {

// What each line grammar makes of a line: "key|number" and "left|right", or "no".
TEST(ConfigLines, GrammarsTakeExactlyTheirLinesAndSplittingFollowsItsRule) {
  const struct { const char* line; const char* key_number; const char* two_fields; } cases[] = {
      {"acme=1234", "acme|1234", "acme|1234"}, {"0042=0099", "0042|0099", "0042|0099"}, {"==7", "=|7", "no"},
      {" \t acme \t=\t 1234 \t", "acme|1234", " \t acme \t|\t 1234 \t"}, {"a=b=5", "a=b|5", "no"},
      {"#acme=1234", "#acme|1234", "#acme|1234"}, {"a\v=\f5", "a|5", "a\v|\f5"}, {"a=b=", "no", "a|b"},
      {"\xef\xbb\xbfGoogle=6353", "\xef\xbb\xbfGoogle|6353", "\xef\xbb\xbfGoogle|6353"}, {"= 1234", "no", "| 1234"},
      {"Acme Inc = 1234", "no", "Acme Inc | 1234"}, {"acme = 0x04E8", "no", "acme | 0x04E8"}, {"", "no", "no"},
      {"acme = 12 34", "no", "acme | 12 34"}, {"acme=-5", "no", "acme|-5"}, {"acme =", "no", "no"},
      {"acme: 1234", "no", "no"}, {"a=b=c", "no", "no"},
  };
  for (const auto& c : cases) {
    std::string a = "unset", b = "unset";
    EXPECT_EQ(c.key_number, MatchKeyNumberLine(c.line, &a, &b) ? a + "|" + b : "no") << c.line;
    a = b = "unset";
    EXPECT_EQ(c.two_fields, MatchTwoFieldLine(c.line, &a, &b) ? a + "|" + b : "no") << c.line;
  }
  // Splitting keeps empty pieces but no empty tail.
  const struct { const char* text; const char* pattern; Pieces pieces; } splits[] = {
      {"", "[\r\n]+", {""}}, {"one", "[\r\n]+", {"one"}}, {"\r\na\r\n\n\rb\n", "[\r\n]+", {"", "a", "b"}},
      {"a==b", "=", {"a", "", "b"}}, {"a=b=", "=", {"a", "b"}}, {"=b", "=", {"", "b"}}, {"a=", "=", {"a"}},
  };
  for (const auto& c : splits) EXPECT_EQ(c.pieces, split(c.text, c.pattern)) << c.text;
  // Key serials lower ASCII letters only.
  EXPECT_EQ("abc-12\xc3\x89z\xff@[", GetLowerCaseString("AbC-12\xc3\x89Z\xff@["));
}

class ConfigFolder : public ::testing::Test {
 protected:
  void SetUp() override { log_capture::Clear(); }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(dir_.path() + "/" + name, std::ios::binary) << text;
  }
  const char* Dir() const { return dir_.path().c_str(); }
  TempDir dir_;
};

TEST_F(ConfigFolder, ReadTotalFileReadsEveryByteOrSaysTheFileCannotBeOpened) {
  std::string text;
  const std::string file = dir_.path() + "/file";
  for (const char* path : {file.c_str(), Dir()}) EXPECT_EQ(2, ReadTotalFile(path, &text)) << "missing, or a folder";
  for (const std::string& bytes : {std::string(), std::string("a\0b\r\n", 5)}) {
    Write("file", bytes);
    EXPECT_EQ(0, ReadTotalFile(file.c_str(), &text));
    EXPECT_EQ(bytes, text);
  }
}

TEST_F(ConfigFolder, TablesKeepTheFirstVendorLineAndEveryPidOfItsLeadingDecimalKey) {
  EXPECT_EQ(2, LoadVIDConfig(Dir()));
  EXPECT_TRUE(GetVIDConfigMap().empty()) << "a missing file changes nothing";

  // Every line ending; numbers past 32 bits stay at the largest value, which no USB ID equals.
  Write("AndroidVID.ini", "; remark\r\nacme=100\rAcme = 101\n\nother=100\r\n\n\rzero=0\nfour=4\n"
                          "huge=99999999999999999999\nwrap=4294967297");
  Write("AndroidPIDBlack.ini", "100=17\n101=17\n100=18\r\n100=17\n0x04E8=1\n04e8=2\n+100=3\n"
                               "-100=4\n100abc=5\nabc=6\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  EXPECT_EQ((std::map<unsigned int, std::string>{
                {0, "zero"}, {4, "four"}, {100, "acme"}, {101, "Acme"}, {4294967295u, "huge"}}),
            GetVIDConfigMap());
  EXPECT_EQ((Pids{17, 18, 17, 3, 5}), GetBlackPidList(100));
  EXPECT_EQ((Pids{17}), GetBlackPidList(101));
  EXPECT_EQ((Pids{1, 6}), GetBlackPidList(0));
  EXPECT_EQ((Pids{2}), GetBlackPidList(4));
  bool present = true;
  EXPECT_TRUE(GetWhitePidList(100, &present).empty());
  EXPECT_FALSE(present) << "no white-list file, so no entry";
}

TEST_F(ConfigFolder, QueriesLogOnlyBlackListedDevicesOfKnownVendorsAndASecondLoadOnlyAdds) {
  Write("AndroidVID.ini", "Google=6353\n");
  Write("AndroidPIDBlack.ini", "6353=20531\n2=20\n");
  Write("AndroidPIDWhite.ini", "6353=20194\n6353=20531\n");
  Write("iManufactureAndiProduct.ini", "Acme=One\r\nAcme=Two\nacme=Three\nAcme =Four\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  ASSERT_EQ(0, LoadiManufactureAndiProductConfig(Dir()));
  // The vendor load says what the files gave; a vendor list of noise says that it gave none.
  EXPECT_EQ(1, log_capture::Count(1, "AndroidVID.ini gave 1 vendors (1 new); AndroidPIDBlack.ini 1 products and "
                                     "AndroidPIDWhite.ini 2 for the new ones."));
  Write("AndroidVID.ini", "\x8f\x01=\xff\n\x7f == 12a\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  EXPECT_EQ(1, log_capture::Count(2, "AndroidVID.ini gave no vendor: no USB device will be taken for a phone."));
  log_capture::Clear();

  EXPECT_TRUE(IsDeviceOnNon_AndroidList(1256, 1, "Stick")) << "unknown vendor";
  EXPECT_FALSE(IsDeviceOnNon_AndroidList(6353, 20194, ""));
  EXPECT_TRUE(IsDeviceOnNon_AndroidList(6353, 20531, "AbC"));
  ASSERT_EQ(1u, log_capture::Lines().size()) << "only the black-listed device is logged";
  EXPECT_EQ(1, log_capture::Count(3, "Find non-android deivce key serial:AbC\r vid:6353\r pid:20531"));
  EXPECT_TRUE(IsDeviceOnWhitePidList(6353, 20531)) << "both lists keep the product";
  EXPECT_FALSE(IsDeviceOnWhitePidList(6354, 20531));
  EXPECT_EQ((Pieces{"One", "Two"}), GetManufactureProductList("Acme"));
  EXPECT_EQ((Pieces{"Three"}), GetManufactureProductList("acme"));
  EXPECT_EQ((Pieces{"Four"}), GetManufactureProductList("Acme "));

  Write("AndroidVID.ini", "renamed=6353\nsecond=2\n");
  Write("AndroidPIDBlack.ini", "6353=11\n2=20\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  ASSERT_EQ(0, LoadiManufactureAndiProductConfig(Dir()));
  EXPECT_EQ("Google", GetVIDConfigMap().at(6353));
  EXPECT_EQ((Pids{20531}), GetBlackPidList(6353)) << "not read again for a known vendor";
  EXPECT_EQ((Pids{20}), GetBlackPidList(2));
  EXPECT_EQ((Pieces{"One", "Two", "One", "Two"}), GetManufactureProductList("Acme"));
}

}  // namespace
