#include "HostProtocol.h"

#include <cstring>

namespace tarnwell {

namespace {

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr std::string_view kNoPermissions = "no permissions";

void AppendWithoutTerminators(std::string* out, std::string_view text) {
  for (char c : text) out->push_back(c == ';' ? ',' : c);
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

}  // namespace

std::string EncodeRequest(std::string_view service) {
  static const char kHex[] = "0123456789abcdef";
  std::size_t length = service.size();
  std::string request;
  request.reserve(4 + length);
  for (int shift = 12; shift >= 0; shift -= 4) request.push_back(kHex[(length >> shift) & 0xf]);
  request.append(service);
  return request;
}

ReplyStatus ParseStatus(std::string_view four_bytes) {
  if (four_bytes == "OKAY") return ReplyStatus::kOkay;
  if (four_bytes == "FAIL") return ReplyStatus::kFail;
  return ReplyStatus::kMalformed;
}

bool ParseHexLength(std::string_view four_bytes, std::size_t* length) {
  if (four_bytes.size() != 4) return false;
  std::size_t value = 0;
  for (char c : four_bytes) {
    int digit = HexDigitValue(c);
    if (digit < 0) return false;
    value = value * 16 + static_cast<std::size_t>(digit);
  }
  *length = value;
  return true;
}

std::string StateWord(std::string_view state_text, std::string* remark) {
  state_text = TrimBlanks(state_text);
  // Every state adb names is one word, except the one that explains itself in parentheses.
  std::size_t word_end = state_text.compare(0, kNoPermissions.size(), kNoPermissions) == 0
                             ? kNoPermissions.size()
                             : state_text.find(' ');
  if (word_end == std::string_view::npos) word_end = state_text.size();
  std::string word(state_text.substr(0, word_end));
  for (char& c : word) {
    if (c == '-' || c == ';') c = '_';
  }
  *remark = std::string(TrimBlanks(state_text.substr(word_end)));
  return word;
}

bool DevicesToListText(std::string_view payload, std::string* list_text, int* device_count,
                       std::vector<StateRemark>* remarks) {
  std::string text;
  std::vector<StateRemark> found;
  int count = 0;
  while (!payload.empty()) {
    std::size_t end = payload.find('\n');
    std::string_view line = payload.substr(0, end);
    payload = end == std::string_view::npos ? std::string_view() : payload.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) continue;
    std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos || tab == 0) return false;
    std::string remark;
    const std::string word = StateWord(line.substr(tab + 1), &remark);
    const std::size_t serial_start = text.size();
    AppendWithoutTerminators(&text, line.substr(0, tab));
    if (!remark.empty()) found.push_back({text.substr(serial_start), word, std::move(remark)});
    text.push_back('-');
    text.append(word);
    text.push_back(';');
    ++count;
  }
  *list_text = std::move(text);
  *device_count = count;
  if (remarks != nullptr) *remarks = std::move(found);
  return true;
}

std::size_t CopyPropertyValue(std::string_view printed, char* buffer, std::size_t size) {
  while (!printed.empty() && (printed.back() == '\n' || printed.back() == '\r')) {
    printed.remove_suffix(1);
  }
  std::size_t n = printed.size() < size - 1 ? printed.size() : size - 1;
  if (n > 0) std::memcpy(buffer, printed.data(), n);
  buffer[n] = '\0';
  return n;
}

}  // namespace tarnwell
