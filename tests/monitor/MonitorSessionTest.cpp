// A whole monitor session against a stand-in for libPelmora: what reaches stdout and stderr, the
// exit codes, and the stop on SIGTERM with the poll thread's last report.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MonitorSession.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// The stand-in library: a "poll thread" that calls back with scripted reports, set per test.
struct FakeLibrary {
  int init_result = 0, adb_result = 0, listen_result = 0;
  std::vector<std::string> reports;     // delivered right after the start
  std::vector<std::string> after_stop;  // delivered by "the poll under way" after Stop
  bool terminate_after_reports = false;  // SIGTERM to the process once the reports are out
  int signal_during_adb_start = 0;
  std::atomic<int> init_calls{0}, start_calls{0}, stop_calls{0};
  std::string init_folders;
  std::thread poll_thread;
  std::mutex mutex;
  std::condition_variable stopped_cv;
  bool stopped = false;
};

FakeLibrary* s_fake = nullptr;

int FakeInit(const char* config, const char* resources, const char* logs) {
  ++s_fake->init_calls;
  s_fake->init_folders = std::string(config) + " " + resources + " " + logs;
  return s_fake->init_result;
}

int FakeStartAdb(bool) {
  if (s_fake->signal_during_adb_start != 0) ::kill(::getpid(), s_fake->signal_during_adb_start);
  return s_fake->adb_result;
}

int FakeStartListen(monitor::ReportCallback callback) {
  ++s_fake->start_calls;
  if (s_fake->listen_result != 0) return s_fake->listen_result;
  if (s_fake->poll_thread.joinable()) s_fake->poll_thread.join();  // an earlier, stopped session
  s_fake->stopped = false;
  s_fake->poll_thread = std::thread([callback] {
    FakeLibrary& f = *s_fake;
    for (const std::string& r : f.reports) callback(r.c_str(), static_cast<int>(r.size()));
    if (f.terminate_after_reports) ::kill(::getpid(), SIGTERM);
    std::unique_lock<std::mutex> lock(f.mutex);
    if (!f.stopped_cv.wait_for(lock, 10s, [&] { return f.stopped; })) return;
    lock.unlock();
    std::this_thread::sleep_for(50ms);  // the poll under way finishes
    for (const std::string& r : f.after_stop) callback(r.c_str(), static_cast<int>(r.size()));
  });
  return 0;
}

void FakeStopListen() {
  ++s_fake->stop_calls;
  std::lock_guard<std::mutex> lock(s_fake->mutex);
  s_fake->stopped = true;
  s_fake->stopped_cv.notify_all();
}

const monitor::PelmoraApi kFakeApi = {FakeInit, FakeStartAdb, FakeStartListen, FakeStopListen};

// A report as the library writes it (indented, over several lines), and as one JSON line.
std::string PrettyReport(const std::string& key, const std::string& from, const std::string& to) {
  return "{\n   \"changed\" : [ {\n      \"key_serial\" : \"" + key + "\",\n      \"old_status\" : \"" +
         from + "\",\n      \"new_status\" : \"" + to + "\",\n      \"model\" : \"Sim Phone\"\n   } ]\n}";
}
std::string JsonLine(const std::string& key, const std::string& from, const std::string& to) {
  return "{\"changed\":[{\"key_serial\":\"" + key + "\",\"model\":\"Sim Phone\",\"new_status\":\"" + to +
         "\",\"old_status\":\"" + from + "\"}]}";
}

