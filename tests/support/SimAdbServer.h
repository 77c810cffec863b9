// A simulated ADB server: a thread on a loopback port that speaks the host protocol with
// scripted answers, so that every path of an ADB client (and of whatever polls through one) has
// a fast, deterministic test. Safe to script from any thread while it serves.
//
// By default it answers like adb does: "host:version" with 0x29, "host:devices" with the scripted
// list, "host:transport:<serial>" with OKAY for a listed "device" (FAIL "device offline",
// "device unauthorized..." or "device '<serial>' not found" otherwise), and after a transport
// "shell:getprop <name>" with the scripted value and "\n", then end of stream.
// React() overrides that for services that start with a given prefix.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sim_phone {
class LoopbackListener;
}  // namespace sim_phone

namespace sim_adb {

struct Reaction {
  enum class Kind {
    kAnswer,  // the default behaviour above
    kFail,    // FAIL with `text` as the message, then close
    kClose,   // close without a byte
    kSilent,  // keep the connection open and never answer (until Stop or the peer closes)
    kRaw,     // send `text` as it is, then close (cut or malformed replies)
  };
  Kind kind = Kind::kAnswer;
  std::string text;
  int delay_ms = 0;  // waited before reacting (cut short by Stop)

  static Reaction Answer(int delay_ms = 0) { return {Kind::kAnswer, "", delay_ms}; }
  static Reaction Fail(std::string message) { return {Kind::kFail, std::move(message), 0}; }
  static Reaction Close() { return {Kind::kClose, "", 0}; }
  static Reaction Silent() { return {Kind::kSilent, "", 0}; }
  static Reaction Raw(std::string bytes) { return {Kind::kRaw, std::move(bytes), 0}; }
};

// A length as the protocol frames it: four hexadecimal digits.
std::string Hex4(std::size_t n);

struct Device {
  std::string serial;
  std::string state;  // "device", "offline", "unauthorized", ...
  std::map<std::string, std::string> properties;
};

class SimAdbServer {
 public:
  // Listens on 127.0.0.1 at a port the system picks.
  SimAdbServer();
  ~SimAdbServer();
  SimAdbServer(const SimAdbServer&) = delete;
  SimAdbServer& operator=(const SimAdbServer&) = delete;

  std::uint16_t port() const { return port_; }

  // Closes the port and every open connection, like a killed server. Stop and Restart are for
  // one controlling thread; everything else may be called from any thread.
  void Stop();
  // Listens again on the same port; false when the port can no longer be had.
  bool Restart();

  void SetDevices(std::vector<Device> devices);
  void React(const std::string& service_prefix, Reaction reaction);
  void ClearReactions();

  // Every service text received, in order; Requests() stays empty after KeepRequests(false), so
  // that a long run holds no growing record.
  std::vector<std::string> Requests() const;
  void KeepRequests(bool keep);
  int RequestCount(const std::string& service_prefix) const;

 private:
  struct Connection;
  bool Listen(std::uint16_t port);
  void AcceptLoop(const sim_phone::LoopbackListener& listener);
  void Serve(std::shared_ptr<Connection> connection);
  // Returns false when the connection is finished.
  bool Handle(Connection& connection, const std::string& service);
  bool AnswerByDefault(Connection& connection, const std::string& service);
  Reaction ReactionFor(const std::string& service) const;
  bool WaitUnlessStopped(int delay_ms);

  mutable std::mutex mutex_;
  std::condition_variable stopped_cv_;
  std::vector<Device> devices_;
  std::vector<std::pair<std::string, Reaction>> reactions_;
  std::vector<std::string> requests_;
  bool keep_requests_ = true;

  std::uint16_t port_ = 0;
  std::shared_ptr<sim_phone::LoopbackListener> listener_;  // woken by Stop so blocked threads return
  bool stopping_ = false;
  std::thread acceptor_;
  struct Worker {
    std::shared_ptr<Connection> connection;
    std::thread thread;
  };
  std::vector<Worker> workers_;  // finished ones are joined as new connections come
};

}  // namespace sim_adb
