// Any bytes as a report: the JSON line, when there is one, is one line and reads back as the same
// document; the table takes or refuses the text without harm and never prints a control byte from it.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "DeviceTable.h"
#include "JsonLines.h"
#include "TableRenderer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string line, error;
  if (monitor::ToJsonLine(text, &line, &error)) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value original, reread;
    if (line.find_first_of("\r\n") != std::string::npos ||
        !reader->parse(text.data(), text.data() + text.size(), &original, &error) ||
        !reader->parse(line.data(), line.data() + line.size(), &reread, &error) || !(original == reread)) {
      std::abort();
    }
  }
  monitor::DeviceTable table;
  table.Apply(text, &error);
  table.Apply(text, &error);  // the same report twice: marks and left rows move on
  for (unsigned char c : monitor::RenderTable(table, {false, ""})) {
    if ((c < 0x20 && c != '\n') || c == 0x7F) std::abort();
  }
  return 0;
}
