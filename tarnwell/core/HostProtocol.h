// The ADB server's host protocol on the wire, without any I/O: a request is four hex digits of
// length and the service text; a reply starts with "OKAY" or "FAIL", and FAIL (and the answers
// of some services) carries four hex digits of length and a message.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

// The longest service text four hex digits can frame.
constexpr std::size_t kMaxServiceLength = 0xffff;

// "000chost:devices" for "host:devices". The caller keeps service within kMaxServiceLength.
std::string EncodeRequest(std::string_view service);

enum class ReplyStatus { kOkay, kFail, kMalformed };
ReplyStatus ParseStatus(std::string_view four_bytes);

// Exactly four hex digits (either case, as adb's own reader accepts); false otherwise.
bool ParseHexLength(std::string_view four_bytes, std::size_t* length);

// A device whose state came with more than its word, as adb's "no permissions (user in plugdev
// group; are your udev rules wrong?); see [...]" does: the words after the state, for the log.
struct StateRemark {
  std::string serial;
  std::string state;
  std::string remark;
};

// adb's state text split into its state word ("device", "offline", "no permissions", ...) and the
// free text after it. The word never holds '-' or ';' (each becomes '_'), so that the list text
// can be cut at the last '-' of an entry whatever the serial holds.
std::string StateWord(std::string_view state_text, std::string* remark);

// The payload of "host:devices" ("serial\tstate\n" per device) as the list text handed to the
// host: "serial-word;" per device, the state as its word alone. A ';' inside a serial becomes ','
// so every entry keeps exactly one terminator. Blank lines are skipped; a line without a tab makes
// the whole payload malformed (returns false). remarks, when not null, receives the free text of
// every state that had some.
bool DevicesToListText(std::string_view payload, std::string* list_text, int* device_count,
                       std::vector<StateRemark>* remarks = nullptr);

// Copies a property value as the shell printed it into buffer: trailing "\r" and "\n" removed,
// at most size - 1 bytes, always NUL-terminated (size must be at least 1). Returns the bytes
// copied, without the NUL.
std::size_t CopyPropertyValue(std::string_view printed, char* buffer, std::size_t size);

}  // namespace tarnwell
