// A scriptable in-memory stand-in for libTarnwell, so that the library's logic can be tested
// without any ADB server. Unscripted calls succeed with nothing to say: no device, empty texts.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fake_adb {

struct Script {
  // AdbGetDevicesEx: the list text ("serial-state;..."; "" is handed out as null) or the code.
  std::string list;
  int list_code = 0;
  // The three property reads ("ro.build.version.release", "ro.product.manufacturer",
  // "ro.product.model"): the code, and the text copied into the caller's buffer.
  std::function<int(const std::string& serial, const std::string& property, std::string* value)>
      property;
  // The code of any other call, by the text Calls() records for it.
  std::map<std::string, int> codes;
};

void SetScript(Script script);
void SetList(const std::string& list, int code = 0);  // the rest of the script stays
void Reset();  // no script, no recorded calls

// Calls the callback of the tracker that AdbTrackDevices handed out last, if it is not stopped;
// false when there is none. AdbTrackDevices answers Script::codes["AdbTrackDevices"] (0).
bool Track(int event, int code = 0);

// Every call, in order, as "Function" or "Function:serial" (property reads),
// "AdbStartDaemon:flag,reserved" or "AdbSdkInit:resource,config,log".
std::vector<std::string> Calls();

}  // namespace fake_adb
