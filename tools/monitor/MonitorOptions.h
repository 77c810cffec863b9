// Command line and default folders of pelmora-monitor.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace monitor {

struct MonitorOptions {
  std::string config_dir;      // the four .ini files
  std::string resource_dir;    // handed to the ADB service library (an adb placed here wins)
  std::string log_dir;         // "Pelmora.log" goes here
  bool resource_dir_given = false;  // an explicit --resources must exist; the default is created
  bool json = false;           // one compact report per line instead of the table
  bool once = false;           // first report (or "no Android device") and exit
  int once_wait_ms = 3000;     // how long --once waits for a first report
  bool help = false;
  bool version = false;
};

// Reads an environment variable; returns nullptr when it is not set.
using GetEnv = std::function<const char*(const char*)>;

// Where the folders go when no flag names them.
struct FolderDefaults {
  std::string config_dir;
  std::string resource_dir;  // $XDG_DATA_HOME/pelmora or ~/.local/share/pelmora
  std::string log_dir;       // $XDG_STATE_HOME/pelmora or ~/.local/state/pelmora
};

// XDG base-directory rule: the variable when it holds an absolute path, else $HOME/<fallback>.
// home is used when $HOME is unset or empty (the password database's entry, by the caller).
std::string XdgFolder(const GetEnv& env, const char* variable, const char* fallback,
                      const std::string& home);

FolderDefaults DefaultFolders(const GetEnv& env, const std::string& home,
                              const std::string& config_dir);

struct ParseResult {
  bool ok = true;
  std::string error;  // for the user, when !ok
  MonitorOptions options;
};

// args excludes the program name. Flags take "--flag VALUE" or "--flag=VALUE".
ParseResult ParseMonitorArguments(const std::vector<std::string>& args,
                                  const FolderDefaults& defaults);

std::string UsageText(const std::string& program);

}  // namespace monitor
