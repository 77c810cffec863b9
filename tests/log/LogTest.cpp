// The log library through its three C functions, reading back the files it writes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Quenwick.h"

namespace fs = std::filesystem;

namespace {

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// First in the file, so that it runs before any other test opens a log.
TEST(LogWithoutInit, CallsBeforeInitAndNullArgumentsAreRefusedQuietly) {
  EXPECT_EQ(QUENWICK_ERR_NOT_INITIALISED, LogEx("Pelmora", 1, "dropped"));
  EXPECT_EQ(QUENWICK_ERR_NOT_INITIALISED, Log(1, "dropped"));
  EXPECT_EQ(QUENWICK_ERR_BAD_ARGUMENT, LogEx("Pelmora", 1, nullptr));
  EXPECT_EQ(QUENWICK_ERR_BAD_ARGUMENT, LogEx(nullptr, 1, "x"));
  EXPECT_EQ(QUENWICK_ERR_BAD_ARGUMENT, Log(1, nullptr));
  EXPECT_EQ(QUENWICK_ERR_BAD_ARGUMENT, InitLogEx("", "Pelmora", nullptr));
  EXPECT_EQ(QUENWICK_ERR_BAD_ARGUMENT, InitLogEx("", "Pelmora", ""));
}

class LogFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("quenwick-test-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

TEST_F(LogFiles, LinesCarryTimeLevelCategoryAndTheExactMessageBytes) {
  const fs::path path = dir_ / "nested" / "folder" / "Pelmora.log";
  ASSERT_EQ(QUENWICK_OK, InitLogEx("/cfg", "Pelmora", path.c_str()));
  EXPECT_EQ(QUENWICK_OK, LogEx("Pelmora", 1, "%s Enter... (%d)", "Start", 7));
  EXPECT_EQ(QUENWICK_OK, LogEx("Pelmora", 3, "Device offline.\r"));
  EXPECT_EQ(QUENWICK_OK, Log(3, "raw 0x%08x \xe9\xff\n", 0xE0000010u));
  EXPECT_EQ(QUENWICK_OK, LogEx("Pelmora", 1, "braces {} and %% stay"));
  const std::string big(100 * 1024, 'x');  // larger than any buffer: written whole
  EXPECT_EQ(QUENWICK_OK, LogEx("Pelmora", 1, "<%s>", big.c_str()));

  const std::string text = ReadFile(path);
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";
  EXPECT_TRUE(std::regex_search(text, std::regex(stamp + R"(\[L1\] \[Pelmora\] Start Enter\.\.\. \(7\)\n)")));
  EXPECT_NE(std::string::npos, text.find("[L3] [Pelmora] Device offline.\r\n"));
  // Log has no category; bytes above 0x7F pass untouched.
  EXPECT_NE(std::string::npos, text.find("[L3] raw 0xe0000010 \xe9\xff\n\n"));
  EXPECT_NE(std::string::npos, text.find("[L1] [Pelmora] braces {} and % stay\n"));
  EXPECT_NE(std::string::npos, text.find("<" + big + ">\n"));
}

TEST_F(LogFiles, AnUnwritableLogPathIsAnErrorAndLaterCallsDropTheirLines) {
  fs::create_directories(dir_);
  std::ofstream(dir_ / "plain-file") << "x";
  const fs::path inside_a_file = dir_ / "plain-file" / "Pelmora.log";
  EXPECT_EQ(QUENWICK_ERR_OPEN_FAILED, InitLogEx("", "Pelmora", inside_a_file.c_str()));
  EXPECT_EQ(QUENWICK_ERR_NOT_INITIALISED, LogEx("Pelmora", 1, "dropped"));
}

TEST_F(LogFiles, SwitchingFilesWhileThreadsLogLosesAndTearsNothing) {
  const fs::path first = dir_ / "first.log";
  const fs::path second = dir_ / "second.log";
  ASSERT_EQ(QUENWICK_OK, InitLogEx("", "Pelmora", first.c_str()));
  constexpr int kThreads = 4, kLines = 2000;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) LogEx("Pelmora", 1, "writer %d line %d end", t, i);
    });
  }
  ASSERT_EQ(QUENWICK_OK, InitLogEx("", "Pelmora", second.c_str()));
  for (auto& writer : writers) writer.join();

  int whole = 0;
  for (const fs::path& path : {first, second}) {
    std::istringstream lines(ReadFile(path));
    for (std::string line; std::getline(lines, line);) {
      ASSERT_TRUE(std::regex_match(line, std::regex(R"(.* \[L1\] \[Pelmora\] writer \d line \d+ end)")))
          << line;
      ++whole;
    }
  }
  EXPECT_EQ(kThreads * kLines, whole);
}

}  // namespace
