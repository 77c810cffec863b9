// Helpers shared by every module.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Vendor IDs that phones of many makers carry (the chipset's, or AOSP's defaults): such an ID
// says little about who made the phone.
inline constexpr uint16_t kVidQualcomm = 0x05C6;
inline constexpr uint16_t kVidGoogle = 0x18D1;
inline constexpr uint16_t kVidMediaTek = 0x0E8D;

// Category of every LogEx line the library writes.
inline constexpr const char* kLogCategory = "Pelmora";

// A copy in which ASCII A-Z become a-z; every other byte (0x80-0xFF too) stays. The key serial of
// a device is its serial number passed through this.
std::string GetLowerCaseString(const std::string& text);

// Decodes the well-formed UTF-8 sequence at text[*at] (no overlong forms, no surrogates, nothing
// past U+10FFFF) into *code and moves *at past it; false, with *at unchanged, when there is none.
// The library's one UTF-8 decoder.
bool DecodeUtf8Sequence(const std::string& text, size_t* at, char32_t* code);

// text as valid UTF-8 for the JSON writer: valid UTF-8 sequences pass unchanged, and every other
// byte is taken as the Latin-1 character it is (a USB string decoded to single bytes, say).
std::string Latin1FallbackUtf8(const std::string& text);
