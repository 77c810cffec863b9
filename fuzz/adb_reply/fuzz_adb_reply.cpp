// The ADB server's replies are outside bytes (status word, hex length, device list, what a shell
// prints): each run checks the promises the exported functions make on top of these parsers.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "HostProtocol.h"

static void Check(bool condition) {
  if (!condition) std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  const std::string_view head = input.substr(0, 4);
  const tarnwell::ReplyStatus status = tarnwell::ParseStatus(head);
  Check((status == tarnwell::ReplyStatus::kOkay) == (head == "OKAY"));
  Check((status == tarnwell::ReplyStatus::kFail) == (head == "FAIL"));
  std::size_t length = 0;
  if (tarnwell::ParseHexLength(head, &length)) {
    // Framing the same length again gives the same four digits, up to letter case.
    Check(head.size() == 4 && length <= 0xffff);
    const std::string framed = tarnwell::EncodeRequest(std::string(length, 'x'));
    for (std::size_t i = 0; i < 4; ++i) Check(std::tolower(head[i]) == framed[i]);
  }

  // The device list: one ';' after each entry, each entry with its '-', no line breaks left.
  std::string list;
  int count = -1;
  if (tarnwell::DevicesToListText(input, &list, &count)) {
    int entries = 0;
    for (std::size_t start = 0, end = 0; start < list.size(); start = end + 1, ++entries) {
      end = list.find(';', start);
      Check(end != std::string::npos && list.substr(start, end - start).find('-') != std::string::npos);
    }
    Check(entries == count && list.find('\n') == std::string::npos);
    Check(list.find('\0') == std::string::npos || input.find('\0') != std::string_view::npos);
  }

  // A property value copied into a buffer of 1 to 128 bytes, never past its end.
  const std::size_t buffer_size = size == 0 ? 1 : 1 + data[0] % 128;
  const std::string_view printed = input.substr(size == 0 ? 0 : 1);
  std::vector<char> buffer(buffer_size + 1, '\x7f');
  const std::size_t n = tarnwell::CopyPropertyValue(printed, buffer.data(), buffer_size);
  Check(n < buffer_size && buffer[n] == '\0' && buffer[buffer_size] == '\x7f');
  Check(std::memcmp(buffer.data(), printed.data(), n) == 0);
  return 0;
}
