// The main of a benchmark program that plays USB devices under umockdev.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Quenwick.h"
#include "UsbTestLists.h"
#include "UsbTestbed.h"

// Re-runs the program under umockdev's preload library when it is not loaded yet (it must be
// there before the process starts), then runs the benchmarks with the test filter lists and a log
// in a folder of its own. real_sysfs_for_children: processes started from here (adb) see the
// machine's /sys and /dev, not the testbed's.
inline int RunBenchmarksUnderUmockdev(int argc, char** argv, const char* name, bool real_sysfs_for_children) {
  if (!UmockdevPreloaded()) {
    ::setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
    ::execv("/proc/self/exe", argv);
    std::perror("re-running under umockdev");
    return 1;
  }
  if (real_sysfs_for_children) ::unsetenv("LD_PRELOAD");
  LoadUsbTestFilterLists();
  const auto log_dir = std::filesystem::temp_directory_path() / (std::string(name) + "-" + std::to_string(::getpid()));
  std::filesystem::create_directories(log_dir);
  InitLogEx(log_dir.c_str(), "Pelmora", (log_dir / "Pelmora.log").c_str());
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(log_dir);
  return 0;
}
