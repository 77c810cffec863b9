// The terminal table of pelmora-monitor.
#pragma once

#include <string>

#include "DeviceTable.h"

namespace monitor {

struct RenderStyle {
  bool color = false;   // ANSI colours for the marks and the heading
  std::string heading;  // first line, e.g. the time of the last report
};

// The table as text, one line per device, ending with a line break. Texts from devices pass
// through SanitizeCell, so that no device can move the cursor or change the terminal.
std::string RenderTable(const DeviceTable& table, const RenderStyle& style);

// Control bytes (below 0x20, and 0x7F) become '?'; at most max_columns characters (UTF-8 aware),
// a longer text ends in "...".
std::string SanitizeCell(const std::string& text, size_t max_columns);

// Columns a text takes on a terminal: one per UTF-8 character.
size_t DisplayWidth(const std::string& text);

std::string FormatUsbId(uint32_t vid, uint32_t pid);  // "18d1:4ee7", "-" when both are 0

}  // namespace monitor
