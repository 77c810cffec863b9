#include "SimPhone.h"

#include "LoopbackListener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace sim_phone {

namespace {

constexpr std::uint32_t kSync = 0x434e5953;
constexpr std::uint32_t kCnxn = 0x4e584e43;
constexpr std::uint32_t kAuth = 0x48545541;
constexpr std::uint32_t kOpen = 0x4e45504f;
constexpr std::uint32_t kOkay = 0x59414b4f;
constexpr std::uint32_t kClse = 0x45534c43;
constexpr std::uint32_t kWrte = 0x45545257;

constexpr std::uint32_t kAuthToken = 1;
constexpr std::uint32_t kAuthSignature = 2;
constexpr std::uint32_t kProtocolVersion = 0x01000001;
constexpr std::uint32_t kMaxData = 256 * 1024;
constexpr std::size_t kHeaderSize = 24;
constexpr std::uint32_t kTooLarge = 16 * 1024 * 1024;

// Framed shell (shell,v2) packet ids.
constexpr char kShellStdout = 1;
constexpr char kShellStderr = 2;
constexpr char kShellExit = 3;

void PutWord(std::string* out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

std::uint32_t GetWord(const unsigned char* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::string ShellPacket(char id, const std::string& data) {
  std::string packet(1, id);
  PutWord(&packet, static_cast<std::uint32_t>(data.size()));
  return packet + data;
}

struct Message {
  std::uint32_t command = 0, arg0 = 0, arg1 = 0;
  std::string data;
};

}  // namespace

struct SimPhone::Link {
  posix::UniqueFd fd;
  std::mutex write_mutex;
  std::uint32_t host_max_data = 4096;
  bool waiting_for_user = false;  // guarded by SimPhone::mutex_
  bool connected = false;         // guarded by SimPhone::mutex_
  // Streams whose last WRTE waits for the host's OKAY before the phone closes them.
  std::map<std::uint32_t, std::uint32_t> closing_after_ack;  // local id -> host id

  bool ReadExact(void* buffer, std::size_t n) {
    auto* p = static_cast<char*>(buffer);
    while (n > 0) {
      ssize_t got = ::recv(fd.get(), p, n, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      p += got;
      n -= static_cast<std::size_t>(got);
    }
    return true;
  }
  bool Receive(Message* message) {
    unsigned char header[kHeaderSize];
    if (!ReadExact(header, sizeof header)) return false;
    message->command = GetWord(header);
    message->arg0 = GetWord(header + 4);
    message->arg1 = GetWord(header + 8);
    std::uint32_t length = GetWord(header + 12);
    if (GetWord(header + 20) != (message->command ^ 0xffffffffu) || length > kTooLarge) return false;
    message->data.assign(length, '\0');
    return length == 0 || ReadExact(message->data.data(), length);
  }
  void Send(std::uint32_t command, std::uint32_t arg0, std::uint32_t arg1,
            const std::string& data = std::string()) {
    std::uint32_t sum = 0;
    for (unsigned char c : data) sum += c;
    std::string bytes;
    PutWord(&bytes, command);
    PutWord(&bytes, arg0);
    PutWord(&bytes, arg1);
    PutWord(&bytes, static_cast<std::uint32_t>(data.size()));
    PutWord(&bytes, sum);
    PutWord(&bytes, command ^ 0xffffffffu);
    bytes += data;
    std::lock_guard<std::mutex> lock(write_mutex);
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      ssize_t n = posix::SendNoSignal(fd.get(), bytes.data() + sent, bytes.size() - sent);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      sent += static_cast<std::size_t>(n);
    }
  }
};

SimPhone::SimPhone(PhoneConfig config) : config_(std::move(config)), authorized_(config_.authorized) {
  if (!Listen(config_.port)) throw std::runtime_error("simulated phone: cannot listen on loopback");
}

SimPhone::~SimPhone() { Leave(); }

bool SimPhone::Listen(std::uint16_t port) {
  auto listener = std::make_shared<LoopbackListener>(port, 16);
  if (!listener->ok()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  listener_ = listener;
  port_ = listener->port();
  acceptor_ = std::thread([this, listener] { AcceptLoop(*listener); });
  return true;
}

void SimPhone::Leave() {
  std::shared_ptr<LoopbackListener> listener;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    listener.swap(listener_);
    if (listener == nullptr) return;
    listener->Wake();
  }
  acceptor_.join();
  std::vector<std::thread> threads;
  std::vector<std::shared_ptr<Link>> links;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& link : links_) ::shutdown(link->fd.get(), SHUT_RDWR);
    threads.swap(link_threads_);
    links.swap(links_);
  }
  // Joined without the lock: a link thread may be taking it to finish its message.
  for (auto& t : threads) t.join();
}

bool SimPhone::Return() {
  Leave();
  return Listen(port_);
}

