#include "JsonLines.h"

#include <json/json.h>

#include <memory>

namespace monitor {

namespace {

// Built once: both are only read afterwards, and the monitor's main thread is their only user.
const Json::CharReaderBuilder& StrictReader() {
  static const Json::CharReaderBuilder builder = [] {
    Json::CharReaderBuilder b;
    Json::CharReaderBuilder::strictMode(&b.settings_);
    return b;
  }();
  return builder;
}

const Json::StreamWriterBuilder& OneLineWriter() {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder b;
    b["commentStyle"] = "None";
    b["indentation"] = "";
    b["emitUTF8"] = true;
    return b;
  }();
  return builder;
}

}  // namespace

bool ToJsonLine(const std::string& report, std::string* line, std::string* error) {
  std::unique_ptr<Json::CharReader> reader(StrictReader().newCharReader());
  Json::Value root;
  std::string parse_error;
  if (!reader->parse(report.data(), report.data() + report.size(), &root, &parse_error)) {
    *error = "report is not JSON: " + parse_error;
    return false;
  }
  *line = Json::writeString(OneLineWriter(), root);
  return true;
}

}  // namespace monitor
