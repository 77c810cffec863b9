// The terminal table: columns, marks, colour, and texts from devices made harmless.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "DeviceTable.h"
#include "TableRenderer.h"

namespace {

using monitor::DeviceTable;
using monitor::RenderStyle;
using monitor::RenderTable;

DeviceTable TableFrom(const std::string& report) {
  DeviceTable table;
  std::string error;
  EXPECT_TRUE(table.Apply(report, &error)) << error;
  return table;
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

const char* kTwoDevices = R"({"changed":[
  {"key_serial":"r58m","actual_serial":"R58M","old_status":"NotConnect","new_status":"AuthoredConnect",
   "vid_manufacturer":"Samsung","manufacturer":"samsung","model":"SM-G991B","os_version":"14",
   "vid":1256,"pid":26720,"adb_error_code":0},
  {"key_serial":"emulator-5554","actual_serial":"emulator-5554","old_status":"NotConnect",
   "new_status":"UnauthoredConnect","vid_manufacturer":"","manufacturer":"","model":"",
   "os_version":"","vid":0,"pid":0,"adb_error_code":0}]})";

TEST(Renderer, OneAlignedLinePerDeviceWithItsMark) {
  const DeviceTable table = TableFrom(kTwoDevices);
  const std::vector<std::string> lines = LinesOf(RenderTable(table, {false, "heading"}));
  ASSERT_EQ(5u, lines.size());  // heading, column names, two devices, legend
  EXPECT_EQ("heading", lines[0]);
  EXPECT_EQ(0u, lines[1].find("  KEY SERIAL"));
  EXPECT_EQ(0u, lines[2].find("+ emulator-5554"));
  EXPECT_EQ(0u, lines[3].find("+ r58m"));
  for (const char* cell : {"AuthoredConnect", "Samsung", "samsung", "SM-G991B", "14", "04e8:6860"}) {
    EXPECT_NE(std::string::npos, lines[3].find(cell)) << cell;
  }
  EXPECT_NE(std::string::npos, lines[2].find(" - ")) << "unknown texts show as a dash";
  // Columns line up: each column starts at the same offset on every line.
  for (const char* column : {"STATUS", "VENDOR", "VID:PID"}) {
    const size_t at = lines[1].find(column);
    EXPECT_NE(' ', lines[2][at]) << column;
    EXPECT_EQ(' ', lines[2][at - 1]) << column;
  }
  EXPECT_NE(std::string::npos, lines[4].find("2 device(s)"));
}

TEST(Renderer, ColourOnlyWhenAsked) {
  const DeviceTable table = TableFrom(kTwoDevices);
  EXPECT_EQ(std::string::npos, RenderTable(table, {false, "h"}).find('\x1b'));
  const std::string colored = RenderTable(table, {true, "h"});
  EXPECT_NE(std::string::npos, colored.find("\x1b[32m+ r58m")) << "arrivals in green";
}

TEST(Renderer, ChangedAndLeftRowsShowWhatHappened) {
  DeviceTable table = TableFrom(kTwoDevices);
  std::string error;
  ASSERT_TRUE(table.Apply(R"({"changed":[
    {"key_serial":"emulator-5554","old_status":"UnauthoredConnect","new_status":"AuthoredConnect"},
    {"key_serial":"r58m","old_status":"AuthoredConnect","new_status":"NotConnect"}]})", &error));
  const std::vector<std::string> lines = LinesOf(RenderTable(table, {false, ""}));
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ(0u, lines[1].find("~ emulator-5554"));
  EXPECT_NE(std::string::npos, lines[1].find("UnauthoredConnect > AuthoredConnect"));
  EXPECT_EQ(0u, lines[2].find("- r58m"));
  EXPECT_NE(std::string::npos, lines[3].find("1 device(s)"));
}

TEST(Renderer, EmptyTableAndAdbFailureAreSaidInWords) {
  EXPECT_EQ("no Android device\n", RenderTable(DeviceTable(), {false, ""}));
  const DeviceTable table = TableFrom(
      R"({"changed":[{"key_serial":"a","new_status":"MtpConnect","adb_error_code":103}]})");
  EXPECT_NE(std::string::npos, RenderTable(table, {false, ""}).find("ADB could not be asked (code 103)"));
}

TEST(Cells, DeviceTextsAreMadeHarmlessAndCutByCharacters) {
  const std::string e7 = "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9";  // 7 x é: cut by characters
  for (const auto& [text, width, cell] : std::vector<std::tuple<std::string, size_t, std::string>>{
           {"\x1b[2J\x1b]0;title\x07", 40, "?[2J?]0;title?"}, {"a\x7f" "b", 40, "a?b"},
           {"abcdef", 6, "abcdef"}, {"abcdefg", 6, "abc..."}, {e7, 6, "\xc3\xa9\xc3\xa9\xc3\xa9..."}}) {
    EXPECT_EQ(cell, monitor::SanitizeCell(text, width));
    EXPECT_LE(monitor::DisplayWidth(cell), width) << cell;
  }
  const DeviceTable table = TableFrom(
      "{\"changed\":[{\"key_serial\":\"k\",\"new_status\":\"AuthoredConnect\",\"model\":\"\\u001b[31mred\"}]}");
  EXPECT_EQ(std::string::npos, RenderTable(table, {false, ""}).find('\x1b'));
  EXPECT_EQ("18d1:4ee7 0000:0001 -", monitor::FormatUsbId(0x18d1, 0x4ee7) + " " + monitor::FormatUsbId(0, 1) +
                                         " " + monitor::FormatUsbId(0, 0));
}

}  // namespace