class Session : public ::testing::Test {
 protected:
  void SetUp() override {
    s_fake = &fake_;
    dir_ = fs::temp_directory_path() / ("pelmora-monitor-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_ / "config");
    std::ofstream(dir_ / "config" / "AndroidVID.ini") << "Google=6353\n";
    settings_.options.config_dir = (dir_ / "config").string();
    settings_.options.resource_dir = (dir_ / "res").string();
    settings_.options.log_dir = (dir_ / "state" / "logs").string();
    settings_.options.once_wait_ms = 200;
    settings_.drain_ms = 300;
    settings_.out = [this](const std::string& t) { std::lock_guard<std::mutex> l(out_mutex_); out_ += t; return !out_closed_; };
    settings_.err = [this](const std::string& t) { std::lock_guard<std::mutex> l(out_mutex_); err_ += t; };
    settings_.now_text = [] { return std::string("12:00:00"); };
  }
  void TearDown() override {
    if (fake_.poll_thread.joinable()) {
      FakeStopListen();  // a session that never stopped still lets the thread go
      fake_.poll_thread.join();
    }
    s_fake = nullptr;
    fs::remove_all(dir_);
  }
  bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

  FakeLibrary fake_;
  monitor::SessionSettings settings_;
  fs::path dir_;
  std::mutex out_mutex_;
  std::string out_, err_;
  bool out_closed_ = false;
};

TEST_F(Session, JsonLinesCarryEveryReportUntilSigtermAndTheLastOneAfterStop) {
  settings_.options.json = true;
  // Blanks and punctuation inside strings stay, UTF-8 stays as bytes, control bytes are escaped.
  const std::string edge = "{\n   \"changed\" : [ {\"model\" : \"Pixel \\\"Pro\\\" \\\\ {x} [y]: a,b \xc3\xa9\",\n"
                           "   \"os_version\" : \"line\nbreak\x1f\"} ]\n}\n";
  // A "//" comment cut by a line break once hid the members after it (found by fuzzing).
  const std::string comment =
      "{\"changed\":[{\"key_serial\":\"emut\"//\n/,\"new_s/tatus\":\"A\xb5\xb5\",\"adb_\nerror_code\":20}]}\n";
  fake_.reports = {PrettyReport("a", "NotConnect", "MtpConnect"), edge, "{\"changed\":", comment};
  fake_.after_stop = {PrettyReport("a", "AuthoredConnect", "NotConnect")};
  fake_.terminate_after_reports = true;

  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms) << "waited for the poll thread";
  EXPECT_EQ(1, fake_.stop_calls.load());
  EXPECT_EQ(JsonLine("a", "NotConnect", "MtpConnect") + "\n" +
                "{\"changed\":[{\"model\":\"Pixel \\\"Pro\\\" \\\\ {x} [y]: a,b \xc3\xa9\","
                "\"os_version\":\"line\\nbreak\\u001f\"}]}\n"
                "{\"changed\":[{\"adb_\\nerror_code\":20,\"key_serial\":\"emut\",\"new_s/tatus\":\"A\xb5\xb5\"}]}\n" +
                JsonLine("a", "AuthoredConnect", "NotConnect") + "\n",
            out_);
  EXPECT_TRUE(Has(err_, "a report was skipped: report is not JSON")) << err_;
}

TEST_F(Session, OnceShowsTheFirstReportOrSaysThereIsNoneAfterItsWait) {
  settings_.options.once = true;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 200ms);
  EXPECT_EQ("no Android device\n", out_);
  EXPECT_EQ(1, fake_.stop_calls.load());
  // The folders reach InitPelmora as given, the default ones made on the way.
  EXPECT_EQ(settings_.options.config_dir + " " + settings_.options.resource_dir + " " + settings_.options.log_dir,
            fake_.init_folders);
  EXPECT_TRUE(fs::is_directory(settings_.options.log_dir) && fs::is_directory(settings_.options.resource_dir));

  out_.clear();
  settings_.options.json = true;  // JSON Lines stay pure: the remark goes to stderr
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_EQ("", out_);
  EXPECT_EQ("no Android device\n", err_);

  // With reports, only the first is shown, as a table.
  settings_.options.json = false;
  fake_.poll_thread.join();  // the last session's fake poll still reads the scripts
  fake_.reports = {PrettyReport("a", "NotConnect", "AuthoredConnect"), PrettyReport("b", "NotConnect", "MtpConnect")};
  fake_.after_stop = {PrettyReport("c", "NotConnect", "MtpConnect")};
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_TRUE(Has(out_, "+ a") && Has(out_, "Sim Phone")) << out_;
  EXPECT_FALSE(Has(out_, "+ b") || Has(out_, "+ c")) << out_;
}

