// Runs a program to its end with a bound: posix_spawn, output collected through a pipe, the child
// reaped by its own pid (never another's) and killed when the deadline passes.
#pragma once

#include <string>
#include <vector>

#include "Deadline.h"

namespace tarnwell {

struct ProcessOutcome {
  bool started = false;    // false: the program could not be run at all (see error)
  bool timed_out = false;  // killed at the deadline
  int exit_code = -1;      // when it exited by itself; -1 after a signal
  std::string output;      // stdout and stderr together, as far as they came before the exit
  std::string error;
};

// How a child starts, besides its arguments and environment.
struct SpawnOptions {
  int input_fd = -1;               // its stdin; /dev/null when negative
  bool own_process_group = false;  // out of reach of a signal to this process's group
};

// argv[0] without a '/' is looked up on PATH. environment_overrides are "NAME=value" entries that
// replace or add to this process's environment for the child. The child starts with no signal
// blocked and every signal at its default action, whatever the caller set.
//
// The output is read while the child runs and only what is there when it exits is kept: a
// daemon the child leaves behind may hold the pipe open and must not make the caller wait.
ProcessOutcome RunProcess(const std::vector<std::string>& argv,
                          const std::vector<std::string>& environment_overrides,
                          const Deadline& deadline, const SpawnOptions& options = {});

// Looks a program name up on PATH; empty when not found or not executable.
std::string FindOnPath(const std::string& name);

}  // namespace tarnwell
