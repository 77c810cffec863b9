// Command line and XDG defaults of pelmora-monitor.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "MonitorOptions.h"

namespace {

TEST(XdgDefaults, FollowTheBaseDirectoryRules) {
  // HOME, XDG_STATE_HOME, XDG_DATA_HOME (nullptr: unset), the home from the password database, then
  // the log and resource folders. Relative XDG values are invalid: ignored.
  const struct {
    const char *home, *state, *data, *passwd, *logs, *resources;
  } kCases[] = {
      {"/home/ann", nullptr, nullptr, "/unused", "/home/ann/.local/state/pelmora", "/home/ann/.local/share/pelmora"},
      {"/home/ann", "/var/state", "relative/data", "/unused", "/var/state/pelmora", "/home/ann/.local/share/pelmora"},
      {"", nullptr, "/data", "/from/passwd", "/from/passwd/.local/state/pelmora", "/data/pelmora"},
  };
  for (const auto& c : kCases) {
    const std::map<std::string, const char*> env = {{"HOME", c.home}, {"XDG_STATE_HOME", c.state}, {"XDG_DATA_HOME", c.data}};
    const monitor::FolderDefaults d =
        monitor::DefaultFolders([&](const char* name) { return env.at(name); }, c.passwd, "/usr/share/pelmora/config");
    EXPECT_EQ(std::string(c.logs) + " " + c.resources + " /usr/share/pelmora/config",
              d.log_dir + " " + d.resource_dir + " " + d.config_dir);
  }
}

TEST(Arguments, FoldersAndSwitchesInBothSpellingsAndMistakesRefusedWithAReason) {
  // What the options came to, or "error: <the reason>".
  auto parse = [](const std::vector<std::string>& args) {
    const monitor::ParseResult r = monitor::ParseMonitorArguments(args, {"/cfg", "/res", "/log"});
    if (!r.ok) return "error: " + r.error;
    const monitor::MonitorOptions& o = r.options;
    return o.config_dir + " " + o.resource_dir + (o.resource_dir_given ? "(given) " : " ") + o.log_dir +
           (o.json ? " json" : "") + (o.once ? " once" : "") + " " + std::to_string(o.once_wait_ms) +
           (o.help ? " help" : "") + (o.version ? " version" : "");
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> kGood = {
      {{}, "/cfg /res /log 3000"},
      {{"--config", "/a", "--resources=/b", "--log-dir", "/c d", "--json", "--once", "--wait=0.5"},
       "/a /b(given) /c d json once 500"},
      {{"-h", "--version"}, "/cfg /res /log 3000 help version"},
  };
  for (const auto& [args, options] : kGood) EXPECT_EQ(options, parse(args));
  const std::vector<std::vector<std::string>> kBad = {
      {"--config"},        {"--config="},     {"--log-dir", ""}, {"--frobnicate"},
      {"extra"},           {"--json=yes"},    {"--wait", "0"},   {"--wait", "abc"},
      {"--wait", "1e9"},   {"--wait", "nan"}, {"--wait"},        {"-x"},
      {"--once=x"},        {"--help=x"},      {"--version=1"}};
  for (const std::vector<std::string>& args : kBad) {  // the reason names the argument
    const std::string result = parse(args), name = args[0].substr(0, args[0].find('='));
    EXPECT_TRUE(result.rfind("error: ", 0) == 0 && result.find(name) != std::string::npos) << args[0] << ": " << result;
  }
}

}  // namespace
