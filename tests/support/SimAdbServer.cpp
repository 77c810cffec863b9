#include "SimAdbServer.h"

#include "LoopbackListener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace sim_adb {

namespace {

const char kUnauthorizedMessage[] =
    "device unauthorized.\n"
    "This adb server's $ADB_VENDOR_KEYS is not set\n"
    "Try 'adb kill-server' if that seems wrong.\n"
    "Otherwise check for a confirmation dialog on your device.";

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

std::string Hex4(std::size_t n) {
  char text[8];
  std::snprintf(text, sizeof text, "%04zx", n & 0xffff);
  return text;
}

struct SimAdbServer::Connection {
  posix::UniqueFd fd;
  int wake_fd = -1;
  std::string transport_serial;  // set once "host:transport:" was accepted
  std::atomic<bool> done{false};

  // Waits until the socket is readable; false when woken by Stop.
  bool WaitReadable() const {
    pollfd entries[2] = {{fd.get(), POLLIN, 0}, {wake_fd, POLLIN, 0}};
    for (;;) {
      int ready = ::poll(entries, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      return ready > 0 && entries[1].revents == 0;
    }
  }
  bool ReadExact(std::size_t n, std::string* out) const {
    out->assign(n, '\0');
    std::size_t have = 0;
    while (have < n) {
      if (!WaitReadable()) return false;
      ssize_t got = ::recv(fd.get(), &(*out)[have], n - have, 0);
      if (got <= 0) return false;
      have += static_cast<std::size_t>(got);
    }
    return true;
  }
  bool ReadRequest(std::string* service) const {
    std::string digits;
    if (!ReadExact(4, &digits)) return false;
    std::size_t length = std::strtoul(digits.c_str(), nullptr, 16);
    return ReadExact(length, service);
  }
  void Send(const std::string& bytes) const {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      ssize_t n = posix::SendNoSignal(fd.get(), bytes.data() + sent, bytes.size() - sent);
      if (n <= 0) return;
      sent += static_cast<std::size_t>(n);
    }
  }
  void SendFail(const std::string& message) const { Send("FAIL" + Hex4(message.size()) + message); }
  // Holds the connection until the peer closes it or Stop.
  void Hold() const {
    char sink[256];
    while (WaitReadable() && ::recv(fd.get(), sink, sizeof sink, 0) > 0) {
    }
  }
};

SimAdbServer::SimAdbServer() {
  if (!Listen(0)) throw std::runtime_error("simulated ADB server: cannot listen on loopback");
}

SimAdbServer::~SimAdbServer() { Stop(); }

bool SimAdbServer::Listen(std::uint16_t port) {
  auto listener = std::make_shared<sim_phone::LoopbackListener>(port, 64);
  if (!listener->ok()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  listener_ = listener;
  port_ = listener->port();
  stopping_ = false;
  acceptor_ = std::thread([this, listener] { AcceptLoop(*listener); });
  return true;
}

void SimAdbServer::Stop() {
  std::vector<Worker> workers;
  std::shared_ptr<sim_phone::LoopbackListener> listener;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (listener_ == nullptr) return;
    listener = listener_;
    stopping_ = true;
    workers.swap(workers_);
  }
  stopped_cv_.notify_all();
  listener->Wake();
  acceptor_.join();
  {
    // Connections accepted after the swap above.
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& w : workers_) workers.push_back(std::move(w));
    workers_.clear();
  }
  for (auto& w : workers) w.thread.join();
  std::lock_guard<std::mutex> lock(mutex_);
  listener_.reset();
}

bool SimAdbServer::Restart() {
  Stop();
  return Listen(port_);
}

void SimAdbServer::AcceptLoop(const sim_phone::LoopbackListener& listener) {
  for (;;) {
    posix::UniqueFd fd = listener.Accept();
    if (!fd.ok()) return;
    auto connection = std::make_shared<Connection>();
    connection->fd = std::move(fd);
    connection->wake_fd = listener.wake_fd();
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = workers_.begin(); it != workers_.end();) {
      if (it->connection->done) {
        it->thread.join();
        it = workers_.erase(it);
      } else {
        ++it;
      }
    }
    workers_.push_back({connection, std::thread([this, connection] { Serve(connection); })});
  }
}

