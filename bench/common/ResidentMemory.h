// The process's resident memory, for the programs in bench/ that watch it grow.
#pragma once

#include <unistd.h>

#include <cstdio>

// Resident set in KiB from /proc/self/statm; -1 where the system has no /proc.
inline long ResidentKiB() {
  long pages_total = 0, pages_resident = 0;
  FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  if (std::fscanf(statm, "%ld %ld", &pages_total, &pages_resident) != 2) pages_resident = -1;
  std::fclose(statm);
  return pages_resident < 0 ? -1 : pages_resident * (sysconf(_SC_PAGESIZE) / 1024);
}
