// The library as a host application uses it: loaded with dlopen, its four functions looked up by
// name, and a host callback that keeps every report entry it is given.
#pragma once

#include <json/json.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Pelmora.h"

struct PelmoraApi {
  void* handle = nullptr;
  decltype(&InitPelmora) init = nullptr;
  decltype(&StartAdbServer) start_adb = nullptr;
  decltype(&StartListenAndroidDevice) start = nullptr;
  decltype(&StopListenAndroidDevice) stop = nullptr;

  // dlopen of the built library and the four symbols; false (dlerror() says why) on failure.
  bool Load();
};

namespace host_reports {

// The host callback: parses the report and keeps its entries; -1 for a text that is not JSON.
int Callback(const char* report, int length);

// Every entry received so far, in order.
std::vector<Json::Value> Entries();

// The first entry, received so far or within the limit, that matches; null when none did.
Json::Value WaitFor(const std::function<bool(const Json::Value&)>& match,
                    std::chrono::milliseconds limit = std::chrono::seconds(15));

}  // namespace host_reports