void SimAdbServer::Serve(std::shared_ptr<Connection> connection) {
  std::string service;
  while (connection->ReadRequest(&service)) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (keep_requests_) requests_.push_back(service);
    }
    if (!Handle(*connection, service)) break;
  }
  connection->fd.reset();
  connection->done = true;
}

bool SimAdbServer::WaitUnlessStopped(int delay_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !stopped_cv_.wait_for(lock, std::chrono::milliseconds(delay_ms), [this] { return stopping_; });
}

Reaction SimAdbServer::ReactionFor(const std::string& service) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [prefix, reaction] : reactions_) {
    if (StartsWith(service, prefix)) return reaction;
  }
  return Reaction::Answer();
}

bool SimAdbServer::Handle(Connection& connection, const std::string& service) {
  Reaction reaction = ReactionFor(service);
  if (reaction.delay_ms > 0 && !WaitUnlessStopped(reaction.delay_ms)) return false;
  switch (reaction.kind) {
    case Reaction::Kind::kAnswer:
      return AnswerByDefault(connection, service);
    case Reaction::Kind::kFail:
      connection.SendFail(reaction.text);
      return false;
    case Reaction::Kind::kClose:
      return false;
    case Reaction::Kind::kSilent:
      connection.Hold();
      return false;
    case Reaction::Kind::kRaw:
      connection.Send(reaction.text);
      return false;
  }
  return false;
}

bool SimAdbServer::AnswerByDefault(Connection& connection, const std::string& service) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (service == "host:version") {
    lock.unlock();
    connection.Send("OKAY00040029");
    return false;
  }
  if (service == "host:devices") {
    std::string payload;
    for (const auto& d : devices_) payload += d.serial + "\t" + d.state + "\n";
    lock.unlock();
    connection.Send("OKAY" + Hex4(payload.size()) + payload);
    return false;
  }
  if (StartsWith(service, "host:transport:")) {
    std::string serial = service.substr(15);
    for (const auto& d : devices_) {
      if (d.serial != serial) continue;
      std::string state = d.state;
      lock.unlock();
      if (state == "device") {
        connection.transport_serial = serial;
        connection.Send("OKAY");
        return true;
      }
      connection.SendFail(state == "unauthorized" ? kUnauthorizedMessage : "device " + state);
      return false;
    }
    lock.unlock();
    connection.SendFail("device '" + serial + "' not found");
    return false;
  }
  if (StartsWith(service, "shell:") && !connection.transport_serial.empty()) {
    std::string printed;
    const std::string getprop = "shell:getprop ";
    if (StartsWith(service, getprop)) {
      for (const auto& d : devices_) {
        if (d.serial != connection.transport_serial) continue;
        auto found = d.properties.find(service.substr(getprop.size()));
        if (found != d.properties.end()) printed = found->second;
      }
      printed += "\n";
    }
    lock.unlock();
    connection.Send("OKAY" + printed);
    return false;
  }
  lock.unlock();
  connection.SendFail("unknown host service");
  return false;
}

void SimAdbServer::SetDevices(std::vector<Device> devices) {
  std::lock_guard<std::mutex> lock(mutex_);
  devices_ = std::move(devices);
}

void SimAdbServer::React(const std::string& service_prefix, Reaction reaction) {
  std::lock_guard<std::mutex> lock(mutex_);
  reactions_.emplace_back(service_prefix, std::move(reaction));
}

void SimAdbServer::ClearReactions() {
  std::lock_guard<std::mutex> lock(mutex_);
  reactions_.clear();
}

void SimAdbServer::KeepRequests(bool keep) {
  std::lock_guard<std::mutex> lock(mutex_);
  keep_requests_ = keep;
}

std::vector<std::string> SimAdbServer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int SimAdbServer::RequestCount(const std::string& service_prefix) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const auto& r : requests_) count += StartsWith(r, service_prefix) ? 1 : 0;
  return count;
}

}  // namespace sim_adb
