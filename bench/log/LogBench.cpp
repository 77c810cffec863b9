// LogEx lines per second from one and from four threads, into a real rotating file.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "Quenwick.h"

namespace {

const std::filesystem::path& LogFolder() {
  static const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("quenwick-bench-" + std::to_string(::getpid()));
  return folder;
}

void BM_LogEx(benchmark::State& state) {
  if (state.thread_index() == 0) {
    InitLogEx("", "Pelmora", (LogFolder() / "Pelmora.log").c_str());
  }
  for (auto _ : state) {
    LogEx("Pelmora", 1, "%s Enter... serial %s vid %hu pid %hu", "ListenThread", "0123456789ABCDEF",
          static_cast<unsigned short>(6353), static_cast<unsigned short>(20194));
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) std::filesystem::remove_all(LogFolder());
}
BENCHMARK(BM_LogEx)->Threads(1)->Threads(4)->UseRealTime();

}  // namespace
