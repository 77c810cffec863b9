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

// Appends the UTF-8 form of code (at most U+10FFFF, no surrogate) to *out.
void AppendUtf8(std::string* out, char32_t code);

// The UTF-16LE text in size bytes at data (a USB string descriptor's body) as UTF-8, up to the
// first unit 0x0000: surrogate pairs joined, an unpaired surrogate as U+FFFD. A lone last byte is
// no whole unit and is dropped.
std::string Utf16LeToUtf8(const unsigned char* data, size_t size);

// text as valid UTF-8 for the JSON writer: valid UTF-8 sequences pass unchanged, and every other
// byte is taken as the Latin-1 character it is (a USB string decoded to single bytes, say).
std::string Latin1FallbackUtf8(const std::string& text);
