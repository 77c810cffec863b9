// The device table from reports as the terminal shows it: marks, kept details, columns, colour, safe texts.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "DeviceTable.h"
#include "TableRenderer.h"

namespace {

using monitor::DeviceTable;
using monitor::RenderTable;

std::string Entry(const std::string& key, const std::string& from, const std::string& to, const std::string& more = "") {
  return "{\"key_serial\":\"" + key + "\",\"old_status\":\"" + from + "\",\"new_status\":\"" + to + "\"" + more + "}";
}

// The rendered rows with runs of blanks squeezed, without the column names and the legend's tail.
std::string Shown(const DeviceTable& table) {
  std::string shown;
  std::istringstream in(RenderTable(table, {false, ""}));
  for (std::string line; std::getline(in, line);) {
    if (line.find("KEY SERIAL") == std::string::npos) {
      shown += std::regex_replace(line.substr(0, line.find(';')), std::regex(" +"), " ") + "\n";
    }
  }
  return shown;
}

TEST(Table, ALifeFromArrivalToDepartureAndBack) {
  const std::string pixel7 = R"(,"vid_manufacturer":"Google","manufacturer":"Google","model":"Pixel 7",)"
                             R"("os_version":"14","vid":6353,"pid":20199,"adb_error_code":0)";
  const std::vector<std::pair<std::vector<std::string>, std::string>> kSteps = {
      {{Entry("b", "NotConnect", "MtpConnect", ",\"vid\":6353,\"pid\":20193"),
        Entry("a", "NotConnect", "UnauthoredConnect", ",\"adb_error_code\":-1")},
       "ADB could not be asked (code -1): showing what USB sees\n"
       "+ a UnauthoredConnect - - - - -\n+ b MtpConnect - - - - 18d1:4ee1\n2 device(s)\n"},
      {{Entry("b", "MtpConnect", "AuthoredConnect", pixel7)},  // a code of 0 again clears the warning
       " a UnauthoredConnect - - - - -\n~ b MtpConnect > AuthoredConnect Google Google Pixel 7 14 18d1:4ee7\n"
       "2 device(s)\n"},
      // A device that left keeps what was known of it; empty texts and IDs do not overwrite.
      {{Entry("b", "AuthoredConnect", "NotConnect", ",\"model\":\"\",\"vid\":0,\"pid\":0")},
       " a UnauthoredConnect - - - - -\n- b NotConnect Google Google Pixel 7 14 18d1:4ee7\n1 device(s)\n"},
      // The row that left goes with the next report.
      {{Entry("a", "UnauthoredConnect", "AuthoredConnect", ",\"model\":\"Pixel 8\"")},
       "~ a UnauthoredConnect > AuthoredConnect - - Pixel 8 - -\n1 device(s)\n"},
      {{Entry("a", "AuthoredConnect", "NotConnect")}, "- a NotConnect - - Pixel 8 - -\n0 device(s)\n"},
      {{Entry("a", "NotConnect", "OfflineConnect")}, "+ a OfflineConnect - - - - -\n1 device(s)\n"},
      // Wrong types for optional members read as unknown; control bytes from a device never reach
      // the terminal.
      {{R"({"key_serial":"k","new_status":"MtpConnect","vid":-5,"pid":"x","manufacturer":7,"model":"\u001b[31mred"})"},
       " a OfflineConnect - - - - -\n+ k MtpConnect - - ?[31mred - -\n2 device(s)\n"},
  };
  DeviceTable table;
  EXPECT_EQ("no Android device\n", Shown(table));
  for (const auto& [entries, shown] : kSteps) {
    std::string report = "{\"changed\":[", error;
    for (size_t i = 0; i < entries.size(); ++i) report += (i ? "," : "") + entries[i];
    ASSERT_TRUE(table.Apply(report + "]}", &error)) << error;
    EXPECT_EQ(shown, Shown(table)) << report;
  }

  for (const char* bad : {"", "{", "[]", "{\"changed\":{}}", "{\"changed\":[1]}", "{\"changed\":[{\"key_serial\":3}]}",
                          "{\"changed\":[{\"key_serial\":\"z\"}]}"}) {
    std::string error;
    EXPECT_FALSE(table.Apply(bad, &error) || error.empty()) << "refused with a reason: " << bad;
    EXPECT_EQ(kSteps.back().second, Shown(table)) << "a malformed report changes nothing: " << bad;
  }

  // Columns line up: each starts at the same offset on every line. Colour only when asked.
  std::vector<std::string> lines;
  std::istringstream in(RenderTable(table, {false, "heading"}));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(5u, lines.size());
  EXPECT_EQ("heading", lines[0]);
  for (const char* column : {"STATUS", "VENDOR", "MODEL", "VID:PID"}) {
    const size_t at = lines[1].find(column);
    for (size_t row : {2, 3}) EXPECT_TRUE(lines[row][at] != ' ' && lines[row][at - 1] == ' ') << column << row;
  }
  EXPECT_NE(std::string::npos, RenderTable(table, {true, "h"}).find("\x1b[32m+ k")) << "arrivals in green";
}

TEST(Cells, DeviceTextsAreMadeHarmlessAndCutByCharacters) {
  const std::string e7 = "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9";  // 7 x é: cut by characters
  for (const auto& [text, width, cell] : std::vector<std::tuple<std::string, size_t, std::string>>{
           {"\x1b[2J\x1b]0;title\x07", 40, "?[2J?]0;title?"}, {"a\x7f" "b", 40, "a?b"},
           {"abcdef", 6, "abcdef"}, {"abcdefg", 6, "abc..."}, {e7, 6, "\xc3\xa9\xc3\xa9\xc3\xa9..."}}) {
    EXPECT_EQ(cell, monitor::SanitizeCell(text, width));
    EXPECT_LE(monitor::DisplayWidth(cell), width) << cell;
  }
  EXPECT_EQ("0000:0001", monitor::FormatUsbId(0, 1)) << "only a pair of zeros is unknown";
}

}  // namespace
