#include "DeviceInfo.h"

const char s_c_DeviceStatusString[6][30] = {
    "NotConnect",     "MtpConnect",        "AdbConnect",
    "OfflineConnect", "UnauthoredConnect", "AuthoredConnect",
};

const char* DeviceStatusName(DeviceConnectStatus status) {
  const auto row = static_cast<int32_t>(status);
  return row >= 0 && row < 6 ? s_c_DeviceStatusString[row] : "";
}

DeviceConnectStatus ConvertAuthorStatus2ConnectStatus(DeviceAuthorStatus status) {
  switch (status) {
    case DeviceOffline:
      return OfflineConnect;
    case DeviceUnauthored:
      return UnauthoredConnect;
    case DeviceNotUsableThroughAdb:
      return AdbConnect;
    default:
      return AuthoredConnect;
  }
}
