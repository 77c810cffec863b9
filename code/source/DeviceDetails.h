// Device details (Android version, manufacturer, model), read from ADB off the poll thread: a
// phone that is slow to answer holds up neither the poll nor the other phones.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "DeviceInfo.h"

// How many of the three ADB texts a cache record holds.
int KnownAdbTexts(const DeviceInfo_& record);

class DetailReads {
 public:
  using Clock = std::chrono::steady_clock;
  // on_read_ended runs on a read's thread after its texts are ready to collect. retry_pause: how
  // long after a read that left texts missing the next one may start. inline_reads: each read runs
  // on the calling thread, within Start (tests that step polls by hand).
  DetailReads(std::function<void()> on_read_ended, std::chrono::milliseconds retry_pause, bool inline_reads);
  // Waits for the reads under way (each one is bounded by libTarnwell's time limits).
  ~DetailReads();
  DetailReads(const DetailReads&) = delete;
  DetailReads& operator=(const DetailReads&) = delete;

  // Starts a read of what the record lacks, unless one for key is under way or not collected yet,
  // or the last one for key ended with texts missing less than the retry pause ago.
  void Start(const std::string& key, const DeviceInfo_& record, Clock::time_point now);
  // Copies the texts of the reads that ended into the records still in the cache, and marks them
  // as read.
  void Collect(std::map<std::string, DeviceInfo_>& cache);

 private:
  struct Read {
    DeviceInfo_ texts;  // the record's copy: the read fills in what is missing
    bool ended = false;
    Clock::time_point ended_at;
    std::thread thread;
  };
  void Run(Read* read);

  const std::function<void()> on_read_ended_;
  const std::chrono::milliseconds retry_pause_;
  const bool inline_reads_;
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Read>> reads_;  // guarded by mutex_; ended ones until collected
  std::map<std::string, Clock::time_point> incomplete_;  // poll thread only: when a read left gaps
};
