// What one report costs the monitor on the main thread: the JSON line, and the table update with
// its rendering, for a report of ten devices written as the library writes it.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <string>

#include "DeviceTable.h"
#include "JsonLines.h"
#include "TableRenderer.h"

namespace {

std::string TenDeviceReport(const char* from, const char* to) {
  Json::Value root;
  for (int i = 0; i < 10; ++i) {
    Json::Value entry;
    entry["key_serial"] = "r58m30abc" + std::to_string(i);
    entry["actual_serial"] = "R58M30ABC" + std::to_string(i);
    entry["old_status"] = from;
    entry["new_status"] = to;
    entry["vid_manufacturer"] = "SAMSUNG";
    entry["os_version"] = "14";
    entry["model"] = "SM-G991B";
    entry["manufacturer"] = "samsung";
    entry["vid"] = 1256u;
    entry["pid"] = 26720u;
    entry["adb_error_code"] = 0;
    root["changed"].append(entry);
  }
  Json::StreamWriterBuilder builder;
  builder["commentStyle"] = "None";
  builder["indentation"] = "   ";
  return Json::writeString(builder, root);
}

void BM_JsonLine(benchmark::State& state) {
  const std::string report = TenDeviceReport("NotConnect", "AuthoredConnect");
  std::string line, error;
  for (auto _ : state) {
    benchmark::DoNotOptimize(monitor::ToJsonLine(report, &line, &error));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * report.size()));
}
BENCHMARK(BM_JsonLine);

void BM_TableApplyAndRender(benchmark::State& state) {
  const std::string arrive = TenDeviceReport("NotConnect", "AuthoredConnect");
  const std::string change = TenDeviceReport("AuthoredConnect", "OfflineConnect");
  monitor::DeviceTable table;
  std::string error;
  bool flip = false;
  for (auto _ : state) {
    table.Apply((flip = !flip) ? arrive : change, &error);
    benchmark::DoNotOptimize(monitor::RenderTable(table, {true, "pelmora-monitor  12:00:00"}));
  }
}
BENCHMARK(BM_TableApplyAndRender);

}  // namespace
