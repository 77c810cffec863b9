// A simulated Android phone: a device daemon on a loopback TCP port that speaks ADB's transport
// protocol (24-byte messages CNXN, AUTH, OPEN, OKAY, WRTE, CLSE), so that a real adb server
// attaches it with `adb connect 127.0.0.1:<port>` and its clients see a phone. It answers the
// shell's getprop (plain "shell:" and the framed "shell,v2,") from the properties it was given.
//
// Every method may be called from any thread while the phone runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim_phone {

class LoopbackListener;

struct PhoneConfig {
  std::string manufacturer = "Pelmora";
  std::string model = "SimPhone";
  std::string android_version = "13";
  std::string product = "sim_product";  // ro.product.name in the banner
  std::string device = "sim_device";    // ro.product.device in the banner
  std::map<std::string, std::string> extra_properties;
  // What the phone says it is in its banner: "device", or "recovery", "sideload", "bootloader",
  // "rescue", which adb shows as the state.
  std::string banner_kind = "device";
  bool authorized = true;       // false: asks for authentication and accepts no key
  bool answer_connect = true;   // false: never answers the host's CNXN (adb shows "offline")
  bool shell_answers = true;    // false: accepts every shell and never prints a byte (a hung phone)
  std::uint16_t port = 0;       // 0: the system picks one (never in adb's 5555-5585 probe range)
};

class SimPhone {
 public:
  explicit SimPhone(PhoneConfig config);  // listens at once; throws when it cannot
  ~SimPhone();
  SimPhone(const SimPhone&) = delete;
  SimPhone& operator=(const SimPhone&) = delete;

  std::uint16_t port() const { return port_; }
  // The serial adb gives a phone attached by `adb connect`.
  std::string serial() const { return "127.0.0.1:" + std::to_string(port_); }

  // Like a user tapping "Allow": every link waiting for authentication gets CNXN, and later
  // links are accepted at once.
  void Authorize();
  // Links drop as soon as the host opens a service (the host's client sees "closed").
  void SetDropOnOpen(bool drop);
  // Unplugged: the port closes and every link drops.
  void Leave();
  // Plugged in again on the same port; false when the port can no longer be had.
  bool Return();

  // Every service the host opened, in order ("shell:getprop ro.product.model", ...).
  std::vector<std::string> OpenedServices() const;
  // The properties getprop knows.
  std::map<std::string, std::string> Properties() const;

 private:
  struct Link;
  bool Listen(std::uint16_t port);
  void AcceptLoop(const LoopbackListener& listener);
  void Serve(const std::shared_ptr<Link>& link);
  void OnConnect(Link& link);
  void OnAuth(Link& link, std::uint32_t type);
  void OnOpen(Link& link, std::uint32_t host_id, const std::string& service);
  void SendBanner(Link& link);
  std::string Banner() const;

  const PhoneConfig config_;
  std::uint16_t port_ = 0;
  std::atomic<bool> authorized_;
  std::atomic<bool> drop_on_open_{false};

  mutable std::mutex mutex_;
  std::shared_ptr<LoopbackListener> listener_;  // null while the phone is away
  std::thread acceptor_;
  std::vector<std::shared_ptr<Link>> links_;
  std::vector<std::thread> link_threads_;
  std::vector<std::string> opened_;
  std::uint32_t next_local_id_ = 1;
};

}  // namespace sim_phone
