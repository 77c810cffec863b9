#include "TableRenderer.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace monitor {

namespace {

constexpr size_t kMaxCellColumns = 40;
constexpr const char* kReset = "\x1b[0m";
constexpr const char* kBold = "\x1b[1m";

bool IsContinuationByte(unsigned char c) { return (c & 0xC0) == 0x80; }

const char* MarkSymbol(ChangeMark mark) {
  switch (mark) {
    case ChangeMark::kArrived: return "+";
    case ChangeMark::kChanged: return "~";
    case ChangeMark::kLeft: return "-";
    case ChangeMark::kNone: break;
  }
  return " ";
}

const char* MarkColor(ChangeMark mark) {
  switch (mark) {
    case ChangeMark::kArrived: return "\x1b[32m";  // green
    case ChangeMark::kChanged: return "\x1b[33m";  // yellow
    case ChangeMark::kLeft: return "\x1b[31m";     // red
    case ChangeMark::kNone: break;
  }
  return "";
}

std::string OrDash(const std::string& text) { return text.empty() ? "-" : text; }

std::string Pad(const std::string& cell, size_t width) {
  const size_t used = DisplayWidth(cell);
  return used >= width ? cell : cell + std::string(width - used, ' ');
}

constexpr size_t kColumns = 7;
using Line = std::array<std::string, kColumns>;

Line CellsOf(const DeviceRow& row) {
  std::string status = row.status;
  if (row.mark == ChangeMark::kChanged && !row.previous_status.empty() &&
      row.previous_status != row.status) {
    status = row.previous_status + " > " + row.status;
  }
  return {SanitizeCell(row.key_serial, kMaxCellColumns), SanitizeCell(status, kMaxCellColumns),
          SanitizeCell(OrDash(row.vendor_name), kMaxCellColumns),
          SanitizeCell(OrDash(row.manufacturer), kMaxCellColumns),
          SanitizeCell(OrDash(row.model), kMaxCellColumns),
          SanitizeCell(OrDash(row.os_version), kMaxCellColumns), FormatUsbId(row.vid, row.pid)};
}

}  // namespace

size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) width += !IsContinuationByte(c);
  return width;
}

std::string SanitizeCell(const std::string& text, size_t max_columns) {
  std::string out;
  size_t columns = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (!IsContinuationByte(c)) {
      if (columns == max_columns) {
        // Make room for the ellipsis: drop the last three characters.
        for (int drop = 0; drop < 3 && !out.empty(); ++drop) {
          while (!out.empty() && IsContinuationByte(static_cast<unsigned char>(out.back()))) {
            out.pop_back();
          }
          if (!out.empty()) out.pop_back();
        }
        return out + "...";
      }
      ++columns;
    }
    out.push_back(c < 0x20 || c == 0x7F ? '?' : static_cast<char>(c));
  }
  return out;
}

std::string FormatUsbId(uint32_t vid, uint32_t pid) {
  if (vid == 0 && pid == 0) return "-";
  char text[24];
  std::snprintf(text, sizeof text, "%04x:%04x", vid, pid);
  return text;
}

std::string RenderTable(const DeviceTable& table, const RenderStyle& style) {
  std::string out;
  auto paint = [&](const char* color, const std::string& text) {
    if (style.color && color[0] != '\0') return std::string(color) + text + kReset;
    return text;
  };

  if (!style.heading.empty()) out += paint(kBold, SanitizeCell(style.heading, 200)) + "\n";
  const std::vector<DeviceRow> rows = table.Rows();
  if (table.LastAdbErrorCode() != 0) {
    out += paint("\x1b[31m", "ADB could not be asked (code " +
                                 std::to_string(table.LastAdbErrorCode()) +
                                 "): showing what USB sees") + "\n";
  }
  if (rows.empty()) return out + "no Android device\n";

  const Line header = {"KEY SERIAL", "STATUS", "VENDOR", "MANUFACTURER", "MODEL", "ANDROID",
                       "VID:PID"};
  std::vector<Line> lines;
  for (const DeviceRow& row : rows) lines.push_back(CellsOf(row));
  std::array<size_t, kColumns> width{};
  for (size_t c = 0; c < kColumns; ++c) {
    width[c] = DisplayWidth(header[c]);
    for (const Line& line : lines) width[c] = std::max(width[c], DisplayWidth(line[c]));
  }
  auto join = [&](const Line& line) {
    std::string text;
    for (size_t c = 0; c < kColumns; ++c) {
      text += c + 1 < kColumns ? Pad(line[c], width[c]) + "  " : line[c];
    }
    return text;
  };

  out += paint(kBold, "  " + join(header)) + "\n";
  for (size_t i = 0; i < rows.size(); ++i) {
    const ChangeMark mark = rows[i].mark;
    out += paint(MarkColor(mark), std::string(MarkSymbol(mark)) + " " + join(lines[i])) + "\n";
  }
  out += std::to_string(table.PresentCount()) + " device(s); last report: + arrived  ~ changed  - left\n";
  return out;
}

}  // namespace monitor
