// AdbSdkInit and AdbStartDaemon: which adb is run, when it is run (never while a server answers
// unless the host says it was killed), and that a real server on a private port comes up.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "PrivateAdbServer.h"
#include "Quenwick.h"
#include "SimAdbServer.h"
#include "Tarnwell.h"
#include "TempDir.h"

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A stand-in adb in a resource folder: notes its arguments and says and exits as told.
class FakeAdbFolder {
 public:
  explicit FakeAdbFolder(int exit_code = 0, const std::string& says = "") {
    std::ofstream script(dir_.path() + "/adb");
    script << "#!/usr/bin/python3\n"
              "import sys\n"
              "open('" << calls_path() << "', 'a').write(' '.join(sys.argv[1:]) + '\\n')\n"
              "sys.stderr.write('" << says << "')\n"
              "sys.exit(" << exit_code << ")\n";
    script.close();
    ::chmod((dir_.path() + "/adb").c_str(), 0755);
  }
  const std::string& path() const { return dir_.path(); }
  std::string calls_path() const { return dir_.path() + "/calls"; }
  std::string Calls() const { return ReadFile(calls_path()); }

 private:
  TempDir dir_;
};

class StartDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_path_ = folders_.path() + "/start.log";
    ASSERT_EQ(InitLogEx(folders_.path().c_str(), "Test", log_path_.c_str()), 0);
  }
  int Init(const std::string& resource) {
    return AdbSdkInit(resource.c_str(), folders_.path().c_str(), folders_.path().c_str());
  }
  void UsePort(std::uint16_t port) {
    setenv("ANDROID_ADB_SERVER_PORT", std::to_string(port).c_str(), 1);
  }

  TempDir folders_;
  std::string log_path_;
};

TEST_F(StartDaemonTest, InitChecksItsFoldersAndNothingStartsWithoutAnyAdb) {
  EXPECT_EQ(AdbSdkInit(nullptr, "/", "/"), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(AdbSdkInit("/", "", "/"), TARNWELL_ERR_BAD_ARGUMENT);
  EXPECT_EQ(Init(folders_.path() + "/missing"), TARNWELL_ERR_NO_FOLDER);
  EXPECT_EQ(AdbSdkInit(folders_.path().c_str(), "/no/such/config", "/"), TARNWELL_ERR_NO_FOLDER);
  EXPECT_NE(ReadFile(log_path_).find("/no/such/config"), std::string::npos);
  EXPECT_EQ(AdbStartDaemon(2, 0), TARNWELL_ERR_BAD_ARGUMENT);

  const std::string saved_path = getenv("PATH") != nullptr ? getenv("PATH") : "";
  setenv("PATH", folders_.path().c_str(), 1);
  UsePort(sim_phone::PrivateAdbServer::FreePort());
  EXPECT_EQ(Init(folders_.path()), TARNWELL_ERR_NO_ADB);
  EXPECT_EQ(AdbStartDaemon(1, 0), TARNWELL_ERR_NO_ADB);
  setenv("PATH", saved_path.c_str(), 1);
}

TEST_F(StartDaemonTest, AdbIsRunOnlyWhenNoServerAnswersOrTheHostSaysItWasKilled) {
  const struct {
    bool serve;   // a simulated server listens on the port
    bool silent;  // and never answers "host:version"
    int flag;
    int adb_exit;
    int code;
    bool runs_adb;
  } cases[] = {
      {true, false, 1, 0, 0, false},
      {true, false, 0, 0, 0, true},
      {true, true, 1, 0, TARNWELL_ERR_TIMEOUT, false},  // reported, not replaced
      {false, false, 1, 1, TARNWELL_ERR_START_FAILED, true},
  };
  for (const auto& c : cases) {
    std::optional<sim_adb::SimAdbServer> server;
    if (c.serve) server.emplace();
    if (c.silent) server->React("host:version", sim_adb::Reaction::Silent());
    const std::uint16_t port = c.serve ? server->port() : sim_phone::PrivateAdbServer::FreePort();
    UsePort(port);
    FakeAdbFolder adb(c.adb_exit, c.adb_exit ? "error: could not install *smartsocket* listener" : "");
    ASSERT_EQ(Init(adb.path()), 0);
    EXPECT_EQ(AdbStartDaemon(c.flag, 0), c.code);
    EXPECT_EQ(adb.Calls(), c.runs_adb ? "-P " + std::to_string(port) + " start-server\n" : "");
  }
  EXPECT_NE(ReadFile(log_path_).find("smartsocket"), std::string::npos) << "adb's own words";

  // Concurrent starts take turns.
  sim_adb::SimAdbServer server;
  UsePort(server.port());
  FakeAdbFolder adb;
  ASSERT_EQ(Init(adb.path()), 0);
  std::vector<int> results(3, -1);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < 3; ++i) {
    threads.emplace_back([&results, i] { results[i] = AdbStartDaemon(0, 0); });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(results, std::vector<int>(3, 0));
  const std::string line = "-P " + std::to_string(server.port()) + " start-server\n";
  EXPECT_EQ(adb.Calls(), line + line + line);
}

TEST_F(StartDaemonTest, RealServerStartsOnAPrivatePortAndAgainAfterKillServer) {
  if (sim_phone::PrivateAdbServer::FindAdb().empty()) GTEST_SKIP() << "adb is not installed";
  sim_phone::PrivateAdbServer server;  // port and HOME only; nothing runs yet
  server.ApplyToThisProcess();
  ASSERT_EQ(Init(folders_.path()), 0);  // no adb in the folder: Debian's on PATH

  char* list = nullptr;
  EXPECT_EQ(AdbGetDevicesEx(&list, nullptr, 0), TARNWELL_ERR_NO_SERVER);
  ASSERT_EQ(AdbStartDaemon(1, 0), 0) << ReadFile(log_path_);
  EXPECT_EQ(server.ServerProcesses().size(), 1u);
  ASSERT_EQ(AdbGetDevicesEx(&list, nullptr, 0), 0);
  AdbFreeResource(&list);
  // Asking again spawns nothing new.
  EXPECT_EQ(AdbStartDaemon(1, 0), 0);
  EXPECT_EQ(server.ServerProcesses().size(), 1u);

  server.KillServer();
  EXPECT_EQ(AdbGetDevicesEx(&list, nullptr, 0), TARNWELL_ERR_NO_SERVER);
  ASSERT_EQ(AdbStartDaemon(0, 0), 0) << ReadFile(log_path_);
  EXPECT_EQ(AdbGetDevicesEx(&list, nullptr, 0), 0);
  AdbFreeResource(&list);
}

}  // namespace
