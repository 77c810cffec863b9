// pelmora-sim-phone: a simulated Android phone on a loopback port, for trying the monitor and
// libTarnwell against a real adb server without a phone. See --help.
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>

#include "Deadline.h"
#include "PrivateAdbServer.h"
#include "SimPhone.h"
#include "Subprocess.h"

namespace {

const char kUsage[] =
    "usage: pelmora-sim-phone [options]\n"
    "  --port N               listen on this loopback port (default: one the system picks)\n"
    "  --manufacturer TEXT    ro.product.manufacturer (default Pelmora)\n"
    "  --model TEXT           ro.product.model (default SimPhone)\n"
    "  --android-version TEXT ro.build.version.release (default 13)\n"
    "  --product TEXT         ro.product.name (default sim_product)\n"
    "  --device TEXT          ro.product.device (default sim_device)\n"
    "  --prop NAME=VALUE      one more property for getprop (repeatable)\n"
    "  --kind KIND            device, recovery, sideload, bootloader or rescue (default device)\n"
    "  --unauthorized         ask for authentication and accept no key until 'authorize'\n"
    "  --offline              never answer the host's connect (adb shows it offline)\n"
    "  --hung-shell           accept every shell and never answer it (a phone that hangs)\n"
    "  --connect              run 'adb connect' against $ANDROID_ADB_SERVER_PORT (or 5037)\n"
    "  --own-server           start a private adb server (temporary HOME, free port), print its\n"
    "                         port, connect to it, and kill it on exit\n"
    "Commands on stdin, one a line: authorize, leave, return, drop-on-open, keep-on-open, quit\n"
    "(the end of stdin quits too).\n"
    "Signals: SIGUSR1 authorize, SIGUSR2 leave, SIGINT/SIGTERM/SIGHUP quit.\n";

class CommandQueue {
 public:
  void Push(std::string command) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      commands_.push_back(std::move(command));
    }
    ready_.notify_one();
  }
  std::string Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [this] { return !commands_.empty(); });
    std::string command = commands_.front();
    commands_.pop_front();
    return command;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::string> commands_;
};

struct Options {
  sim_phone::PhoneConfig phone;
  bool connect = false;
  bool own_server = false;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string text;
    auto& phone = options->phone;
    if (flag == "--unauthorized") {
      phone.authorized = false;
    } else if (flag == "--offline") {
      phone.answer_connect = false;
    } else if (flag == "--hung-shell") {
      phone.shell_answers = false;
    } else if (flag == "--connect") {
      options->connect = true;
    } else if (flag == "--own-server") {
      options->own_server = options->connect = true;
    } else if (flag == "--port" && value(&text)) {
      long port = std::strtol(text.c_str(), nullptr, 10);
      if (port < 1 || port > 65535) return false;
      phone.port = static_cast<std::uint16_t>(port);
    } else if (flag == "--manufacturer" && value(&text)) {
      phone.manufacturer = text;
    } else if (flag == "--model" && value(&text)) {
      phone.model = text;
    } else if (flag == "--android-version" && value(&text)) {
      phone.android_version = text;
    } else if (flag == "--product" && value(&text)) {
      phone.product = text;
    } else if (flag == "--device" && value(&text)) {
      phone.device = text;
    } else if (flag == "--kind" && value(&text)) {
      phone.banner_kind = text;
    } else if (flag == "--prop" && value(&text) && text.find('=') != std::string::npos) {
      phone.extra_properties[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
    } else {
      return false;
    }
  }
  return true;
}

// adb against the port of the environment, or the private server when there is one.
void RunAdb(const sim_phone::PrivateAdbServer* server, const std::vector<std::string>& args) {
  tarnwell::ProcessOutcome run =
      server != nullptr ? server->Adb(args, 15000)
                        : tarnwell::RunProcess([&] {
                            std::vector<std::string> argv = {"adb"};
                            argv.insert(argv.end(), args.begin(), args.end());
                            return argv;
                          }(), {}, tarnwell::Deadline::AfterMs(15000));
  std::cout << (run.started ? run.output : run.error + "\n") << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::cerr << kUsage;
    return 2;
  }
  // Signals become commands on one thread of their own; every other thread has them blocked.
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGUSR1, SIGUSR2, SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, s);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::unique_ptr<sim_phone::PrivateAdbServer> server;
  if (options.own_server) {
    server = std::make_unique<sim_phone::PrivateAdbServer>();
    std::string why;
    if (!server->Start(&why)) {
      std::cerr << "cannot start a private adb server: " << why << "\n";
      return 1;
    }
    std::cout << "adb-server-port " << server->port() << "\n";
  }
  std::unique_ptr<sim_phone::SimPhone> phone;
  try {
    phone = std::make_unique<sim_phone::SimPhone>(options.phone);
  } catch (const std::exception& e) {
    std::cerr << e.what() << "\n";
    return 1;
  }
  std::cout << "port " << phone->port() << "\nserial " << phone->serial() << "\n" << std::flush;
  std::string target = phone->serial();
  if (options.connect) RunAdb(server.get(), {"connect", target});

  CommandQueue queue;
  std::thread([&queue, signals] {
    for (;;) {
      int s = 0;
      if (sigwait(&signals, &s) != 0) continue;
      queue.Push(s == SIGUSR1 ? "authorize" : s == SIGUSR2 ? "leave" : "quit");
    }
  }).detach();
  std::thread([&queue] {
    std::string line;
    while (std::getline(std::cin, line)) queue.Push(line);
    queue.Push("quit");  // whoever drove the phone has gone: so does the phone
  }).detach();

  for (;;) {
    std::string command = queue.Pop();
    if (command == "authorize") {
      phone->Authorize();
    } else if (command == "leave") {
      phone->Leave();
      if (options.connect) RunAdb(server.get(), {"disconnect", target});
    } else if (command == "return") {
      if (!phone->Return()) std::cout << "port " << phone->port() << " is taken\n";
      if (options.connect) RunAdb(server.get(), {"connect", target});
    } else if (command == "drop-on-open" || command == "keep-on-open") {
      phone->SetDropOnOpen(command == "drop-on-open");
    } else if (command == "quit") {
      break;
    } else if (!command.empty()) {
      std::cout << "unknown command: " << command << "\n";
      continue;
    }
    if (!command.empty()) std::cout << "ok " << command << "\n" << std::flush;
  }
  if (options.connect) RunAdb(server.get(), {"disconnect", target});
  phone.reset();
  server.reset();
  std::_Exit(0);  // the stdin and signal threads are still blocked; nothing else is left to do
}
