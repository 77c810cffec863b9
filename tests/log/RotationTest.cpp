// Rotation under load, with the library built from its source with a small size bound
// (QUENWICK_MAX_FILE_BYTES) and enough rotated files (QUENWICK_MAX_FILES) to keep every line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Quenwick.h"

namespace fs = std::filesystem;

TEST(Rotation, EightThreadsOfTenThousandLinesStayWithinTheBoundAndAllArrive) {
  const fs::path dir = fs::temp_directory_path() / ("quenwick-rotation-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  ASSERT_EQ(QUENWICK_OK, InitLogEx("", "Pelmora", (dir / "Pelmora.log").c_str()));
  constexpr int kThreads = 8, kLines = 10000;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) LogEx("Pelmora", 1, "thread %d line %d", t, i);
    });
  }
  for (auto& writer : writers) writer.join();

  // From the oldest rotation ("Pelmora.N.log", highest N) to the active file, every thread's lines
  // in order.
  std::map<int, int> next_line;
  int total = 0, files = 0;
  for (int n = QUENWICK_MAX_FILES; n >= 0; --n) {
    const fs::path file = dir / (n == 0 ? "Pelmora.log" : "Pelmora." + std::to_string(n) + ".log");
    if (!fs::exists(file)) continue;
    ++files;
    EXPECT_LE(fs::file_size(file), static_cast<uintmax_t>(QUENWICK_MAX_FILE_BYTES)) << file;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line); ++total) {
      int thread = -1, number = -1;
      const size_t at = line.find("[L1] [Pelmora] thread ");
      ASSERT_TRUE(at != std::string::npos &&
                  std::sscanf(line.c_str() + at, "[L1] [Pelmora] thread %d line %d", &thread, &number) == 2)
          << line;
      ASSERT_EQ(next_line[thread]++, number) << "thread " << thread << " in " << file;
    }
  }
  EXPECT_GT(files, 2) << "the test must make the log rotate";
  EXPECT_EQ(kThreads * kLines, total);
  fs::remove_all(dir);
}
