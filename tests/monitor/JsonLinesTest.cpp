// A report as one JSON line, equal in content to the text the callback received.
#include <gtest/gtest.h>

#include <string>

#include "JsonLines.h"

namespace {

TEST(JsonLines, ReportsBecomeOneLineAndNonJsonIsRefused) {
  // A library-style report: three-space indentation, punctuation and blanks inside strings,
  // UTF-8 kept as bytes, raw control bytes escaped, negative and unsigned numbers.
  const std::string library_report =
      "{\n   \"changed\" : [\n      {\n         \"adb_error_code\" : -3,\n"
      "         \"model\" : \"Pixel 7 \\\"Pro\\\" \\\\ {edge} [case]: a,b \xc3\xa9\",\n"
      "         \"os_version\" : \"line\nbreak\x1f\",\n         \"vid\" : 6353\n      }\n   ]\n}\n";
  const struct {
    const char* what;
    std::string report;
    bool ok;
    std::string line;
  } kCases[] = {
      {"library report", library_report, true,
       "{\"changed\":[{\"adb_error_code\":-3,\"model\":\"Pixel 7 \\\"Pro\\\" \\\\ {edge} [case]: a,b "
       "\xc3\xa9\",\"os_version\":\"line\\nbreak\\u001f\",\"vid\":6353}]}"},
      {"white space between tokens", " {\r\n \"a\" :\t[ 1 , 2 , { \"b\" : \"x y\" } ] ,\n\"c\": true }\n",
       true, R"({"a":[1,2,{"b":"x y"}],"c":true})"},
      // A "//" comment cut by a line break once hid the members after it in the joined line; the line
  // is now what JsonCpp itself read, every member included.
      {"comment from the fuzzer",
       "{\"changed\":[{\"key_serial\":\"emut\"//\n/,\"new_s/tatus\":\"A\xb5\xb5\",\"adb_\nerror_code\":20}]}\n",
       true,
       "{\"changed\":[{\"adb_\\nerror_code\":20,\"key_serial\":\"emut\",\"new_s/tatus\":\"A\xb5\xb5\"}]}"},
      // JsonCpp skips a comment after a value even in strict mode; the line is what it read.
      {"comment after a value", "{\"a\":1 // note\n}", true, R"({"a":1})"},
      {"not JSON", "{\"a\":", false, ""},
      {"empty", " \n", false, ""},
      {"two documents", "{} {}", false, ""},
  };
  for (const auto& c : kCases) {
    std::string line = "untouched", error;
    EXPECT_EQ(c.ok, monitor::ToJsonLine(c.report, &line, &error)) << c.what;
    EXPECT_EQ(c.ok ? c.line : "untouched", line) << c.what;
    EXPECT_EQ(c.ok, error.empty()) << c.what << ": " << error;
  }
}

}  // namespace
