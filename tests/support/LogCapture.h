// An in-memory stand-in for libQuenwick that tells the tests linking it which lines were logged.
#pragma once

#include <string>
#include <vector>

namespace log_capture {

struct Line {
  bool has_category = false;  // false for Log(), true for LogEx()
  std::string category;
  int level = 0;
  std::string text;  // the formatted message, exactly as formatted
};

std::vector<Line> Lines();
void Clear();
// Every InitLogEx call as "config|category|path", in order.
std::vector<std::string> InitCalls();
// How many lines have this level and exactly this text.
int Count(int level, const std::string& text);
int CountContaining(const std::string& fragment);

}  // namespace log_capture
