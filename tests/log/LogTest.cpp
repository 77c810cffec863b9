// The log library through its three C functions, reading back the files it writes. Built with a
// small QUENWICK_MAX_FILE_BYTES and a large QUENWICK_MAX_FILES, so that it rotates often, losing nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Quenwick.h"
#include "TempDir.h"

namespace fs = std::filesystem;

namespace {

class LogFiles : public ::testing::Test {
 protected:
  TempDir temp_;
  const fs::path dir_ = temp_.path();
};

// First in the file, so that it runs before any other test opens a log; it ends with none open.
TEST_F(LogFiles, CallsBeforeInitBadArgumentsAndAnUnwritablePathAreRefused) {
  for (int pass = 0; pass < 2; ++pass) {
    const std::vector<int> codes = {LogEx("Pelmora", 1, "dropped"), Log(1, "dropped"), LogEx("Pelmora", 1, nullptr),
        LogEx(nullptr, 1, "x"), Log(1, nullptr), InitLogEx("", "Pelmora", nullptr), InitLogEx("", "Pelmora", "")};
    const int bad = QUENWICK_ERR_BAD_ARGUMENT, dropped = QUENWICK_ERR_NOT_INITIALISED;
    EXPECT_EQ((std::vector<int>{dropped, dropped, bad, bad, bad, bad, bad}), codes);
    // A log that cannot be opened leaves none open: later calls drop their lines.
    ASSERT_EQ(QUENWICK_OK, InitLogEx("", "Pelmora", (dir_ / "Pelmora.log").c_str()));
    std::ofstream(dir_ / "plain-file") << "x";
    EXPECT_EQ(QUENWICK_ERR_OPEN_FAILED, InitLogEx("", "Pelmora", (dir_ / "plain-file" / "Pelmora.log").c_str()));
  }
}

TEST_F(LogFiles, LinesCarryTimeLevelCategoryAndTheExactMessageBytes) {
  const fs::path path = dir_ / "nested" / "folder" / "Pelmora.log";
  ASSERT_EQ(QUENWICK_OK, InitLogEx("/cfg", "Pelmora", path.c_str()));
  const std::string big(16 * 1024, 'x');  // larger than any formatting buffer: written whole
  const std::vector<int> codes = {LogEx("Pelmora", 1, "%s Enter... (%d)", "Start", 7),
      LogEx("Pelmora", 3, "Device offline.\r"), Log(3, "raw 0x%08x \xe9\xff\n", 0xE0000010u),
      LogEx("Pelmora", 1, "braces {} and %% stay"), LogEx("Pelmora", 1, "<%s>", big.c_str())};
  EXPECT_EQ(std::vector<int>(codes.size(), QUENWICK_OK), codes);

  const std::string text = ReadFile(path);
  EXPECT_TRUE(std::regex_search(
      text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[L1\] \[Pelmora\] Start Enter\.\.\. \(7\)\n)")));
  // Log has no category; bytes above 0x7F pass untouched.
  for (const std::string& line : std::vector<std::string>{"[L3] [Pelmora] Device offline.\r\n",
       "[L3] raw 0xe0000010 \xe9\xff\n\n", "[L1] [Pelmora] braces {} and % stay\n", "<" + big + ">\n"}) {
    EXPECT_NE(std::string::npos, text.find(line)) << line.substr(0, 40);
  }
}

TEST_F(LogFiles, ThreadsLoggingThroughRotationsAndASwitchOfFilesLoseTearOrReorderNothing) {
  ASSERT_EQ(QUENWICK_OK, InitLogEx("", "Pelmora", (dir_ / "first.log").c_str()));
  constexpr int kThreads = 8, kLines = 10000;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] { for (int i = 0; i < kLines; ++i) LogEx("Pelmora", 1, "thread %d line %d end", t, i); });
  }
  EXPECT_EQ(QUENWICK_OK, InitLogEx("", "Pelmora", (dir_ / "second.log").c_str()));
  for (auto& writer : writers) writer.join();

  // The log switched from, then the one switched to, each from its oldest rotation
  // ("<name>.N.log", highest N) to its active file: every thread's lines whole and in order.
  const std::regex whole(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[L1\] \[Pelmora\] thread (\d) line (\d+) end)");
  std::map<int, int> next_line;
  int total = 0, files = 0;
  for (const std::string name : {"first", "second"}) {
    for (int n = QUENWICK_MAX_FILES; n >= 0; --n) {
      const fs::path file = dir_ / (name + (n == 0 ? "" : "." + std::to_string(n)) + ".log");
      if (!fs::exists(file)) continue;
      ++files;
      EXPECT_LE(fs::file_size(file), static_cast<uintmax_t>(QUENWICK_MAX_FILE_BYTES)) << file;
      std::ifstream in(file);
      std::smatch parts;
      for (std::string line; std::getline(in, line); ++total) {
        ASSERT_TRUE(std::regex_match(line, parts, whole)) << line;
        ASSERT_EQ(next_line[std::stoi(parts[1])]++, std::stoi(parts[2])) << line << " in " << file;
      }
    }
  }
  EXPECT_GT(files, 3) << "the test must make the log rotate";
  EXPECT_EQ(kThreads * kLines, total);
}

}  // namespace
