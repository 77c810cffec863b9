// The log library: printf-style messages into a size-bounded, rotating file through spdlog.
#include "Quenwick.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

namespace {

// The current logger. Held on the heap and never destroyed, so that threads still logging while
// the process exits never meet a destroyed object.
struct LogTarget {
  std::mutex mutex;
  std::shared_ptr<spdlog::logger> logger;
};

LogTarget& Target() {
  static LogTarget* target = new LogTarget;
  return *target;
}

std::shared_ptr<spdlog::logger> CurrentLogger() {
  LogTarget& target = Target();
  std::lock_guard<std::mutex> lock(target.mutex);
  return target.logger;
}

void ReplaceLogger(std::shared_ptr<spdlog::logger> logger) {
  LogTarget& target = Target();
  std::shared_ptr<spdlog::logger> previous;
  {
    std::lock_guard<std::mutex> lock(target.mutex);
    previous = std::move(target.logger);
    target.logger = std::move(logger);
  }
  // Lines logged through the previous logger have been flushed line by line; it closes its file
  // when the last thread still using it lets go.
}

std::shared_ptr<spdlog::logger> OpenLogger(const std::string& path) {
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent);
  auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
      path, QUENWICK_MAX_FILE_BYTES, QUENWICK_MAX_FILES);
  // The message already carries level and category; spdlog adds the time to the millisecond.
  sink->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
  auto logger = std::make_shared<spdlog::logger>("quenwick", std::move(sink));
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);  // a host that is killed keeps every line
  return logger;
}

// "[L<level>] [<category>] " (or without the category) followed by the formatted message.
std::string FormatLine(int level, const char* category, const char* format, va_list args) {
  char head[160];
  const int head_size = category != nullptr
                            ? std::snprintf(head, sizeof head, "[L%d] [%.120s] ", level, category)
                            : std::snprintf(head, sizeof head, "[L%d] ", level);
  std::string line(head, static_cast<size_t>(head_size > 0 ? head_size : 0));

  char stack_buffer[1024];
  va_list measure;
  va_copy(measure, args);
  const int size = std::vsnprintf(stack_buffer, sizeof stack_buffer, format, measure);
  va_end(measure);
  if (size < 0) return line + "(bad format)";
  if (static_cast<size_t>(size) < sizeof stack_buffer) return line.append(stack_buffer, size);
  const size_t start = line.size();
  line.resize(start + static_cast<size_t>(size) + 1);
  std::vsnprintf(&line[start], static_cast<size_t>(size) + 1, format, args);
  line.resize(start + static_cast<size_t>(size));
  return line;
}

int Write(int level, const char* category, const char* format, va_list args) noexcept {
  try {
    const std::shared_ptr<spdlog::logger> logger = CurrentLogger();
    if (!logger) return QUENWICK_ERR_NOT_INITIALISED;
    const std::string line = FormatLine(level, category, format, args);
    logger->log(spdlog::level::info, spdlog::string_view_t(line.data(), line.size()));
    return QUENWICK_OK;
  } catch (...) {
    return QUENWICK_ERR_WRITE_FAILED;
  }
}

}  // namespace

extern "C" QUENWICK_API int InitLogEx(const char* config_dir, const char* category,
                                      const char* log_path) {
  (void)config_dir;
  (void)category;
  if (log_path == nullptr || log_path[0] == '\0') return QUENWICK_ERR_BAD_ARGUMENT;
  try {
    ReplaceLogger(OpenLogger(log_path));
    return QUENWICK_OK;
  } catch (...) {
    ReplaceLogger(nullptr);
    return QUENWICK_ERR_OPEN_FAILED;
  }
}

extern "C" QUENWICK_API int LogEx(const char* category, int level, const char* format, ...) {
  if (category == nullptr || format == nullptr) return QUENWICK_ERR_BAD_ARGUMENT;
  va_list args;
  va_start(args, format);
  const int result = Write(level, category, format, args);
  va_end(args);
  return result;
}

extern "C" QUENWICK_API int Log(int level, const char* format, ...) {
  if (format == nullptr) return QUENWICK_ERR_BAD_ARGUMENT;
  va_list args;
  va_start(args, format);
  const int result = Write(level, nullptr, format, args);
  va_end(args);
  return result;
}
