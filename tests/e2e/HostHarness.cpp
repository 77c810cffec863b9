#include "HostHarness.h"

#include <dlfcn.h>

#include <condition_variable>
#include <mutex>
#include <sstream>

bool PelmoraApi::Load() {
  handle = dlopen(PELMORA_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return false;
  init = reinterpret_cast<decltype(init)>(dlsym(handle, "InitPelmora"));
  start_adb = reinterpret_cast<decltype(start_adb)>(dlsym(handle, "StartAdbServer"));
  start = reinterpret_cast<decltype(start)>(dlsym(handle, "StartListenAndroidDevice"));
  stop = reinterpret_cast<decltype(stop)>(dlsym(handle, "StopListenAndroidDevice"));
  return init && start_adb && start && stop;
}

namespace host_reports {

namespace {
// Written on the library's poll thread, read on the test's thread.
std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<Json::Value> g_entries;
}  // namespace

int Callback(const char* report, int length) {
  Json::CharReaderBuilder builder;
  Json::Value root;
  std::string errors;
  std::istringstream in(std::string(report, static_cast<size_t>(length)));
  if (!Json::parseFromStream(builder, in, &root, &errors)) return -1;
  std::lock_guard<std::mutex> lock(g_mutex);
  for (const Json::Value& entry : root["changed"]) g_entries.push_back(entry);
  g_changed.notify_all();
  return 0;
}

std::vector<Json::Value> Entries() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_entries;
}

Json::Value WaitFor(const std::function<bool(const Json::Value&)>& match,
                    std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(g_mutex);
  Json::Value found;
  g_changed.wait_for(lock, limit, [&] {
    for (const Json::Value& entry : g_entries) {
      if (match(entry)) {
        found = entry;
        return true;
      }
    }
    return false;
  });
  return found;
}

}  // namespace host_reports
