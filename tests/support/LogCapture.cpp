#include "LogCapture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "Quenwick.h"

namespace {

std::mutex g_mutex;
std::vector<log_capture::Line> g_lines;
std::vector<std::string> g_init_calls;

// Formats and keeps one line; a null format is refused as the real library refuses it.
int Add(bool has_category, const char* category, int level, const char* format, va_list args) {
  if (format == nullptr) return QUENWICK_ERR_BAD_ARGUMENT;
  va_list copy;
  va_copy(copy, args);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
  if (size > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.push_back({has_category, category ? category : "", level, std::move(text)});
  return 0;
}

}  // namespace

namespace log_capture {

std::vector<Line> Lines() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_lines;
}

void Clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
  g_init_calls.clear();
}

std::vector<std::string> InitCalls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_init_calls;
}

int Count(int level, const std::string& text) {
  int n = 0;
  for (const Line& line : Lines()) n += (line.level == level && line.text == text) ? 1 : 0;
  return n;
}

int CountContaining(const std::string& fragment) {
  int n = 0;
  for (const Line& line : Lines()) n += line.text.find(fragment) != std::string::npos ? 1 : 0;
  return n;
}

}  // namespace log_capture

extern "C" int InitLogEx(const char* config, const char* category, const char* path) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_init_calls.push_back(std::string(config ? config : "(null)") + "|" + (category ? category : "(null)") +
                         "|" + (path ? path : "(null)"));
  return 0;
}

extern "C" int LogEx(const char* category, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int ret = Add(true, category, level, format, args);
  va_end(args);
  return ret;
}

extern "C" int Log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int ret = Add(false, nullptr, level, format, args);
  va_end(args);
  return ret;
}
