// A report as one JSON line, equal in content to the text the callback received.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <sstream>
#include <string>

#include "JsonLines.h"

namespace {

Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["strictRoot"] = true;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string error;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &error))
      << error << "\n" << text;
  return value;
}

// A report written as the library writes it: three-space indentation, no comments.
std::string LibraryStyleReport(const Json::Value& root) {
  Json::StreamWriterBuilder builder;
  builder["commentStyle"] = "None";
  builder["indentation"] = "   ";
  std::ostringstream out;
  std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter())->write(root, &out);
  return out.str();
}

std::string Compact(const std::string& text) { return monitor::CompactJson(text.data(), text.size()); }

TEST(JsonLines, ALibraryReportBecomesOneLineWithTheSameContent) {
  Json::Value entry;
  entry["key_serial"] = "emulator-5554";
  entry["actual_serial"] = "Emulator-5554";
  entry["old_status"] = "NotConnect";
  entry["new_status"] = "AuthoredConnect";
  entry["vid_manufacturer"] = "Google";
  entry["os_version"] = "14";
  entry["model"] = "Pixel 7 \"Pro\" \\ {edge} [case]: a,b";
  entry["manufacturer"] = "Google";
  entry["vid"] = 6353u;
  entry["pid"] = 20199u;
  entry["adb_error_code"] = -3;
  Json::Value root;
  root["changed"].append(entry);
  root["changed"].append(entry);
  root["changed"][1]["model"] = "line\nbreak\ttab \xc3\xa9 \x01";

  const std::string report = LibraryStyleReport(root);
  ASSERT_NE(std::string::npos, report.find('\n'));
  const std::string line = Compact(report);
  EXPECT_EQ(std::string::npos, line.find('\n'));
  EXPECT_EQ(std::string::npos, line.find('\r'));
  EXPECT_EQ(Parse(report), Parse(line));
  EXPECT_NE(std::string::npos, line.find("\"model\":\"Pixel 7 \\\"Pro\\\" \\\\ {edge} [case]: a,b\""))
      << "blanks and punctuation inside strings stay: " << line;
}

TEST(JsonLines, OnlyWhiteSpaceBetweenTokensGoes) {
  EXPECT_EQ(R"({"a":[1,2,{"b":"x y"}],"c":true})",
            Compact(" {\r\n \"a\" :\t[ 1 , 2 , { \"b\" : \"x y\" } ] ,\n\"c\": true }\n"));
  EXPECT_EQ(R"(["\"",":"," "])", Compact(R"([ "\"" , ":" , " " ])"));
  EXPECT_EQ("", Compact(" \n\t\r "));
}

TEST(JsonLines, RawControlBytesInsideStringsAreEscapedNotPassedThrough) {
  const std::string raw = std::string("{\"a\":\"x\ny\x1f\"}");
  const std::string line = Compact(raw);
  EXPECT_EQ("{\"a\":\"x\\u000ay\\u001f\"}", line);
  EXPECT_EQ("x\ny\x1f", Parse(line)["a"].asString());
}

TEST(JsonLines, CommentsTheReaderSkipsCannotSwallowTheRestOfTheLine) {
  // A "//" comment that ends at its line break would, once lines are joined, hide every later
  // member; JsonCpp reads the indented text without it, so the line must too.
  const std::string text = "{\n  // note\n  \"a\" : \"//x\", /* b */\n  \"c\" : [1 // one\r\n]\n}";
  const std::string line = Compact(text);
  EXPECT_EQ(R"({"a":"//x","c":[1]})", line);
  EXPECT_EQ(Parse(text), Parse(line));
  EXPECT_EQ("[1", Compact("[1 /* never closed"));
}

}  // namespace
