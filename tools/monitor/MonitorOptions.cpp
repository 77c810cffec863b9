#include "MonitorOptions.h"

#include <cerrno>
#include <cstdlib>

namespace monitor {

std::string XdgFolder(const GetEnv& env, const char* variable, const char* fallback,
                      const std::string& home) {
  const char* value = env(variable);
  // Relative paths in these variables are invalid and must be ignored.
  if (value != nullptr && value[0] == '/') return std::string(value) + "/pelmora";
  const char* home_env = env("HOME");
  const std::string base = (home_env != nullptr && home_env[0] != '\0') ? home_env : home;
  return base + "/" + fallback + "/pelmora";
}

FolderDefaults DefaultFolders(const GetEnv& env, const std::string& home,
                              const std::string& config_dir) {
  FolderDefaults defaults;
  defaults.config_dir = config_dir;
  defaults.resource_dir = XdgFolder(env, "XDG_DATA_HOME", ".local/share", home);
  defaults.log_dir = XdgFolder(env, "XDG_STATE_HOME", ".local/state", home);
  return defaults;
}

namespace {

bool ParseWaitSeconds(const std::string& text, int* milliseconds) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size()) return false;
  if (!(seconds >= 0.1 && seconds <= 600)) return false;  // also rejects NaN
  *milliseconds = static_cast<int>(seconds * 1000);
  return true;
}

}  // namespace

ParseResult ParseMonitorArguments(const std::vector<std::string>& args,
                                  const FolderDefaults& defaults) {
  ParseResult result;
  MonitorOptions& o = result.options;
  o.config_dir = defaults.config_dir;
  o.resource_dir = defaults.resource_dir;
  o.log_dir = defaults.log_dir;

  auto fail = [&](const std::string& error) {
    result.ok = false;
    result.error = error;
    return result;
  };

  for (size_t i = 0; i < args.size(); ++i) {
    std::string flag = args[i];
    std::string value;
    bool has_inline_value = false;
    if (flag.rfind("--", 0) == 0) {
      const size_t eq = flag.find('=');
      if (eq != std::string::npos) {
        value = flag.substr(eq + 1);
        flag = flag.substr(0, eq);
        has_inline_value = true;
      }
    }
    auto take_value = [&](std::string* out) {
      if (has_inline_value) {
        *out = value;
      } else if (i + 1 < args.size()) {
        *out = args[++i];
      } else {
        return false;
      }
      return true;
    };
    auto takes_no_value = [&] { return !has_inline_value; };

    if (flag == "--config" || flag == "--resources" || flag == "--log-dir") {
      std::string folder;
      if (!take_value(&folder)) return fail(flag + " needs a folder");
      if (folder.empty()) return fail(flag + " needs a folder, not an empty text");
      if (flag == "--config") o.config_dir = folder;
      if (flag == "--resources") {
        o.resource_dir = folder;
        o.resource_dir_given = true;
      }
      if (flag == "--log-dir") o.log_dir = folder;
    } else if (flag == "--wait") {
      std::string seconds;
      if (!take_value(&seconds)) return fail("--wait needs a number of seconds");
      if (!ParseWaitSeconds(seconds, &o.once_wait_ms)) {
        return fail("--wait takes seconds from 0.1 to 600, not \"" + seconds + "\"");
      }
    } else if ((flag == "--json" || flag == "--once" || flag == "--help" || flag == "--version") &&
               !takes_no_value()) {
      return fail(flag + " takes no value");
    } else if (flag == "--json") {
      o.json = true;
    } else if (flag == "--once") {
      o.once = true;
    } else if (flag == "--help" || flag == "-h") {
      o.help = true;
    } else if (flag == "--version" || flag == "-V") {
      o.version = true;
    } else {
      return fail("unknown argument \"" + args[i] + "\"");
    }
  }
  if (o.config_dir.empty()) return fail("no configuration folder known; name one with --config");
  return result;
}

std::string UsageText(const std::string& program) {
  return "Usage: " + program + " [options]\n"
         "Shows the Android phones plugged into this computer and the state of each, live.\n"
         "\n"
         "  --config DIR     configuration folder with the four .ini files\n"
         "                   (default: the shipped one)\n"
         "  --resources DIR  resource folder; an executable \"adb\" there is used before the\n"
         "                   one on PATH (default: $XDG_DATA_HOME/pelmora)\n"
         "  --log-dir DIR    where \"Pelmora.log\" is written (default: $XDG_STATE_HOME/pelmora)\n"
         "  --json           print each report as one line of JSON (JSON Lines) instead of a table\n"
         "  --once           print the first report, or \"no Android device\", and exit\n"
         "  --wait SECONDS   how long --once waits for a first report (default 3)\n"
         "  -h, --help       show this text\n"
         "  -V, --version    show the program's and the library's version\n"
         "\n"
         "The ADB server is the one on ANDROID_ADB_SERVER_PORT (default 5037); one is started\n"
         "when none answers. Colour is used on a terminal unless NO_COLOR is set.\n"
         "Ctrl-C or SIGTERM stops listening and exits once the last report is in.\n"
         "\n"
         "Exit codes:\n"
         "  0  stopped by Ctrl-C or SIGTERM, or --once done (also with no device)\n"
         "  2  bad command line\n"
         "  3  a folder is missing, is not a folder, or cannot be written\n"
         "  4  InitPelmora failed (its code and meaning are printed)\n"
         "  5  adb cannot be found or the ADB server cannot be started\n"
         "  6  listening could not start\n";
}

}  // namespace monitor
