// The configuration files are outside bytes: feed them through the loaders, and check the
// hand-written line matcher against the regular expression it stands for.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include "LoadConfig.h"

namespace {

// The folder the input is written to as the four files, removed when the run ends.
struct TemporaryFolder {
  std::string path;
  TemporaryFolder() {
    char pattern[] = "/tmp/pelmora-fuzz-config-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (made == nullptr) std::abort();
    path = made;
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path); }
};

const std::string& Folder() {
  static const TemporaryFolder folder;
  return folder.path;
}

void WriteFile(const std::string& name, const std::string& text) {
  FILE* file = std::fopen((Folder() + "/" + name).c_str(), "wb");
  if (file == nullptr) std::abort();
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
}

// libstdc++'s matcher recurses per character: compare on short lines only.
void CheckMatcherAgainstExpression(const std::string& text) {
  static const std::regex expression(R"([\s]*([\S]+)[\s]*=[\s]*([0-9]+)[\s]*)", std::regex::ECMAScript);
  for (const std::string& line : split(text, "[\r\n]+")) {
    if (line.size() > 64) continue;
    std::smatch groups;
    const bool expected = std::regex_match(line, groups, expression);
    std::string key, number;
    if (MatchKeyNumberLine(line, &key, &number) != expected) std::abort();
    if (expected && (key != groups[1].str() || number != groups[2].str())) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckMatcherAgainstExpression(text);
  // One input serves as all four files, so vendor lines meet PID lines of the same vendors.
  WriteFile("AndroidVID.ini", text);
  WriteFile("AndroidPIDBlack.ini", text);
  WriteFile("AndroidPIDWhite.ini", text);
  WriteFile("iManufactureAndiProduct.ini", text);
  LoadVIDConfig(Folder().c_str());
  LoadiManufactureAndiProductConfig(Folder().c_str());
  IsDeviceOnWhitePidList(static_cast<unsigned>(size), static_cast<unsigned>(size) / 2);
  IsDeviceOnNon_AndroidList(static_cast<unsigned>(size), 0, text.substr(0, 16));
  return 0;
}
