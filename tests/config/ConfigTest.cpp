// The filter lists: grammar, splitting, loading and the two queries, through the module's
// functions and real files in a temporary folder.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Common.h"
#include "DeviceInfo.h"
#include "LoadConfig.h"
#include "LogCapture.h"

namespace fs = std::filesystem;
using Pieces = std::vector<std::string>;

namespace {

class ConfigFolder : public ::testing::Test {
 protected:
  void SetUp() override {
    log_capture::Clear();
    dir_ = fs::temp_directory_path() / ("pelmora-config-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ / name, std::ios::binary) << text;
  }
  const char* Dir() const { return dir_.c_str(); }
  fs::path dir_;
};

struct KeyNumberCase {
  std::string line;
  bool accepted;
  std::string key, number;
};

TEST(KeyNumberGrammar, AcceptsExactlyTheLinesOfTheExpressionWithItsGroups) {
  const std::vector<KeyNumberCase> cases = {
      {"acme=1234", true, "acme", "1234"},
      {" \t acme \t=\t 1234 \t", true, "acme", "1234"},
      {"a=b=5", true, "a=b", "5"},
      {"x=1=2", true, "x=1", "2"},
      {"==7", true, "=", "7"},
      {"0042=0099", true, "0042", "0099"},
      {"#acme=1234", true, "#acme", "1234"},
      {"\xef\xbb\xbfGoogle=6353", true, "\xef\xbb\xbfGoogle", "6353"},
      {"a\v=\f5", true, "a", "5"},
      {"acme = 0x04E8", false, "", ""},
      {"Acme Inc = 1234", false, "", ""},
      {"acme = 12 34", false, "", ""},
      {"acme =", false, "", ""},
      {"= 1234", false, "", ""},
      {"acme: 1234", false, "", ""},
      {"[Vendors]", false, "", ""},
      {"", false, "", ""},
      {"acme=-5", false, "", ""},
  };
  for (const KeyNumberCase& c : cases) {
    std::string key = "unset", number = "unset";
    EXPECT_EQ(c.accepted, MatchKeyNumberLine(c.line, &key, &number)) << c.line;
    if (c.accepted) {
      EXPECT_EQ(c.key, key) << c.line;
      EXPECT_EQ(c.number, number) << c.line;
    }
  }
}

TEST(Splitting, FollowsTheRuleForEmptyPiecesAndTheTail) {
  EXPECT_EQ(Pieces({""}), split("", "[\r\n]+"));
  EXPECT_EQ(Pieces({"one"}), split("one", "[\r\n]+"));
  EXPECT_EQ(Pieces({"", "a", "b"}), split("\r\na\r\n\n\rb\n", "[\r\n]+"));
  EXPECT_EQ(Pieces({"a", "", "b"}), split("a==b", "="));
  EXPECT_EQ(Pieces({"a", "b"}), split("a=b=", "="));
  EXPECT_EQ(Pieces({"", "b"}), split("=b", "="));
  EXPECT_EQ(Pieces({"a"}), split("a=", "="));
  // Any other pattern goes through the regular-expression engine with the same rule.
  EXPECT_EQ(Pieces({"a", "b", "c"}), split("a, b,c", ", ?"));
  EXPECT_EQ(Pieces({"a", "", "x"}), split("a--x", "-"));
  EXPECT_EQ(Pieces({"a", "", "b"}), split("a--b-", "-")) << "no empty tail piece";
}

TEST(TwoFieldGrammar, AcceptsExactlyTwoVerbatimPieces) {
  std::string left, right;
  ASSERT_TRUE(MatchTwoFieldLine("Acme Inc=Widget Pro", &left, &right));
  EXPECT_EQ("Acme Inc", left);
  EXPECT_EQ("Widget Pro", right);
  ASSERT_TRUE(MatchTwoFieldLine(" a = b ", &left, &right));
  EXPECT_EQ(" a ", left);
  EXPECT_EQ(" b ", right);
  ASSERT_TRUE(MatchTwoFieldLine("=b", &left, &right));
  EXPECT_EQ("", left);
  ASSERT_TRUE(MatchTwoFieldLine("a=b=", &left, &right));
  EXPECT_EQ("b", right);
  for (const char* rejected : {"a=b=c", "a=", "no separator", ""}) {
    EXPECT_FALSE(MatchTwoFieldLine(rejected, &left, &right)) << rejected;
  }
}

TEST_F(ConfigFolder, ReadTotalFileReadsEveryByteOrSaysTheFileCannotBeOpened) {
  std::string text;
  EXPECT_EQ(2, ReadTotalFile((dir_ / "missing").c_str(), &text));
  EXPECT_EQ(2, ReadTotalFile(Dir(), &text)) << "a folder is not a configuration file";
  Write("empty", "");
  EXPECT_EQ(0, ReadTotalFile((dir_ / "empty").c_str(), &text));
  EXPECT_EQ("", text);
  Write("bytes", std::string("a\0b\r\n", 5));
  EXPECT_EQ(0, ReadTotalFile((dir_ / "bytes").c_str(), &text));
  EXPECT_EQ(std::string("a\0b\r\n", 5), text);
}

TEST_F(ConfigFolder, WorkedExampleGivesExactlyItsTables) {
  Write("AndroidVID.ini", "acme=100\nAcme = 101\nother=100\n");
  Write("AndroidPIDBlack.ini", "100=17\n101=17\n100=18\n100=17\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));

  EXPECT_EQ((std::map<unsigned int, std::string>{{100, "acme"}, {101, "Acme"}}), GetVIDConfigMap());
  EXPECT_EQ((std::vector<unsigned int>{17, 18, 17}), GetBlackPidList(100));
  EXPECT_EQ((std::vector<unsigned int>{17}), GetBlackPidList(101));
  bool present = true;
  GetWhitePidList(100, &present);
  EXPECT_FALSE(present) << "no white-list file, so no entry";
  for (unsigned int pid : {17u, 18u, 0u}) EXPECT_FALSE(IsDeviceOnWhitePidList(100, pid));
}

TEST_F(ConfigFolder, EveryLineEndingGivesTheSameTables) {
  const std::vector<std::string> endings = {"\r\n", "\n", "\r", "\n\r\n\n"};
  std::vector<std::map<unsigned int, std::string>> vendor_tables;
  for (size_t i = 0; i < endings.size(); ++i) {
    const std::string& eol = endings[i];
    const fs::path sub = dir_ / std::to_string(i);
    fs::create_directories(sub);
    std::ofstream(sub / "AndroidVID.ini", std::ios::binary) << "; remark" << eol << "g" << i << "=1" << i << eol << eol << "h" << i << " = 2" << i;
    std::ofstream(sub / "AndroidPIDWhite.ini", std::ios::binary) << "1" << i << "=5" << eol << "1" << i << "=6";
    ASSERT_EQ(0, LoadVIDConfig(sub.c_str()));
    EXPECT_EQ((std::vector<unsigned int>{5, 6}), GetWhitePidList(10 + i)) << "ending " << i;
  }
  EXPECT_EQ(8u, GetVIDConfigMap().size());
  EXPECT_EQ("h3", GetVIDConfigMap().at(23));
}

TEST_F(ConfigFolder, PidFileKeysAreReadByTheirLeadingDecimalNumber) {
  Write("AndroidVID.ini", "zero=0\nfour=4\nhundred=100\n");
  Write("AndroidPIDBlack.ini", "0x04E8=1\n04e8=2\n+100=3\n-100=4\n100abc=5\nabc=6\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  EXPECT_EQ((std::vector<unsigned int>{1, 6}), GetBlackPidList(0));
  EXPECT_EQ((std::vector<unsigned int>{2}), GetBlackPidList(4));
  EXPECT_EQ((std::vector<unsigned int>{3, 5}), GetBlackPidList(100));
}

TEST_F(ConfigFolder, NumbersPastThirtyTwoBitsNeverMatchAUsbId) {
  Write("AndroidVID.ini", "huge=99999999999999999999\nwrap=4294967297\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  EXPECT_EQ(1u, GetVIDConfigMap().size());
  EXPECT_EQ("huge", GetVIDConfigMap().at(4294967295u));
  EXPECT_TRUE(IsDeviceOnNon_AndroidList(1, 1, "s")) << "4294967297 must not wrap to vendor 1";
}

TEST_F(ConfigFolder, MissingFilesAreCodeTwoAndLeaveTheTablesAlone) {
  EXPECT_EQ(2, LoadVIDConfig(Dir()));
  EXPECT_EQ(2, LoadiManufactureAndiProductConfig(Dir()));
  EXPECT_EQ(2, LoadBlackPIDConfig(Dir(), 100));
  EXPECT_TRUE(GetVIDConfigMap().empty());

  Write("AndroidVID.ini", "acme=100\n");
  Write("AndroidPIDBlack.ini", "100=17\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  bool present = true;
  EXPECT_TRUE(GetWhitePidList(100, &present).empty());
  EXPECT_FALSE(present);
  EXPECT_FALSE(IsDeviceOnWhitePidList(100, 17));
  EXPECT_TRUE(IsDeviceOnNon_AndroidList(100, 17, "s")) << "the black list still works";
}

TEST_F(ConfigFolder, ClassificationLogsOnlyBlackListedDevicesOfKnownVendors) {
  Write("AndroidVID.ini", "Google=6353\n");
  Write("AndroidPIDBlack.ini", "6353=20531\n");
  Write("AndroidPIDWhite.ini", "6353=20194\n6353=20531\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));

  EXPECT_TRUE(IsDeviceOnNon_AndroidList(1256, 1, "Stick")) << "unknown vendor";
  EXPECT_FALSE(IsDeviceOnNon_AndroidList(6353, 20194, ""));
  EXPECT_TRUE(log_capture::Lines().empty());

  EXPECT_TRUE(IsDeviceOnNon_AndroidList(6353, 20531, "AbC"));
  ASSERT_EQ(1u, log_capture::Lines().size());
  EXPECT_EQ(1, log_capture::Count(3, "Find non-android deivce key serial:AbC\r vid:6353\r pid:20531"));

  EXPECT_TRUE(IsDeviceOnWhitePidList(6353, 20531)) << "both lists keep the product";
  EXPECT_FALSE(IsDeviceOnWhitePidList(6354, 20531));
}

TEST_F(ConfigFolder, ASecondLoadOnlyAdds) {
  Write("AndroidVID.ini", "first=1\n");
  Write("AndroidPIDBlack.ini", "1=10\n2=20\n");
  Write("iManufactureAndiProduct.ini", "Acme=One\r\nAcme=Two\nacme=Three\nAcme =Four\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  ASSERT_EQ(0, LoadiManufactureAndiProductConfig(Dir()));
  EXPECT_EQ((Pieces{"One", "Two"}), GetManufactureProductList("Acme"));
  EXPECT_EQ((Pieces{"Three"}), GetManufactureProductList("acme"));
  EXPECT_EQ((Pieces{"Four"}), GetManufactureProductList("Acme "));

  Write("AndroidVID.ini", "renamed=1\nsecond=2\n");
  Write("AndroidPIDBlack.ini", "1=11\n2=20\n");
  ASSERT_EQ(0, LoadVIDConfig(Dir()));
  ASSERT_EQ(0, LoadiManufactureAndiProductConfig(Dir()));
  EXPECT_EQ("first", GetVIDConfigMap().at(1));
  EXPECT_EQ((std::vector<unsigned int>{10}), GetBlackPidList(1)) << "not read again for vendor 1";
  EXPECT_EQ((std::vector<unsigned int>{20}), GetBlackPidList(2));
  EXPECT_EQ((Pieces{"One", "Two", "One", "Two"}), GetManufactureProductList("Acme"));
}

TEST_F(ConfigFolder, ReloadingWhileOtherThreadsQueryIsSafe) {
  Write("AndroidPIDWhite.ini", "7=1\n");
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; ++r) {
    readers.emplace_back([&] {
      while (!done) {
        IsDeviceOnWhitePidList(7, 1);
        IsDeviceOnNon_AndroidList(7, 2, "s");
        const ConfigTablesReadLock lock = LockConfigTablesForReading();
        GetVIDConfigMap().find(7);
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    Write("AndroidVID.ini", "v" + std::to_string(i) + "=" + std::to_string(i) + "\n");
    ASSERT_EQ(0, LoadVIDConfig(Dir()));
  }
  done = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(200u, GetVIDConfigMap().size());
  EXPECT_TRUE(IsDeviceOnWhitePidList(7, 1));
}

TEST(SharedHelpers, KeySerialsLowerOnlyAsciiLetters) {
  EXPECT_EQ("abc-12", GetLowerCaseString("AbC-12"));
  EXPECT_EQ("\xc3\x89z\xff@[", GetLowerCaseString("\xc3\x89Z\xff@["));
}

TEST(SharedHelpers, StatusNamesAndTheAdbMapping) {
  const char* names[] = {"NotConnect", "MtpConnect", "AdbConnect", "OfflineConnect",
                         "UnauthoredConnect", "AuthoredConnect"};
  for (int i = 0; i < 6; ++i) EXPECT_STREQ(names[i], s_c_DeviceStatusString[i]);
  EXPECT_EQ(AuthoredConnect, ConvertAuthorStatus2ConnectStatus(DeviceAuthored));
  EXPECT_EQ(UnauthoredConnect, ConvertAuthorStatus2ConnectStatus(DeviceUnauthored));
  EXPECT_EQ(OfflineConnect, ConvertAuthorStatus2ConnectStatus(DeviceOffline));
  EXPECT_EQ(AuthoredConnect, ConvertAuthorStatus2ConnectStatus(static_cast<DeviceAuthorStatus>(7)));
}

}  // namespace
