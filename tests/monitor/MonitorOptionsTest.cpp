// Command line and XDG defaults of pelmora-monitor.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "MonitorOptions.h"

namespace {

using monitor::FolderDefaults;
using monitor::ParseMonitorArguments;
using monitor::ParseResult;

struct FakeEnvironment {
  std::map<std::string, std::string> values;
  monitor::GetEnv Getter() const {
    return [this](const char* name) -> const char* {
      auto it = values.find(name);
      return it == values.end() ? nullptr : it->second.c_str();
    };
  }
};

TEST(XdgDefaults, FollowTheBaseDirectoryRules) {
  FakeEnvironment env;
  env.values = {{"HOME", "/home/ann"}};
  FolderDefaults d = monitor::DefaultFolders(env.Getter(), "/unused", "/usr/share/pelmora/config");
  EXPECT_EQ("/home/ann/.local/state/pelmora", d.log_dir);
  EXPECT_EQ("/home/ann/.local/share/pelmora", d.resource_dir);
  EXPECT_EQ("/usr/share/pelmora/config", d.config_dir);

  env.values["XDG_STATE_HOME"] = "/var/state";
  env.values["XDG_DATA_HOME"] = "relative/data";  // relative values are invalid: ignored
  d = monitor::DefaultFolders(env.Getter(), "/unused", "c");
  EXPECT_EQ("/var/state/pelmora", d.log_dir);
  EXPECT_EQ("/home/ann/.local/share/pelmora", d.resource_dir);

  env.values = {{"HOME", ""}};
  d = monitor::DefaultFolders(env.Getter(), "/from/passwd", "c");
  EXPECT_EQ("/from/passwd/.local/state/pelmora", d.log_dir);
}

class Arguments : public ::testing::Test {
 protected:
  ParseResult Parse(const std::vector<std::string>& args) {
    return ParseMonitorArguments(args, {"/cfg", "/res", "/log"});
  }
};

TEST_F(Arguments, DefaultsFoldersAndSwitchesInBothSpellings) {
  const ParseResult d = Parse({});
  ASSERT_TRUE(d.ok);
  EXPECT_EQ("/cfg /res /log", d.options.config_dir + " " + d.options.resource_dir + " " + d.options.log_dir);
  EXPECT_FALSE(d.options.resource_dir_given || d.options.json || d.options.once || d.options.help ||
               d.options.version);
  EXPECT_EQ(3000, d.options.once_wait_ms);

  const ParseResult r = Parse({"--config", "/a", "--resources=/b", "--log-dir", "/c d", "--json",
                               "--once", "--wait=0.5"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ("/a", r.options.config_dir);
  EXPECT_EQ("/b", r.options.resource_dir);
  EXPECT_TRUE(r.options.resource_dir_given);
  EXPECT_EQ("/c d", r.options.log_dir);
  EXPECT_TRUE(r.options.json);
  EXPECT_TRUE(r.options.once);
  EXPECT_EQ(500, r.options.once_wait_ms);
  EXPECT_TRUE(Parse({"-h"}).options.help);
  EXPECT_TRUE(Parse({"--version"}).options.version);
}

TEST_F(Arguments, MistakesAreRefusedWithAReason) {
  const std::vector<std::vector<std::string>> bad = {
      {"--config"},        {"--config="},     {"--log-dir", ""}, {"--frobnicate"},
      {"extra"},           {"--json=yes"},    {"--wait", "0"},   {"--wait", "abc"},
      {"--wait", "1e9"},   {"--wait", "nan"}, {"--wait"},        {"-x"}};
  for (const std::vector<std::string>& args : bad) {
    const ParseResult r = Parse(args);
    EXPECT_FALSE(r.ok) << args[0];
    EXPECT_FALSE(r.error.empty()) << args[0];
  }
  EXPECT_NE(std::string::npos, Parse({"--frobnicate"}).error.find("--frobnicate"));
}

}  // namespace
