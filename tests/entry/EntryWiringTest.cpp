// InitPelmora, StartAdbServer and the listener's entry points as a host calls them, with the log
// and ADB libraries replaced by stand-ins that record what they were asked.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "FakeTarnwell.h"
#include "LogCapture.h"
#include "Pelmora.h"

namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;

std::vector<std::pair<int, std::string>> LoggedLines() {
  std::vector<std::pair<int, std::string>> lines;
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
    config_ = fs::temp_directory_path() / ("pelmora-entry-" + std::to_string(::getpid()));
    fs::create_directories(config_);
    for (const char* name : {"AndroidVID.ini", "AndroidPIDBlack.ini", "AndroidPIDWhite.ini",
                             "iManufactureAndiProduct.ini"}) {
      std::ofstream(config_ / name) << "Acme=4660\n";
    }
  }
  void TearDown() override { fs::remove_all(config_); }
  fs::path config_;
};

TEST_F(Entry, AMissingOrEmptyFolderIsRefusedBeforeAnythingHappens) {
  const char* cases[][3] = {{nullptr, "r", "l"}, {"", "r", "l"}, {"c", nullptr, "l"},
                            {"c", "", "l"},      {"c", "r", nullptr}, {"c", "r", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(PELMORA_ERR_ARGUMENT, InitPelmora(c[0], c[1], c[2]));
  }
  EXPECT_TRUE(log_capture::InitCalls().empty());
  EXPECT_TRUE(log_capture::Lines().empty());
  EXPECT_TRUE(fake_adb::Calls().empty());
}

TEST_F(Entry, InitialisationRunsInOrderWithTheLogPathAndArgumentsAsGiven) {
  const std::string config = config_.string();
  ASSERT_EQ(0, InitPelmora(config.c_str(), "/res", "/var/log/app/"));
  EXPECT_EQ((Strings{config + "|Pelmora|/var/log/app//Pelmora.log"}), log_capture::InitCalls())
      << "the separator is added even after a trailing one";
  EXPECT_EQ((Strings{"AdbSdkInit:/res," + config + ",/var/log/app/"}), fake_adb::Calls())
      << "the resource folder comes first";
  EXPECT_EQ((std::vector<std::pair<int, std::string>>{{1, "Pelmora verion 2.0.125-D-e04cbdc"}}),
            LoggedLines());
}

TEST_F(Entry, OnlyTheManufacturerListDecidesTheResultOtherFailuresAreLogged) {
  fake_adb::Script script;
  script.sdk_init = [](const std::string&, const std::string&, const std::string&) { return 102; };
  fake_adb::SetScript(script);
  fs::remove(config_ / "AndroidVID.ini");
  const std::string config = config_.string();
  EXPECT_EQ(0, InitPelmora(config.c_str(), "/res", "/logs"));
  EXPECT_EQ((std::vector<std::pair<int, std::string>>{{3, "Fail to init adb sdk, error 102."},
                                                       {3, "Fail to load vid config, error 2."},
                                                       {1, "Pelmora verion 2.0.125-D-e04cbdc"}}),
            LoggedLines());

  log_capture::Clear();
  fs::remove(config_ / "iManufactureAndiProduct.ini");
  EXPECT_EQ(PELMORA_ERR_CONFIG_FILE, InitPelmora(config.c_str(), "/res", "/logs"));
  EXPECT_EQ(1, log_capture::Count(3, "Fail to load iManufacture and iProduct config, error 2."));
}

TEST_F(Entry, StartAdbServerTurnsTheKilledFlagAroundAndPassesTheResultOn) {
  fake_adb::Script script;
  script.start_daemon = [](int flag, int) { return flag == 0 ? 109 : 0; };
  fake_adb::SetScript(script);
  EXPECT_EQ(109, StartAdbServer(true));
  EXPECT_EQ(0, StartAdbServer(false));
  EXPECT_EQ((Strings{"AdbStartDaemon:0,0", "AdbStartDaemon:1,0"}), fake_adb::Calls());
  EXPECT_EQ((std::vector<std::pair<int, std::string>>{
                {1, "StartAdbServer Enter... (have adb been killed=true)"},
                {1, "StartAdbServer Enter... (have adb been killed=false)"}}),
            LoggedLines());
}

TEST_F(Entry, ANullCallbackIsRefusedAndAStopWithoutAListenerOnlyLogsItsEntry) {
  EXPECT_EQ(PELMORA_ERR_NULL_CALLBACK, StartListenAndroidDevice(nullptr));
  StopListenAndroidDevice();
  StopListenAndroidDevice();
  const auto lines = LoggedLines();
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ(std::make_pair(1, std::string("StartListenAndroidDevice Enter...")), lines[0]);
  EXPECT_EQ(3, lines[1].first);
  EXPECT_NE(std::string::npos, lines[1].second.find("null callback"));
  EXPECT_EQ(std::make_pair(1, std::string("StopListenAndroidDevice Enter...")), lines[2]);
  EXPECT_EQ(lines[2], lines[3]);
  EXPECT_TRUE(fake_adb::Calls().empty());
}

}  // namespace
