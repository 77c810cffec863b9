#include "AdbClient.h"

#include <cerrno>
#include <cstdlib>

#include "Deadline.h"
#include "HostConnection.h"
#include "HostProtocol.h"
#include "Tarnwell.h"

namespace tarnwell {

namespace {

constexpr std::uint16_t kDefaultServerPort = 5037;
constexpr const char* kTrackDevicesLong = "host:track-devices-l";
constexpr const char* kTrackDevices = "host:track-devices";
// getprop prints one short line; anything past this is read and dropped.
constexpr std::size_t kMaxPrintedBytes = 64 * 1024;

// One request's connection and its two deadlines.
struct Exchange {
  explicit Exchange(int request_timeout_ms = TARNWELL_REQUEST_TIMEOUT_MS)
      : request(Deadline::AfterMs(request_timeout_ms)) {}

  Deadline request;
  HostConnection connection;

  int Open(std::uint16_t port, std::string* why, int wake_fd = -1) {
    connection.SetWakeFd(wake_fd);
    Deadline connect_by =
        Deadline::Earliest(request, Deadline::AfterMs(TARNWELL_CONNECT_TIMEOUT_MS));
    return connection.Connect(port, connect_by, why);
  }
  int Send(std::string_view service, std::string* why) {
    if (service.size() > kMaxServiceLength) {
      *why = "request too long to frame";
      return TARNWELL_ERR_BAD_ARGUMENT;
    }
    return connection.SendAll(EncodeRequest(service), request, why);
  }
  // A four-hex-digit length and that many bytes.
  int ReadCounted(std::string* text, std::string* why) {
    std::string digits;
    int result = connection.ReadExact(4, &digits, request, why);
    if (result != TARNWELL_OK) return result;
    std::size_t length = 0;
    if (!ParseHexLength(digits, &length)) {
      *why = "bad length field \"" + digits + "\"";
      return TARNWELL_ERR_MALFORMED;
    }
    return connection.ReadExact(length, text, request, why);
  }
  // OKAY, or FAIL with the server's message in *why.
  int ReadStatus(std::string* why) {
    std::string status;
    int result = connection.ReadExact(4, &status, request, why);
    if (result != TARNWELL_OK) return result;
    switch (ParseStatus(status)) {
      case ReplyStatus::kOkay:
        return TARNWELL_OK;
      case ReplyStatus::kFail: {
        std::string message;
        result = ReadCounted(&message, why);
        if (result != TARNWELL_OK) return result;
        *why = message;
        return TARNWELL_ERR_SERVER_FAIL;
      }
      case ReplyStatus::kMalformed:
        break;
    }
    *why = "bad status \"" + status + "\"";
    return TARNWELL_ERR_MALFORMED;
  }
};

bool ParsePort(const char* text, std::uint16_t* port) {
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 1 || value > 65535) return false;
  *port = static_cast<std::uint16_t>(value);
  return true;
}

}  // namespace

int ServerPortFromEnvironment(std::uint16_t* port, std::string* why) {
  const char* text = std::getenv("ANDROID_ADB_SERVER_PORT");
  if (text == nullptr || *text == '\0') {
    *port = kDefaultServerPort;
    return TARNWELL_OK;
  }
  if (ParsePort(text, port)) return TARNWELL_OK;
  *why = std::string("ANDROID_ADB_SERVER_PORT is not a port: \"") + text + "\"";
  return TARNWELL_ERR_BAD_PORT;
}

int QueryHostPayload(std::uint16_t port, std::string_view service, std::string* payload,
                     std::string* why) {
  Exchange exchange;
  int result = exchange.Open(port, why);
  if (result == TARNWELL_OK) result = exchange.Send(service, why);
  if (result == TARNWELL_OK) result = exchange.ReadStatus(why);
  if (result == TARNWELL_OK) result = exchange.ReadCounted(payload, why);
  return result;
}

int QueryServerVersion(std::uint16_t port, int* version, std::string* why) {
  std::string payload;
  int result = QueryHostPayload(port, "host:version", &payload, why);
  if (result != TARNWELL_OK) return result;
  std::size_t value = 0;
  if (!ParseHexLength(payload, &value)) {
    *why = "bad version \"" + payload + "\"";
    return TARNWELL_ERR_MALFORMED;
  }
  *version = static_cast<int>(value);
  return TARNWELL_OK;
}

int QueryDeviceList(std::uint16_t port, std::string* list_text, int* device_count,
                    std::vector<StateRemark>* remarks, std::string* why) {
  std::string payload;
  int result = QueryHostPayload(port, "host:devices", &payload, why);
  if (result != TARNWELL_OK) return result;
  if (!DevicesToListText(payload, list_text, device_count, remarks)) {
    *why = "device list line without a state";
    return TARNWELL_ERR_MALFORMED;
  }
  return TARNWELL_OK;
}

int QueryProperty(std::uint16_t port, std::string_view serial, std::string_view property,
                  std::string* printed, bool* closed_early, std::string* why) {
  *closed_early = false;
  Exchange exchange(TARNWELL_PROPERTY_TIMEOUT_MS);
  int result = exchange.Open(port, why);
  if (result == TARNWELL_OK) result = exchange.Send("host:transport:" + std::string(serial), why);
  if (result == TARNWELL_OK) result = exchange.ReadStatus(why);
  if (result == TARNWELL_OK) result = exchange.Send("shell:getprop " + std::string(property), why);
  if (result != TARNWELL_OK) return result;

  result = exchange.ReadStatus(why);
  // The server reports a device link that dropped before the shell opened as FAIL "closed";
  // a server whose own link to us drops at that point looks the same to the caller.
  if ((result == TARNWELL_ERR_SERVER_FAIL && *why == "closed") ||
      (result == TARNWELL_ERR_CLOSED)) {
    *closed_early = true;
    return TARNWELL_OK;
  }
  if (result != TARNWELL_OK) return result;
  return exchange.connection.ReadToEnd(kMaxPrintedBytes, printed, exchange.request, why);
}

int OpenDeviceTracking(std::uint16_t port, int wake_fd, HostConnection* connection,
                       std::string* service, std::string* why) {
  int result = TARNWELL_ERR_SERVER_FAIL;
  for (const char* name : {kTrackDevicesLong, kTrackDevices}) {
    Exchange exchange;
    result = exchange.Open(port, why, wake_fd);
    if (result == TARNWELL_OK) result = exchange.Send(name, why);
    if (result == TARNWELL_OK) result = exchange.ReadStatus(why);
    if (result == TARNWELL_OK) {
      *connection = std::move(exchange.connection);
      *service = name;
      return TARNWELL_OK;
    }
    // Only a refusal is worth the short form: anything else fails it the same way.
    if (result != TARNWELL_ERR_SERVER_FAIL) return result;
  }
  return result;
}

int ReadTrackingFrame(HostConnection& connection, std::string* payload, std::string* why) {
  int result = connection.AwaitInput(why);
  if (result != TARNWELL_OK) return result;
  // A frame that has begun must end within a request's bound.
  Exchange frame;
  std::string digits;
  result = connection.ReadExact(4, &digits, frame.request, why);
  if (result != TARNWELL_OK) return result;
  std::size_t length = 0;
  if (!ParseHexLength(digits, &length)) {
    *why = "bad length field \"" + digits + "\"";
    return TARNWELL_ERR_MALFORMED;
  }
  return connection.ReadExact(length, payload, frame.request, why);
}

}  // namespace tarnwell
