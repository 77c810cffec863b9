// One report as one line of JSON Lines.
#pragma once

#include <string>

namespace monitor {

// Reads the report with JsonCpp and writes it back with no indentation, so the line parses to
// exactly what the callback received. Strings keep their UTF-8 bytes as they are; control bytes
// come out as escapes, so the result is always a single line. A text that is not JSON gives
// false and the reader's message in *error, and *line is left alone.
bool ToJsonLine(const std::string& report, std::string* line, std::string* error);

}  // namespace monitor
