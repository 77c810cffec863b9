// A whole monitor session against a stand-in for libPelmora: what reaches stdout and stderr, the
// exit codes, and the stop on SIGTERM with the poll thread's last report.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "MonitorSession.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// The stand-in library: a "poll thread" that calls back with scripted reports. Its behaviour is
// set per test; the four entry points are plain functions, as the real ones.
struct FakeLibrary {
  int init_result = 0;
  int adb_result = 0;
  int listen_result = 0;
  std::vector<std::string> reports;        // delivered right after the start
  std::vector<std::string> after_stop;     // delivered by "the poll under way" after Stop
  bool terminate_after_reports = false;    // SIGTERM to the process once the reports are out
  int signal_during_adb_start = 0;

  std::atomic<int> init_calls{0}, start_calls{0}, stop_calls{0};
  std::string init_config, init_resources, init_logs;
  std::thread poll_thread;
  std::mutex mutex;
  std::condition_variable stopped_cv;
  bool stopped = false;
};

FakeLibrary* s_fake = nullptr;

int FakeInit(const char* config, const char* resources, const char* logs) {
  ++s_fake->init_calls;
  s_fake->init_config = config;
  s_fake->init_resources = resources;
  s_fake->init_logs = logs;
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

std::string PrettyReport(const std::string& key, const std::string& from, const std::string& to) {
  Json::Value entry;
  entry["key_serial"] = key;
  entry["actual_serial"] = key;
  entry["old_status"] = from;
  entry["new_status"] = to;
  entry["model"] = "Sim Phone";
  entry["vid"] = 6353u;
  entry["pid"] = 20199u;
  entry["adb_error_code"] = 0;
  Json::Value root;
  root["changed"].append(entry);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "   ";
  return Json::writeString(builder, root);
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::istringstream in(text);
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) << errors;
  return value;
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
    settings_.out = [this](const std::string& text) {
      std::lock_guard<std::mutex> lock(out_mutex_);
      out_ += text;
      return !out_closed_;
    };
    settings_.err = [this](const std::string& text) {
      std::lock_guard<std::mutex> lock(out_mutex_);
      err_ += text;
    };
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
  std::vector<std::string> OutLines() {
    std::vector<std::string> lines;
    std::istringstream in(out_);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

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

  const std::vector<std::string> lines = OutLines();
  ASSERT_EQ(4u, lines.size()) << out_;
  EXPECT_EQ(Parse(fake_.reports[0]), Parse(lines[0])) << lines[0];
  EXPECT_EQ("{\"changed\":[{\"model\":\"Pixel \\\"Pro\\\" \\\\ {x} [y]: a,b \xc3\xa9\","
            "\"os_version\":\"line\\nbreak\\u001f\"}]}", lines[1]);
  EXPECT_EQ("{\"changed\":[{\"adb_\\nerror_code\":20,\"key_serial\":\"emut\",\"new_s/tatus\":\"A\xb5\xb5\"}]}",
            lines[2]);
  EXPECT_EQ(Parse(fake_.after_stop[0]), Parse(lines[3])) << lines[3];
  EXPECT_NE(std::string::npos, err_.find("a report was skipped: report is not JSON")) << err_;
}

TEST_F(Session, OnceWithoutAnyReportSaysSoAfterItsWait) {
  settings_.options.once = true;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 200ms);
  EXPECT_EQ("no Android device\n", out_);
  EXPECT_EQ(1, fake_.stop_calls.load());
  // The folders reach InitPelmora as given, the default ones made on the way.
  EXPECT_EQ(settings_.options.config_dir, fake_.init_config);
  EXPECT_EQ(settings_.options.resource_dir, fake_.init_resources);
  EXPECT_EQ(settings_.options.log_dir, fake_.init_logs);
  EXPECT_TRUE(fs::is_directory(settings_.options.log_dir));
  EXPECT_TRUE(fs::is_directory(settings_.options.resource_dir));

  out_.clear();
  settings_.options.json = true;  // JSON Lines stay pure: the remark goes to stderr
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_EQ("", out_);
  EXPECT_EQ("no Android device\n", err_);
}

