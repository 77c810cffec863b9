// The ADB server's replies are outside bytes: the status word, the hex length, the device list
// payload and what a phone's shell prints all go through these parsers. Each run checks the
// promises the exported functions make on top of them.
#include <cstddef>
#include <cstdint>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "HostProtocol.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

void FuzzStatusAndLength(std::string_view head) {
  tarnwell::ReplyStatus status = tarnwell::ParseStatus(head);
  Check((status == tarnwell::ReplyStatus::kOkay) == (head == "OKAY"));
  Check((status == tarnwell::ReplyStatus::kFail) == (head == "FAIL"));
  std::size_t length = 0;
  if (tarnwell::ParseHexLength(head, &length)) {
    Check(head.size() == 4 && length <= 0xffff);
    // Framing the same length again gives the same digits, up to letter case.
    std::string framed = tarnwell::EncodeRequest(std::string(length, 'x')).substr(0, 4);
    for (std::size_t i = 0; i < 4; ++i) Check(std::tolower(head[i]) == framed[i]);
  }
}

void FuzzDeviceList(std::string_view payload) {
  std::string list;
  int count = -1;
  if (!tarnwell::DevicesToListText(payload, &list, &count)) return;
  // One ';' per device and nowhere else, each entry with its '-', no line breaks left.
  std::size_t entries = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (list[i] != ';') continue;
    Check(list.substr(start, i - start).find('-') != std::string::npos);
    ++entries;
    start = i + 1;
  }
  Check(start == list.size());
  Check(static_cast<int>(entries) == count);
  Check(list.find('\n') == std::string::npos);
  Check(list.find('\0') == std::string::npos || payload.find('\0') != std::string_view::npos);
}

void FuzzPropertyValue(std::string_view printed, std::size_t size) {
  std::vector<char> buffer(size + 1, '\x7f');
  std::size_t n = tarnwell::CopyPropertyValue(printed, buffer.data(), size);
  Check(n < size);
  Check(buffer[n] == '\0');
  Check(buffer[size] == '\x7f');  // nothing written past size
  Check(std::memcmp(buffer.data(), printed.data(), n) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  FuzzStatusAndLength(input.substr(0, 4));
  FuzzDeviceList(input);
  std::size_t buffer_size = size == 0 ? 1 : 1 + data[0] % 128;
  FuzzPropertyValue(input.substr(size == 0 ? 0 : 1), buffer_size);
  return 0;
}
