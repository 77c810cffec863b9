// A simulated ADB server on a loopback port. By default it answers as adb does: "host:version",
// "host:devices", "host:transport:<serial>" (adb's FAIL unless a "device"), "shell:getprop <name>",
// "host:track-devices[-l]" (the list at once and on every SetDevices, changed or not, as adb sends
// it on every transport event). React() overrides that for services that start with a prefix.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sim_phone { class LoopbackListener; }

namespace sim_adb {

std::string Hex4(std::size_t n);  // a length as the protocol frames it

struct Reaction {
  enum class Kind {
    kAnswer,  // the default behaviour above
    kSilent,  // keep the connection open and never answer (until Stop or the peer closes)
    kRaw,     // send `text` as it is, then close: cut or malformed replies ("" closes at once)
  };
  Kind kind = Kind::kAnswer;
  std::string text;

  static Reaction Answer() { return {Kind::kAnswer, ""}; }
  static Reaction Silent() { return {Kind::kSilent, ""}; }
  static Reaction Raw(std::string bytes) { return {Kind::kRaw, std::move(bytes)}; }
  static Reaction Fail(const std::string& message) { return Raw("FAIL" + Hex4(message.size()) + message); }
};

struct Device {
  std::string serial;
  std::string state;  // "device", "offline", "unauthorized", ...
  std::map<std::string, std::string> properties;
};

class SimAdbServer {
 public:
  SimAdbServer();  // on 127.0.0.1, at a port the system picks
  ~SimAdbServer() { Stop(); }

  std::uint16_t port() const { return port_; }

  // Closes the port and every open connection, like a killed server. Stop is for one controlling
  // thread; everything else may be called from any thread.
  void Stop();

  void SetDevices(std::vector<Device> devices) {
    Locked([&] { devices_ = std::move(devices); lists_.push_back(ListPayload()); });
    tracking_.notify_all();
  }
  // Closes every tracking stream, as a server that goes away does; other requests are answered.
  void EndTracking() {
    Locked([&] { ++tracking_epoch_; });
    tracking_.notify_all();
  }
  void React(const std::string& service_prefix, Reaction reaction) {
    Locked([&] { reactions_.emplace_back(service_prefix, std::move(reaction)); });
  }
  void ClearReactions() { Locked([&] { reactions_.clear(); }); }

  // How many services were received.
  int RequestCount() const { return Locked([&] { return requests_; }); }

 private:
  template <typename Body>
  auto Locked(Body body) const -> decltype(body()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return body();
  }
  struct Connection;
  void Serve(Connection& connection);
  bool Handle(Connection& connection, const std::string& service);  // false: the connection ends
  std::string ListPayload() const;  // under mutex_
  void Track(Connection& connection);

  mutable std::mutex mutex_;
  std::vector<Device> devices_;
  std::vector<std::pair<std::string, Reaction>> reactions_;
  int requests_ = 0;
  std::vector<std::string> lists_;  // the payload after each SetDevices, for the tracking streams
  int tracking_epoch_ = 0;  // EndTracking calls
  bool stopping_ = false;
  std::condition_variable tracking_;

  // Touched by the controlling thread only (workers_ also by the acceptor, under mutex_).
  std::uint16_t port_ = 0;
  std::shared_ptr<sim_phone::LoopbackListener> listener_;  // woken by Stop so blocked threads return
  std::thread acceptor_;
  std::vector<std::pair<std::shared_ptr<Connection>, std::thread>> workers_;
};

}  // namespace sim_adb
