// The USB watcher on the Linux source, against devices simulated by umockdev.
//
// BM_UeventToTableEntry: from sending an "add" uevent to the device's entry in the table: the
// udev monitor, the serial and descriptor reads, two string descriptors and the validity check
// (the device's IDs are accepted by the lists, so ADB is not asked). Median and 99th percentile
// over 1,000 add/remove cycles, for the default way (the kernel's strings in sysfs) and for
// strings by control transfer on the device node (a device whose strings sysfs lacks).
//
// BM_PlugUnplugMemory: resident memory after 10,000 add/remove cycles against the figure after
// the first 1,000: any record, udev device or descriptor kept per cycle would show as growth.
//
// BM_EmulatedNodeMemory: the same count of string transfers as the control-transfer cycles (two
// per cycle), as bare open, ioctl and close on the emulated node, without the watcher. umockdev
// answers the ioctls inside this process and keeps a little per connection: this is the growth
// that BM_PlugUnplugMemory/1 shows without any of its own.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "ListenDeviceChangeMac.h"
#include "../common/ResidentMemory.h"
#include "Quenwick.h"
#include "UsbTestLists.h"
#include "UsbTestbed.h"
#include "../common/UmockdevMain.h"

namespace {

using Clock = std::chrono::steady_clock;

ListenDeviceChangeMac* Watcher() {
  return static_cast<ListenDeviceChangeMac*>(GetListenDeviceChangeMacInstance());
}

bool HasEntry(bool wanted) {
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while ((Watcher()->CopyUSBDeviceMap().count("bench-phone") == 1) != wanted) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// With a node, sysfs lacks the strings, so that both go to the device by control transfer.
SimulatedUsbDevice BenchPhone(bool with_node) {
  SimulatedUsbDevice device;
  device.number = 9;
  device.serial = "bench-phone";
  device.vid = kAndroidVid;
  device.pid = kPlainPid;
  if (!with_node) device.sysfs_manufacturer = "Acme";
  if (!with_node) device.sysfs_product = "Bench Phone";
  device.has_node = with_node;
  device.strings[1] = u"Acme";
  device.strings[2] = u"Bench Phone";
  return device;
}

// One add/remove cycle; returns the time from the "add" uevent to the table entry.
double CycleMicroseconds(UsbTestbed& testbed, const std::string& syspath, benchmark::State& state) {
  const auto start = Clock::now();
  testbed.SendUevent(syspath, "add");
  if (!HasEntry(true)) state.SkipWithError("entry did not appear");
  const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  testbed.SendUevent(syspath, "remove");
  if (!HasEntry(false)) state.SkipWithError("entry did not go");
  return us;
}

void BM_UeventToTableEntry(benchmark::State& state) {
  const bool with_node = state.range(0) != 0;
  for (auto _ : state) {
    UsbTestbed testbed;
    const std::string syspath = testbed.Plug(BenchPhone(with_node));
    Watcher()->StartListen();
    Watcher()->WaitUntilListening(std::chrono::seconds(5));
    testbed.SendUevent(syspath, "remove");  // start each cycle from an absent device
    HasEntry(false);
    std::vector<double> samples;
    samples.reserve(1000);
    for (int i = 0; i < 1000 && !state.error_occurred(); ++i) {
      samples.push_back(CycleMicroseconds(testbed, syspath, state));
    }
    Watcher()->StopListen();
    if (samples.empty()) continue;
    std::sort(samples.begin(), samples.end());
    state.counters["median_us"] = samples[samples.size() / 2];
    state.counters["p99_us"] = samples[samples.size() * 99 / 100];
    state.counters["max_us"] = samples.back();
  }
  state.SetLabel(with_node ? "control transfer" : "sysfs (default)");
}
BENCHMARK(BM_UeventToTableEntry)->Arg(1)->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_PlugUnplugMemory(benchmark::State& state) {
  for (auto _ : state) {
    UsbTestbed testbed;
    const std::string syspath = testbed.Plug(BenchPhone(state.range(0) != 0));
    Watcher()->StartListen();
    Watcher()->WaitUntilListening(std::chrono::seconds(5));
    testbed.SendUevent(syspath, "remove");
    HasEntry(false);
    long after_warm_up = 0;
    for (int i = 0; i < 10000 && !state.error_occurred(); ++i) {
      CycleMicroseconds(testbed, syspath, state);
      if (i == 999) after_warm_up = ResidentKiB();
    }
    Watcher()->StopListen();
    state.counters["rss_after_1k_KiB"] = static_cast<double>(after_warm_up);
    state.counters["rss_after_10k_KiB"] = static_cast<double>(ResidentKiB());
    state.counters["growth_KiB"] = static_cast<double>(ResidentKiB() - after_warm_up);
  }
  state.SetLabel(state.range(0) != 0 ? "control transfer" : "sysfs (default)");
}
BENCHMARK(BM_PlugUnplugMemory)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

bool OneBareStringTransfer(const char* node) {
  const int fd = ::open(node, O_RDWR);
  if (fd < 0) return false;
  unsigned char buffer[256];
  usbdevfs_ctrltransfer transfer{};
  transfer.bRequestType = 0x80;
  transfer.bRequest = 6;
  transfer.wValue = 0x0301;
  transfer.wIndex = 0x0409;
  transfer.wLength = sizeof buffer;
  transfer.timeout = 1000;
  transfer.data = buffer;
  const bool answered = ::ioctl(fd, USBDEVFS_CONTROL, &transfer) >= 0;
  ::close(fd);
  return answered;
}

void BM_EmulatedNodeMemory(benchmark::State& state) {
  for (auto _ : state) {
    UsbTestbed testbed;
    SimulatedUsbDevice device = BenchPhone(true);
    device.number = 10;  // a node of its own, which no watcher ever saw
    testbed.Plug(device);
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/001/%03d", device.number);
    long after_warm_up = 0;
    for (int i = 0; i < 20000 && !state.error_occurred(); ++i) {
      if (!OneBareStringTransfer(node)) state.SkipWithError("transfer failed");
      if (i == 1999) after_warm_up = ResidentKiB();
    }
    state.counters["growth_KiB"] = static_cast<double>(ResidentKiB() - after_warm_up);
  }
  state.SetLabel("umockdev alone, 20,000 transfers");
}
BENCHMARK(BM_EmulatedNodeMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return RunBenchmarksUnderUmockdev(argc, argv, "pelmora-bench-usb", false); }