TEST_F(Session, OnceShowsOnlyTheFirstReportAsATable) {
  settings_.options.once = true;
  fake_.reports = {PrettyReport("a", "NotConnect", "AuthoredConnect"),
                   PrettyReport("b", "NotConnect", "MtpConnect")};
  fake_.after_stop = {PrettyReport("c", "NotConnect", "MtpConnect")};
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_NE(std::string::npos, out_.find("+ a")) << out_;
  EXPECT_NE(std::string::npos, out_.find("Sim Phone"));
  EXPECT_EQ(std::string::npos, out_.find("+ b"));
  EXPECT_EQ(std::string::npos, out_.find("+ c"));
}

TEST_F(Session, TableModeRedrawsTheWholeTableOnATerminal) {
  settings_.redraw = true;
  fake_.reports = {PrettyReport("a", "NotConnect", "AuthoredConnect")};
  fake_.terminate_after_reports = true;
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  // The empty table at the start, then the one with the phone, each after a screen clear.
  EXPECT_EQ(0u, out_.find("\x1b[H\x1b[2J"));
  const size_t second = out_.find("\x1b[H\x1b[2J", 1);
  ASSERT_NE(std::string::npos, second);
  EXPECT_NE(std::string::npos, out_.find("no Android device"));
  EXPECT_NE(std::string::npos, out_.find("+ a", second));
}

TEST_F(Session, MalformedReportIsSkippedWithAWordOnStderr) {
  fake_.reports = {"{\"changed\":", PrettyReport("a", "NotConnect", "AuthoredConnect")};
  fake_.terminate_after_reports = true;
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_NE(std::string::npos, err_.find("a report was skipped"));
  EXPECT_NE(std::string::npos, out_.find("+ a"));
}

TEST_F(Session, ClosedOutputEndsTheSessionCleanly) {
  settings_.options.json = true;
  out_closed_ = true;
  fake_.reports = {PrettyReport("a", "NotConnect", "MtpConnect"),
                   PrettyReport("a", "MtpConnect", "AuthoredConnect")};
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_EQ(1, fake_.stop_calls.load());
  EXPECT_EQ(1u, OutLines().size()) << "nothing more is tried after the first failed write";
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
    EXPECT_NE(std::string::npos, err_.find(c.said)) << err_;
    EXPECT_NE(std::string::npos, err_.find(c.meaning)) << err_;
  }
  EXPECT_EQ(0, fake_.stop_calls.load()) << "nothing listened, so nothing is stopped";
}

TEST_F(Session, BadFoldersStopBeforeTheLibraryIsTouched) {
  const std::string good_config = settings_.options.config_dir;
  settings_.options.config_dir = (dir_ / "missing").string();
  EXPECT_EQ(monitor::kExitBadFolder, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_NE(std::string::npos, err_.find("does not exist"));

  fs::create_directories(dir_ / "empty");
  settings_.options.config_dir = (dir_ / "empty").string();
  EXPECT_EQ(monitor::kExitBadFolder, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_NE(std::string::npos, err_.find("AndroidVID.ini"));

  settings_.options.config_dir = good_config;
  settings_.options.resource_dir = (dir_ / "not-there").string();
  settings_.options.resource_dir_given = true;  // an explicit folder is not made up
  EXPECT_EQ(monitor::kExitBadFolder, monitor::RunMonitor(kFakeApi, settings_));

  settings_.options.resource_dir_given = false;
  std::ofstream(dir_ / "file") << "x";
  settings_.options.log_dir = (dir_ / "file").string();
  EXPECT_EQ(monitor::kExitBadFolder, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_NE(std::string::npos, err_.find("is not a folder"));
  EXPECT_EQ(0, fake_.init_calls.load());
}

TEST_F(Session, CtrlCWhileTheServerStartsEndsWithoutListening) {
  fake_.signal_during_adb_start = SIGINT;
  EXPECT_EQ(monitor::kExitOk, monitor::RunMonitor(kFakeApi, settings_));
  EXPECT_EQ(0, fake_.start_calls.load());
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGINT)) << "the mask is put back after the session";
  EXPECT_FALSE(sigismember(&mask, SIGTERM));
  struct sigaction sigpipe = {};
  sigaction(SIGPIPE, nullptr, &sigpipe);
  EXPECT_EQ(SIG_DFL, sigpipe.sa_handler);
}

}  // namespace
