// InitPelmora, StartAdbServer and the listener's entry points as a host calls them, with the log
// and ADB libraries replaced by stand-ins that record what they were asked.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "FakeTarnwell.h"
#include "LogCapture.h"
#include "Pelmora.h"
#include "TempDir.h"

namespace {

using Strings = std::vector<std::string>;
using Logged = std::vector<std::pair<int, std::string>>;

Logged LoggedLines() {
  Logged lines;
  for (const log_capture::Line& line : log_capture::Lines()) {
    EXPECT_EQ("Pelmora", line.category) << line.text;
    lines.emplace_back(line.level, line.text);
  }
  return lines;
}

class Entry : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_adb::Reset();
    log_capture::Clear();
    for (const char* name : {"AndroidVID.ini", "AndroidPIDBlack.ini", "AndroidPIDWhite.ini",
                             "iManufactureAndiProduct.ini"}) {
      std::ofstream(config_.path() + "/" + name) << "Acme=4660\n";
    }
  }
  TempDir config_;
};

TEST_F(Entry, InitialisationRefusesMissingFoldersRunsInOrderAndFailsOnlyOnTheManufacturerList) {
  const char* cases[][3] = {{nullptr, "r", "l"}, {"", "r", "l"}, {"c", nullptr, "l"},
                            {"c", "", "l"},      {"c", "r", nullptr}, {"c", "r", ""}};
  for (const auto& c : cases) EXPECT_EQ(PELMORA_ERR_ARGUMENT, InitPelmora(c[0], c[1], c[2]));
  EXPECT_TRUE(log_capture::InitCalls().empty() && log_capture::Lines().empty() &&
              fake_adb::Calls().empty()) << "no log file, no line, no adb call";

  const std::string config = config_.path();
  ASSERT_EQ(0, InitPelmora(config.c_str(), "/res", "/var/log/app/"));
  EXPECT_EQ((Strings{config + "|Pelmora|/var/log/app//Pelmora.log"}), log_capture::InitCalls())
      << "the separator is added even after a trailing one";
  EXPECT_EQ((Strings{"AdbSdkInit:/res," + config + ",/var/log/app/"}), fake_adb::Calls())
      << "the resource folder comes first";
  const Logged::value_type products = {1, "iManufactureAndiProduct.ini gave 1 manufacturer and product pairs."};
  EXPECT_EQ((Logged{{1, "AndroidVID.ini gave 1 vendors (1 new); AndroidPIDBlack.ini 0 products and "
                        "AndroidPIDWhite.ini 0 for the new ones."},
                    products, {1, "Pelmora verion 2.0.125-D-e04cbdc"}}),
            LoggedLines());

  log_capture::Clear();
  fake_adb::SetScript({"", 0, {}, {{"AdbSdkInit:/res," + config + ",/logs", 102}}});
  std::remove((config + "/AndroidVID.ini").c_str());
  EXPECT_EQ(0, InitPelmora(config.c_str(), "/res", "/logs"));
  EXPECT_EQ((Logged{{3, "Fail to init adb sdk, error 102."}, {3, "Fail to load vid config, error 2."}, products,
                    {1, "Pelmora verion 2.0.125-D-e04cbdc"}}),
            LoggedLines());

  log_capture::Clear();
  std::remove((config + "/iManufactureAndiProduct.ini").c_str());
  EXPECT_EQ(PELMORA_ERR_CONFIG_FILE, InitPelmora(config.c_str(), "/res", "/logs"));
  EXPECT_EQ(1, log_capture::Count(3, "Fail to load iManufacture and iProduct config, error 2."));
}

TEST_F(Entry, StartAdbServerTurnsTheFlagAroundANullCallbackIsRefusedAStopAloneOnlyLogs) {
  fake_adb::SetScript({"", 0, {}, {{"AdbStartDaemon:0,0", 109}}});
  EXPECT_EQ(109, StartAdbServer(true));
  EXPECT_EQ(0, StartAdbServer(false));
  EXPECT_EQ((Strings{"AdbStartDaemon:0,0", "AdbStartDaemon:1,0"}), fake_adb::Calls());

  EXPECT_EQ(PELMORA_ERR_NULL_CALLBACK, StartListenAndroidDevice(nullptr));
  StopListenAndroidDevice();
  StopListenAndroidDevice();
  EXPECT_EQ((Logged{{1, "StartAdbServer Enter... (have adb been killed=true)"},
                    {1, "StartAdbServer Enter... (have adb been killed=false)"},
                    {1, "StartListenAndroidDevice Enter..."},
                    {3, "StartListenAndroidDevice: null callback refused, error " +
                            std::to_string(PELMORA_ERR_NULL_CALLBACK) + "."},
                    {1, "StopListenAndroidDevice Enter..."},
                    {1, "StopListenAndroidDevice Enter..."}}),
            LoggedLines());
  EXPECT_EQ(2u, fake_adb::Calls().size()) << "no listener was made";
}

}  // namespace