TEST_F(Session, TableModeRedrawsTheWholeTableOnATerminalAndSkipsMalformedReports) {
  settings_.redraw = true;
  fake_.reports = {"{\"changed\":", PrettyReport("a", "NotConnect", "AuthoredConnect")};
  fake_.terminate_after_reports = true;
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  // The empty table at the start, then the one with the phone, each after a screen clear.
  EXPECT_EQ(0u, out_.find("\x1b[H\x1b[2J"));
  const size_t second = out_.find("\x1b[H\x1b[2J", 1);
  ASSERT_NE(std::string::npos, second);
  EXPECT_TRUE(Has(out_.substr(0, second), "no Android device")) << out_;
  EXPECT_TRUE(Has(out_.substr(second), "+ a")) << out_;
  EXPECT_TRUE(Has(err_, "a report was skipped")) << err_;
}

TEST_F(Session, ClosedOutputEndsTheSessionCleanly) {
  settings_.options.json = true;
  out_closed_ = true;
  fake_.reports = {PrettyReport("a", "NotConnect", "MtpConnect"), PrettyReport("a", "MtpConnect", "AuthoredConnect")};
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_EQ(1, fake_.stop_calls.load());
  EXPECT_EQ(JsonLine("a", "NotConnect", "MtpConnect") + "\n", out_) << "nothing more after the first failed write";
}

TEST_F(Session, FailuresGiveTheirExitCodesAndMeanings) {
  const struct {
    int init, adb, listen, exit_code;
    const char* said;
    const char* meaning;
  } kCases[] = {
      {2, 0, 0, monitor::kExitInitFailed, "InitPelmora failed with code 2", "iManufactureAndiProduct.ini"},
      {0, 108, 0, monitor::kExitAdbFailed, "StartAdbServer failed with code 108", "no adb executable"},
      {0, 112, 0, monitor::kExitAdbFailed, "StartAdbServer failed with code 112", "not a port number"},
      {0, 999, 0, monitor::kExitAdbFailed, "StartAdbServer failed with code 999", "an unknown code"},
      {0, 0, 5, monitor::kExitListenFailed, "StartListenAndroidDevice failed with code 5", ""},
  };
  for (const auto& c : kCases) {
    fake_.init_result = c.init;
    fake_.adb_result = c.adb;
    fake_.listen_result = c.listen;
    err_.clear();
    EXPECT_EQ(c.exit_code, monitor::RunMonitor(kFakeApi, settings_)) << c.said;
    EXPECT_TRUE(Has(err_, c.said) && Has(err_, c.meaning)) << err_;
  }
  EXPECT_EQ(0, fake_.stop_calls.load()) << "nothing listened, so nothing is stopped";
}

TEST_F(Session, BadFoldersStopBeforeTheLibraryIsTouched) {
  fs::create_directories(dir_ / "empty");
  std::ofstream(dir_ / "file") << "x";
  const monitor::MonitorOptions good = settings_.options;
  const struct {
    const char* config;
    const char* resources;  // an explicit folder is not made up
    const char* logs;
    const char* said;
  } kCases[] = {
      {"missing", nullptr, nullptr, "does not exist"},
      {"empty", nullptr, nullptr, "AndroidVID.ini"},
      {nullptr, "not-there", nullptr, "resource folder"},
      {nullptr, nullptr, "file", "is not a folder"},
  };
  for (const auto& c : kCases) {
    settings_.options = good;
    if (c.config) settings_.options.config_dir = (dir_ / c.config).string();
    if (c.resources) settings_.options.resource_dir = (dir_ / c.resources).string();
    settings_.options.resource_dir_given = c.resources != nullptr;
    if (c.logs) settings_.options.log_dir = (dir_ / c.logs).string();
    err_.clear();
    EXPECT_EQ(monitor::kExitBadFolder, monitor::RunMonitor(kFakeApi, settings_)) << c.said;
    EXPECT_TRUE(Has(err_, c.said)) << err_;
  }
  EXPECT_EQ(0, fake_.init_calls.load());
}

TEST_F(Session, CtrlCWhileTheServerStartsEndsWithoutListening) {
  fake_.signal_during_adb_start = SIGINT;
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_EQ(0, fake_.start_calls.load());
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGINT) || sigismember(&mask, SIGTERM)) << "the mask is put back";
  struct sigaction sigpipe = {};
  sigaction(SIGPIPE, nullptr, &sigpipe);
  EXPECT_EQ(SIG_DFL, sigpipe.sa_handler);
}

}  // namespace
