#include "SimAdbServer.h"

#include "LoopbackListener.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <stdexcept>

namespace sim_adb {

const char kUnauthorizedMessage[] =
    "device unauthorized.\nThis adb server's $ADB_VENDOR_KEYS is not set\nTry 'adb kill-server' if "
    "that seems wrong.\nOtherwise check for a confirmation dialog on your device.";

std::string Hex4(std::size_t n) {
  char text[8];
  std::snprintf(text, sizeof text, "%04zx", n & 0xffff);
  return text;
}

struct SimAdbServer::Connection {
  posix::UniqueFd fd;
  int wake_fd = -1;
  std::optional<Device> device;  // the one "host:transport:" switched to
  std::atomic<bool> done{false};

  // False when woken by Stop or when the peer closes first.
  bool ReadExact(std::size_t n, std::string* out) const {
    out->assign(n, '\0');
    for (std::size_t have = 0; have < n;) {
      pollfd entries[2] = {{fd.get(), POLLIN, 0}, {wake_fd, POLLIN, 0}};
      const int ready = ::poll(entries, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0 || entries[1].revents != 0) return false;
      const ssize_t got = ::recv(fd.get(), &(*out)[have], n - have, 0);
      if (got <= 0) return false;
      have += static_cast<std::size_t>(got);
    }
    return true;
  }
  // A blocking socket takes a whole reply in one call; a peer that left gets nothing.
  bool Send(const std::string& bytes) const {
    return posix::SendNoSignal(fd.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
};

SimAdbServer::SimAdbServer() {
  auto listener = std::make_shared<sim_phone::LoopbackListener>(0, 64);
  if (!listener->ok()) throw std::runtime_error("simulated ADB server: cannot listen on loopback");
  listener_ = listener;
  port_ = listener->port();
  acceptor_ = std::thread([this, listener] {
    for (posix::UniqueFd fd = listener->Accept(); fd.ok(); fd = listener->Accept()) {
      auto connection = std::make_shared<Connection>();
      connection->fd = std::move(fd);
      connection->wake_fd = listener->wake_fd();
      std::lock_guard<std::mutex> lock(mutex_);
      // Finished connections are joined here, so that a long run holds no growing list.
      for (auto it = workers_.begin(); it != workers_.end();) {
        it = it->first->done ? (it->second.join(), workers_.erase(it)) : std::next(it);
      }
      workers_.emplace_back(connection, std::thread([this, connection] { Serve(*connection); }));
    }
  });
}

void SimAdbServer::Stop() {
  if (listener_ == nullptr) return;
  Locked([&] { stopping_ = true; });
  tracking_.notify_all();
  listener_->Wake();
  acceptor_.join();
  // The acceptor is gone, so nothing else touches workers_ now.
  for (auto& worker : workers_) worker.second.join();
  workers_.clear();
  listener_.reset();
}

void SimAdbServer::Serve(Connection& connection) {
  std::string digits, service;
  while (connection.ReadExact(4, &digits) &&
         connection.ReadExact(std::strtoul(digits.c_str(), nullptr, 16), &service) &&
         Handle(connection, service)) {}
  connection.fd.reset();
  connection.done = true;
}

bool SimAdbServer::Handle(Connection& connection, const std::string& service) {
  const Reaction reaction = Locked([&] {
    ++requests_;
    const auto scripted = std::find_if(reactions_.begin(), reactions_.end(),
                                       [&](const auto& r) { return service.rfind(r.first, 0) == 0; });
    return scripted == reactions_.end() ? Reaction() : scripted->second;
  });
  if (reaction.kind == Reaction::Kind::kSilent) {
    for (std::string held; connection.ReadExact(1, &held);) {}
    return false;
  }
  if (reaction.kind == Reaction::Kind::kRaw) {
    connection.Send(reaction.text);
    return false;
  }
  const std::string transport = "host:transport:";
  const std::string getprop = "shell:getprop ";
  if (service == "host:version") {
    connection.Send("OKAY00040029");
  } else if (service == "host:devices") {
    const std::string payload = Locked([&] { return ListPayload(); });
    connection.Send("OKAY" + Hex4(payload.size()) + payload);
  } else if (service == "host:track-devices" || service == "host:track-devices-l") {
    Track(connection);
  } else if (service.rfind(transport, 0) == 0) {
    const std::string serial = service.substr(transport.size());
    std::optional<Device> device;
    Locked([&] { for (const Device& d : devices_) device = d.serial == serial ? d : device; });
    if (device && device->state == "device") {
      connection.device = device;
      connection.Send("OKAY");
      return true;
    }
    connection.Send(Reaction::Fail(!device                          ? "device '" + serial + "' not found"
                                   : device->state == "unauthorized" ? kUnauthorizedMessage
                                                                     : "device " + device->state).text);
  } else if (service.rfind(getprop, 0) == 0 && connection.device) {
    const auto& properties = connection.device->properties;
    const auto found = properties.find(service.substr(getprop.size()));
    connection.Send("OKAY" + (found == properties.end() ? std::string() : found->second) + "\n");
  } else {
    connection.Send(Reaction::Fail("unknown host service").text);
  }
  return false;
}

std::string SimAdbServer::ListPayload() const {
  std::string payload;
  for (const auto& d : devices_) payload += d.serial + "\t" + d.state + "\n";
  return payload;
}

// The list now and after every SetDevices, a frame each, until EndTracking, Stop or the peer leaves.
void SimAdbServer::Track(Connection& connection) {
  std::unique_lock<std::mutex> lock(mutex_);
  const int epoch = tracking_epoch_;
  std::string frames = "OKAY" + Hex4(ListPayload().size()) + ListPayload();
  for (size_t sent = lists_.size();; sent = lists_.size()) {
    lock.unlock();
    if (!connection.Send(frames)) return;
    lock.lock();
    tracking_.wait(lock, [&] { return lists_.size() != sent || tracking_epoch_ != epoch || stopping_; });
    frames.clear();
    for (size_t i = sent; i < lists_.size(); ++i) frames += Hex4(lists_[i].size()) + lists_[i];
    if (frames.empty()) return;  // ended or stopped, with nothing left to send
  }
}

}  // namespace sim_adb
