// One report as one line of JSON Lines.
#pragma once

#include <cstddef>
#include <string>

namespace monitor {

// Drops the white space and any comments between JSON tokens and keeps every other byte as it
// stands, so the line parses to exactly what the callback received. A raw control byte inside a string (which valid
// JSON never has) becomes its \u00XX escape, so that the result is always a single line.
std::string CompactJson(const char* text, size_t length);

}  // namespace monitor
