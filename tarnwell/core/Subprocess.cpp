#include "Subprocess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PosixCompat.h"

namespace tarnwell {

namespace {

// Slices for the wait loop: short enough to notice the child's exit quickly, long enough to cost
// nothing while a slow start-up runs.
constexpr int kReapSliceMs = 2;

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& overrides) {
  std::vector<std::string> merged;
  for (char** entry = posix::Environment(); entry != nullptr && *entry != nullptr; ++entry) {
    std::string text(*entry);
    std::string name = text.substr(0, text.find('='));
    bool replaced = false;
    for (const auto& o : overrides) replaced = replaced || o.compare(0, name.size() + 1, name + "=") == 0;
    if (!replaced) merged.push_back(std::move(text));
  }
  merged.insert(merged.end(), overrides.begin(), overrides.end());
  return merged;
}

std::vector<char*> PointerArray(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

void DrainAvailable(int fd, std::string* out) {
  char chunk[4096];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      out->append(chunk, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return;  // end of stream, or nothing more right now
  }
}

bool IsExecutableFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// Waits for the child, reading its output meanwhile, until it exits or the deadline passes.
void WaitForChild(pid_t pid, int output_fd, const Deadline& deadline, ProcessOutcome* outcome) {
  bool output_open = true;
  useconds_t backoff_us = 50;
  for (;;) {
    int status = 0;
    pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      if (output_open) DrainAvailable(output_fd, &outcome->output);
      outcome->exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      return;
    }
    if (done < 0 && errno != EINTR) {
      outcome->error = std::string("waitpid: ") + std::strerror(errno);
      return;
    }
    if (deadline.Expired()) {
      ::kill(pid, SIGKILL);
      while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      outcome->timed_out = true;
      return;
    }
    int slice = deadline.RemainingMs() < kReapSliceMs ? deadline.RemainingMs() : kReapSliceMs;
    if (output_open) {
      pollfd entry{output_fd, POLLIN, 0};
      if (::poll(&entry, 1, slice) > 0) {
        std::size_t before = outcome->output.size();
        DrainAvailable(output_fd, &outcome->output);
        // POLLHUP with nothing read: every writer is gone; stop polling the pipe.
        if (outcome->output.size() == before && (entry.revents & (POLLHUP | POLLERR))) output_open = false;
      }
    } else {
      // Usually the exit follows the pipe's close within microseconds; a child that closed its
      // output early and keeps running is polled less and less often.
      ::usleep(backoff_us);
      if (backoff_us < 5000) backoff_us *= 2;
    }
  }
}

}  // namespace

std::string FindOnPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return IsExecutableFile(name) ? name : std::string();
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string dir = dirs.substr(start, end - start);
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
    if (IsExecutableFile(candidate)) return candidate;
    start = end + 1;
  }
  return std::string();
}

ProcessOutcome RunProcess(const std::vector<std::string>& argv,
                          const std::vector<std::string>& environment_overrides,
                          const Deadline& deadline, const SpawnOptions& options) {
  ProcessOutcome outcome;
  if (argv.empty()) {
    outcome.error = "no program given";
    return outcome;
  }
  std::string program = FindOnPath(argv[0]);
  if (program.empty()) {
    outcome.error = argv[0] + ": not found or not executable";
    return outcome;
  }
  posix::Pipe output;
  if (!posix::OpenPipe(&output, posix::Blocking::kNo)) {
    outcome.error = std::string("pipe: ") + std::strerror(errno);
    return outcome;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (options.input_fd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, options.input_fd, STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDERR_FILENO);
  // The caller may block or ignore signals for itself (the monitor blocks SIGINT and SIGTERM to
  // wait for them, and ignores SIGPIPE); a child must not inherit that, or an adb server it
  // forks could not be stopped with kill.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, every;
  sigemptyset(&none);
  sigfillset(&every);
  sigdelset(&every, SIGKILL);
  sigdelset(&every, SIGSTOP);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &every);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (options.own_process_group) {
    flags |= POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setpgroup(&attributes, 0);  // a group of its own, led by the child
  }
  posix_spawnattr_setflags(&attributes, flags);

  std::vector<std::string> args = argv;
  std::vector<std::string> env = MergedEnvironment(environment_overrides);
  std::vector<char*> arg_pointers = PointerArray(args);
  std::vector<char*> env_pointers = PointerArray(env);
  pid_t pid = -1;
  int spawned = ::posix_spawn(&pid, program.c_str(), &actions, &attributes, arg_pointers.data(),
                              env_pointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  // Only the child may hold the write end now, so the pipe ends when it (and what it leaves) exits.
  output.write.reset();
  if (spawned != 0) {
    outcome.error = program + ": " + std::strerror(spawned);
    return outcome;
  }
  outcome.started = true;
  WaitForChild(pid, output.read.get(), deadline, &outcome);
  return outcome;
}

}  // namespace tarnwell
