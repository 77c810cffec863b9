// A scriptable in-memory stand-in for libTarnwell, so that the library's logic can be tested
// without any ADB server. Unscripted calls succeed with nothing to say: no device, empty texts.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace fake_adb {

struct Script {
  // AdbGetDevicesEx: the result code and the list text ("serial-state;..."); an empty text is
  // handed out as a null pointer, as the real library does.
  std::function<int(std::string* list)> devices;
  // The three property reads: property is "ro.build.version.release", "ro.product.manufacturer"
  // or "ro.product.model"; value is copied into the caller's buffer (cut to size - 1 bytes).
  std::function<int(const std::string& serial, const std::string& property, std::string* value)>
      property;
  std::function<int(int flag, int reserved)> start_daemon;
  std::function<int(const std::string& resource, const std::string& config,
                    const std::string& log)>
      sdk_init;
};

void SetScript(Script script);
void Reset();  // no script, no recorded calls, no outstanding list texts

// Every call, in order, as "Function" or "Function:serial" (property reads),
// "AdbStartDaemon:flag,reserved" or "AdbSdkInit:resource,config,log".
std::vector<std::string> Calls();
// Texts handed out by AdbGetDevicesEx and not yet released with AdbFreeResource.
int OutstandingLists();

}  // namespace fake_adb
