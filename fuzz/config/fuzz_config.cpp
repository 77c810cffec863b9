// The configuration files are outside bytes: feed them through the loaders, and check the
// hand-written line matcher against the regular expression it stands for.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>

#include "LoadConfig.h"
#include "TempDir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const TempDir folder;  // the input is written there as the four files
  static const std::regex expression(R"([\s]*([\S]+)[\s]*=[\s]*([0-9]+)[\s]*)", std::regex::ECMAScript);
  const std::string text(reinterpret_cast<const char*>(data), size);
  // libstdc++'s matcher recurses per character: compare on short lines only.
  for (const std::string& line : split(text, "[\r\n]+")) {
    if (line.size() > 64) continue;
    std::smatch groups;
    const bool expected = std::regex_match(line, groups, expression);
    std::string key, number;
    if (MatchKeyNumberLine(line, &key, &number) != expected ||
        (expected && (key != groups[1].str() || number != groups[2].str()))) {
      std::abort();
    }
  }
  // One input serves as all four files, so vendor lines meet PID lines of the same vendors.
  for (const char* name :
       {"AndroidVID.ini", "AndroidPIDBlack.ini", "AndroidPIDWhite.ini", "iManufactureAndiProduct.ini"}) {
    if (!(std::ofstream(folder.path() + "/" + name, std::ios::binary) << text)) std::abort();
  }
  LoadVIDConfig(folder.path().c_str());
  LoadiManufactureAndiProductConfig(folder.path().c_str());
  IsDeviceOnWhitePidList(static_cast<unsigned>(size), static_cast<unsigned>(size) / 2);
  IsDeviceOnNon_AndroidList(static_cast<unsigned>(size), 0, text.substr(0, 16));
  return 0;
}
