// pelmora-monitor: the Android phones plugged into this computer, live, through libPelmora's four
// functions, as any host application would use them.
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "MonitorOptions.h"
#include "MonitorSession.h"
#include "Pelmora.h"
#include "PosixCompat.h"

namespace {

std::string ExecutableFolder() {
  const std::string exe = posix::ExecutablePath();
  return exe.empty() ? exe : exe.substr(0, exe.rfind('/'));
}

bool IsFolder(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// An installed monitor finds the configuration beside it (so a moved prefix still works); one run
// from the build tree uses the source tree's config/.
std::string ShippedConfigFolder() {
  const std::string here = ExecutableFolder();
  const std::string relocated = here + "/" PELMORA_RELATIVE_CONFIG_DIR;
  if (!here.empty() && IsFolder(relocated)) return relocated;
  if (here == PELMORA_MONITOR_BUILD_DIR && IsFolder(PELMORA_SOURCE_CONFIG_DIR)) {
    return PELMORA_SOURCE_CONFIG_DIR;
  }
  return PELMORA_INSTALLED_CONFIG_DIR;
}

std::string PasswordHome() {
  const passwd* entry = ::getpwuid(::getuid());
  return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "/tmp";
}

std::string ClockText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

bool WriteOut(const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

void WriteErr(const std::string& text) { std::fputs(text.c_str(), stderr); }

bool ColorWanted() {
  const char* no_color = std::getenv("NO_COLOR");
  return ::isatty(STDOUT_FILENO) && (no_color == nullptr || no_color[0] == '\0');
}

}  // namespace

int main(int argc, char** argv) {
  using namespace monitor;
  const std::vector<std::string> args(argv + 1, argv + argc);
  const FolderDefaults defaults =
      DefaultFolders([](const char* name) { return std::getenv(name); }, PasswordHome(),
                     ShippedConfigFolder());
  const ParseResult parsed = ParseMonitorArguments(args, defaults);
  if (!parsed.ok) {
    WriteErr("pelmora-monitor: " + parsed.error + "\nTry pelmora-monitor --help.\n");
    return kExitUsage;
  }
  if (parsed.options.help) {
    WriteOut(UsageText("pelmora-monitor"));
    return kExitOk;
  }
  if (parsed.options.version) {
    WriteOut("pelmora-monitor " PELMORA_MONITOR_VERSION "\nlibPelmora " PELMORA_LIBRARY_VERSION "\n");
    return kExitOk;
  }

  SessionSettings settings;
  settings.options = parsed.options;
  settings.redraw = ::isatty(STDOUT_FILENO);
  settings.color = ColorWanted();
  settings.out = WriteOut;
  settings.err = WriteErr;
  settings.now_text = ClockText;
  const PelmoraApi api = {InitPelmora, StartAdbServer, StartListenAndroidDevice,
                          StopListenAndroidDevice};
  return RunMonitor(api, settings);
}
