// A whole monitor session against a stand-in for libPelmora: what reaches stdout and stderr, the
// exit codes, and the stop on SIGTERM with the poll thread's last report.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "MonitorSession.h"
#include "TempDir.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// The stand-in library: a "poll thread" that calls back with scripted reports, set per test.
struct FakeLibrary {
  int init_result = 0, adb_result = 0, listen_result = 0, signal_during_adb_start = 0;
  bool terminate_after_reports = false;  // SIGTERM to the process once the reports are out
  std::vector<std::string> reports;      // delivered right after the start
  std::vector<std::string> after_stop;   // delivered by "the poll under way" after Stop
  std::atomic<int> stop_calls{0};
  std::string init_folders;  // as InitPelmora got them; empty when it was not called
  std::thread poll_thread;
  std::promise<void> stop;
};

FakeLibrary* s_fake = nullptr;

const monitor::PelmoraApi kFakeApi = {
    [](const char* config, const char* resources, const char* logs) {
      s_fake->init_folders = std::string(config) + " " + resources + " " + logs;
      return s_fake->init_result;
    },
    [](bool) {
      if (s_fake->signal_during_adb_start != 0) ::kill(::getpid(), s_fake->signal_during_adb_start);
      return s_fake->adb_result;
    },
    [](monitor::ReportCallback callback) {
      FakeLibrary& f = *s_fake;
      if (f.listen_result != 0) return f.listen_result;
      if (f.poll_thread.joinable()) f.poll_thread.join();  // an earlier, stopped session
      f.stop = std::promise<void>();
      // The thread reads its own copy of the scripts: a test may set the next session's meanwhile.
      f.poll_thread = std::thread([reports = f.reports, after = f.after_stop, terminate = f.terminate_after_reports,
                                   callback, stopped = f.stop.get_future()] {
        for (const std::string& r : reports) callback(r.c_str(), static_cast<int>(r.size()));
        if (terminate) ::kill(::getpid(), SIGTERM);
        if (stopped.wait_for(10s) != std::future_status::ready) return;
        std::this_thread::sleep_for(50ms);  // the poll under way finishes
        for (const std::string& r : after) callback(r.c_str(), static_cast<int>(r.size()));
      });
      return 0;
    },
    [] {
      ++s_fake->stop_calls;
      s_fake->stop.set_value();
    }};

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
    fs::create_directories(dir_ / "config");
    std::ofstream(dir_ / "config" / "AndroidVID.ini") << "Google=6353\n";
    settings_.options.config_dir = (dir_ / "config").string();
    settings_.options.resource_dir = (dir_ / "res").string();
    settings_.options.log_dir = (dir_ / "state" / "logs").string();
    settings_.options.once_wait_ms = 200;
    settings_.drain_ms = 300;
    settings_.out = [this](const std::string& t) { std::lock_guard<std::mutex> l(out_mutex_); out_ += t; return !out_closed_; };
    settings_.err = [this](const std::string& t) { std::lock_guard<std::mutex> l(out_mutex_); err_ += t; };
  }
  void TearDown() override {
    if (fake_.poll_thread.joinable()) fake_.poll_thread.join();
    s_fake = nullptr;
  }
  bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

  FakeLibrary fake_;
  monitor::SessionSettings settings_;
  TempDir temp_;
  const fs::path dir_{temp_.path()};
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

  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
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
  EXPECT_TRUE(Has(out_.substr(0, second), "no Android device") && Has(out_.substr(second), "+ a")) << out_;
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

TEST_F(Session, FailuresBeforeListeningGiveTheirExitCodesAndReasons) {
  fs::create_directories(dir_ / "empty");
  fs::create_directories(dir_ / "noise");
  std::ofstream(dir_ / "noise" / "AndroidVID.ini") << "\x8f\x01=\xff\n\x7f == 12a\n";
  std::ofstream(dir_ / "file") << "x";
  const monitor::MonitorOptions good = settings_.options;
  // A wrong folder (under dir_) stops before the library is touched; an explicit resource folder is
  // not made up. Then the library's codes, with their meanings.
  using O = monitor::MonitorOptions;
  const struct {
    std::string O::*folder;
    const char* name;
    int init, adb, listen, exit_code;
    const char* said;
  } kCases[] = {
      {&O::config_dir, "missing", 0, 0, 0, monitor::kExitBadFolder, "does not exist"},
      {&O::config_dir, "empty", 0, 0, 0, monitor::kExitBadFolder, "holds no readable AndroidVID.ini"},
      {&O::resource_dir, "not-there", 0, 0, 0, monitor::kExitBadFolder, "resource folder"},
      {&O::log_dir, "file", 0, 0, 0, monitor::kExitBadFolder, "is not a folder"},
      {&O::config_dir, "noise", 0, 108, 0, monitor::kExitAdbFailed,  // a bad list is only a warning
       "code 108 (TARNWELL_ERR_NO_ADB): no adb executable"},
      {nullptr, "", 2, 0, 0, monitor::kExitInitFailed,
       "InitPelmora failed with code 2 (PELMORA_ERR_CONFIG_FILE): \"iManufactureAndiProduct.ini\" cannot be opened"},
      {nullptr, "", 0, 999, 0, monitor::kExitAdbFailed, "StartAdbServer failed with code 999: an unknown code"},
      {nullptr, "", 0, 0, 5, monitor::kExitListenFailed, "code 5 (PELMORA_ERR_NULL_CALLBACK): the callback"},
  };
  for (const auto& c : kCases) {
    settings_.options = good;
    if (c.folder) settings_.options.*c.folder = (dir_ / c.name).string();
    settings_.options.resource_dir_given = c.folder == &O::resource_dir;
    std::tie(fake_.init_result, fake_.adb_result, fake_.listen_result) = std::tie(c.init, c.adb, c.listen);
    fake_.init_folders.clear();
    err_.clear();
    EXPECT_EQ(c.exit_code, monitor::RunMonitor(kFakeApi, settings_)) << c.said;
    EXPECT_TRUE(Has(err_, c.said)) << err_;
    EXPECT_EQ(c.folder == &O::config_dir && c.exit_code != monitor::kExitBadFolder, Has(err_, "warning:")) << err_;
    EXPECT_EQ(c.exit_code != monitor::kExitBadFolder, !fake_.init_folders.empty()) << c.said;
  }
  EXPECT_EQ(0, fake_.stop_calls.load()) << "nothing listened, so nothing is stopped";
}

TEST_F(Session, CtrlCWhileTheServerStartsEndsWithoutListening) {
  fake_.signal_during_adb_start = SIGINT;
  fake_.listen_result = 5;  // listening would end in kExitListenFailed
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGINT) || sigismember(&mask, SIGTERM)) << "the mask is put back";
  struct sigaction sigpipe = {};
  sigaction(SIGPIPE, nullptr, &sigpipe);
  EXPECT_EQ(SIG_DFL, sigpipe.sa_handler);
}

}  // namespace
