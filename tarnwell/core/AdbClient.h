// The requests this library makes of the ADB server, each on a connection of its own and each
// bounded by TARNWELL_REQUEST_TIMEOUT_MS from connect to last byte (connect alone by
// TARNWELL_CONNECT_TIMEOUT_MS). Results are the codes of Tarnwell.h; `why` gets a line for the log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "HostConnection.h"
#include "HostProtocol.h"

namespace tarnwell {

// ANDROID_ADB_SERVER_PORT when set (1 to 65535), else 5037, read afresh on every call as adb
// does. A value that is set and not a port gives TARNWELL_ERR_BAD_PORT, as adb refuses it too.
int ServerPortFromEnvironment(std::uint16_t* port, std::string* why);

// A host service answered by OKAY and a hex-length payload ("host:devices", "host:version").
int QueryHostPayload(std::uint16_t port, std::string_view service, std::string* payload,
                     std::string* why);

int QueryServerVersion(std::uint16_t port, int* version, std::string* why);

// "host:devices" as the list text ("serial-state;..."), with the number of devices and the free
// text that came with some states (see DevicesToListText).
int QueryDeviceList(std::uint16_t port, std::string* list_text, int* device_count,
                    std::vector<StateRemark>* remarks, std::string* why);

// What the shell printed for `getprop <property>` on the device with this serial, raw, bounded by
// TARNWELL_PROPERTY_TIMEOUT_MS as a whole.
// *closed_early is set when the device's connection closed before the shell answered (the
// server's FAIL "closed", or the stream ending before any status); the result is then OK.
int QueryProperty(std::uint16_t port, std::string_view serial, std::string_view property,
                  std::string* printed, bool* closed_early, std::string* why);

// The server's device list as a stream of frames (four hex digits of length, then the whole list
// as "host:devices" gives it), one at once and one on every change of any device's transport:
// "host:track-devices-l", or "host:track-devices" where the server refuses the long form. On
// success *connection is open before the first frame and *service names the form in use. Every
// wait, here and on the connection later, also ends when wake_fd becomes readable.
int OpenDeviceTracking(std::uint16_t port, int wake_fd, HostConnection* connection,
                       std::string* service, std::string* why);

// The next frame's payload: waits without a time bound (until the wake descriptor) for the frame
// to begin, then reads it whole within TARNWELL_REQUEST_TIMEOUT_MS.
int ReadTrackingFrame(HostConnection& connection, std::string* payload, std::string* why);

}  // namespace tarnwell