void SimPhone::AcceptLoop(const LoopbackListener& listener) {
  for (;;) {
    posix::UniqueFd fd = listener.Accept();
    if (!fd.ok()) return;
    // Each message goes out as its own small write; Nagle would hold the second one back for
    // the host's delayed ACK (40 ms), as adbd avoids too.
    int one = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto link = std::make_shared<Link>();
    link->fd = std::move(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    if (listener_ == nullptr) return;
    links_.push_back(link);
    link_threads_.emplace_back([this, link] { Serve(link); });
  }
}

void SimPhone::Serve(const std::shared_ptr<Link>& link) {
  Message message;
  while (link->Receive(&message)) {
    switch (message.command) {
      case kCnxn:
        link->host_max_data = message.arg1 == 0 ? 4096 : message.arg1;
        OnConnect(*link);
        break;
      case kAuth:
        OnAuth(*link, message.arg0);
        break;
      case kOpen: {
        std::string service = message.data.substr(0, message.data.find('\0'));
        OnOpen(*link, message.arg0, service);
        if (drop_on_open_) {
          ::shutdown(link->fd.get(), SHUT_RDWR);
          return;
        }
        break;
      }
      case kOkay: {
        auto pending = link->closing_after_ack.find(message.arg1);
        if (pending != link->closing_after_ack.end()) {
          link->Send(kClse, pending->first, pending->second);
          link->closing_after_ack.erase(pending);
        }
        break;
      }
      case kWrte:  // input to a shell that reads none: acknowledge and drop it
        link->Send(kOkay, message.arg1, message.arg0);
        break;
      case kClse:
        link->closing_after_ack.erase(message.arg1);
        break;
      case kSync:
      default:
        break;
    }
  }
}

std::string SimPhone::Banner() const {
  return config_.banner_kind + "::ro.product.name=" + config_.product +
         ";ro.product.model=" + config_.model + ";ro.product.device=" + config_.device +
         ";features=shell_v2,cmd";
}

void SimPhone::SendBanner(Link& link) {
  link.Send(kCnxn, kProtocolVersion, kMaxData, Banner());
}

void SimPhone::OnConnect(Link& link) {
  if (!config_.answer_connect) return;
  if (authorized_) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      link.connected = true;
    }
    SendBanner(link);
    return;
  }
  static thread_local std::mt19937 random(std::random_device{}());
  std::string token(20, '\0');
  for (char& c : token) c = static_cast<char>(random() & 0xff);
  link.Send(kAuth, kAuthToken, 0, token);
}

void SimPhone::OnAuth(Link& link, std::uint32_t type) {
  if (authorized_) {
    OnConnect(link);
    return;
  }
  if (type == kAuthSignature) {
    OnConnect(link);  // every signature is refused: ask again with a new token
    return;
  }
  // The host offered its public key: now it is up to the user (Authorize).
  std::lock_guard<std::mutex> lock(mutex_);
  link.waiting_for_user = true;
}

void SimPhone::Authorize() {
  authorized_ = true;
  std::vector<std::shared_ptr<Link>> waiting;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& link : links_) {
      if (link->waiting_for_user && !link->connected) {
        link->waiting_for_user = false;
        link->connected = true;
        waiting.push_back(link);
      }
    }
  }
  for (auto& link : waiting) SendBanner(*link);
}

void SimPhone::SetDropOnOpen(bool drop) { drop_on_open_ = drop; }

std::map<std::string, std::string> SimPhone::Properties() const {
  std::map<std::string, std::string> properties = {
      {"ro.product.manufacturer", config_.manufacturer},
      {"ro.product.model", config_.model},
      {"ro.build.version.release", config_.android_version},
      {"ro.product.name", config_.product},
      {"ro.product.device", config_.device},
  };
  for (const auto& [name, value] : config_.extra_properties) properties[name] = value;
  return properties;
}

void SimPhone::OnOpen(Link& link, std::uint32_t host_id, const std::string& service) {
  std::uint32_t local_id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    opened_.push_back(service);
    local_id = next_local_id_++;
  }
  if (drop_on_open_) return;
  bool framed = service.rfind("shell,", 0) == 0;
  if (!framed && service.rfind("shell:", 0) != 0) {
    link.Send(kClse, 0, host_id);  // a service this phone does not offer
    return;
  }
  if (!config_.shell_answers) {
    link.Send(kOkay, local_id, host_id);  // the stream opens, and nothing ever comes through it
    return;
  }
  std::istringstream words(service.substr(service.find(':') + 1));
  std::string program, name;
  words >> program >> name;
  std::string out, err;
  int exit_code = 0;
  if (program == "getprop") {
    auto properties = Properties();
    if (name.empty()) {
      for (const auto& [key, value] : properties) out += "[" + key + "]: [" + value + "]\n";
    } else {
      auto found = properties.find(name);
      out = (found != properties.end() ? found->second : std::string()) + "\n";
    }
  } else if (!program.empty()) {
    err = "/system/bin/sh: " + program + ": inaccessible or not found\n";
    exit_code = 127;
  }
  std::string payload = out + err;
  if (framed) {
    payload.clear();
    if (!out.empty()) payload += ShellPacket(kShellStdout, out);
    if (!err.empty()) payload += ShellPacket(kShellStderr, err);
    payload += ShellPacket(kShellExit, std::string(1, static_cast<char>(exit_code)));
  }
  link.Send(kOkay, local_id, host_id);
  std::size_t limit = link.host_max_data < kMaxData ? link.host_max_data : kMaxData;
  if (payload.empty()) {
    link.Send(kClse, local_id, host_id);
    return;
  }
  // One WRTE is enough for anything getprop prints; longer output is cut to the host's limit.
  link.Send(kWrte, local_id, host_id, payload.substr(0, limit));
  link.closing_after_ack[local_id] = host_id;
}

std::vector<std::string> SimPhone::OpenedServices() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return opened_;
}

}  // namespace sim_phone
