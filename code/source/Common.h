// Helpers shared by every module.
#pragma once

#include <string>

// Category of every LogEx line the library writes.
inline constexpr const char* kLogCategory = "Pelmora";

// A copy in which ASCII A-Z become a-z; every other byte (0x80-0xFF too) stays. The key serial of
// a device is its serial number passed through this.
std::string GetLowerCaseString(const std::string& text);

// text as valid UTF-8 for the JSON writer: valid UTF-8 sequences pass unchanged, and every other
// byte is taken as the Latin-1 character it is (a USB string decoded to single bytes, say).
std::string Latin1FallbackUtf8(const std::string& text);
