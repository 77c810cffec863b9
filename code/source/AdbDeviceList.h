// ADB's device list: the text of AdbGetDevicesEx turned into the ADB status map of one poll.
#pragma once

#include <map>
#include <string>

#include "DeviceInfo.h"

// The ADB list text of AdbGetDevicesEx into the ADB status map; 0, or the library's code. A device
// that ADB is still connecting or authorising is left out; a "no permissions" one is logged with
// its remedy when it first shows so.
int GetDevicesAuthorStatusEx(std::map<std::string, DeviceAuthorInfo_>& devices);
