// The library as a host uses it: loaded with dlopen, its USB watcher reading devices that
// umockdev simulates, its poll thread asking Debian's adb on a private port, to which a simulated
// phone is attached later under its USB device's serial. The cases are in tests/usb and tests/listener.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Pelmora.h"
#include "PrivateAdbServer.h"
#include "SimPhone.h"
#include "TempDir.h"
#include "UsbTestbed.h"

using Strings = std::vector<std::string>;

namespace {

// Every entry the host was given, as "key old>new actual vid:pid vid_manufacturer/manufacturer/
// model/os", written on the library's poll thread.
std::mutex g_mutex;
std::condition_variable g_changed;
Strings g_moves;

int HostCallback(const char* report, int length) {
  Json::Value root;
  std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader())
      ->parse(report, report + length, &root, nullptr);
  std::lock_guard<std::mutex> lock(g_mutex);
  for (const Json::Value& e : root["changed"]) {
    g_moves.push_back(e["key_serial"].asString() + " " + e["old_status"].asString() + ">" +
                      e["new_status"].asString() + " " + e["actual_serial"].asString() + " " + e["vid"].asString() +
                      ":" + e["pid"].asString() + " " + e["vid_manufacturer"].asString() + "/" +
                      e["manufacturer"].asString() + "/" + e["model"].asString() + "/" + e["os_version"].asString());
  }
  g_changed.notify_all();
  return 0;
}

// The moves so far (of the one phone: any other key fails the test), once there are at least
// count of them or 15 s have passed.
Strings Moves(size_t count) {
  std::unique_lock<std::mutex> lock(g_mutex);
  g_changed.wait_for(lock, std::chrono::seconds(15), [&] { return g_moves.size() >= count; });
  return g_moves;
}

TEST(UsbToAdb, AUsbPhoneAndItsAdbSideMergeUnderOneKeyThroughTheExportedFunctions) {
  ASSERT_TRUE(UmockdevPreloaded()) << "run with LD_PRELOAD=libumockdev-preload.so.0";
  // The adb processes started from here must see the machine's /sys and /dev, not the testbed's.
  // Done while this process has one thread, before anything in the library touches libudev.
  ::unsetenv("LD_PRELOAD");
  UsbTestbed testbed;
  void* library = dlopen(PELMORA_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, library) << dlerror();
#define PELMORA_LOOK_UP(name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))
  const auto init = PELMORA_LOOK_UP(InitPelmora);
  const auto start_adb = PELMORA_LOOK_UP(StartAdbServer);
  const auto start = PELMORA_LOOK_UP(StartListenAndroidDevice);
  const auto stop = PELMORA_LOOK_UP(StopListenAndroidDevice);
  ASSERT_TRUE(init && start_adb && start && stop);

  TempDir root;
  const std::string config = root.path();
  std::ofstream(config + "/AndroidVID.ini") << "Google=6353\n";
  for (const char* name : {"AndroidPIDBlack.ini", "AndroidPIDWhite.ini", "iManufactureAndiProduct.ini"}) {
    std::ofstream(config + "/" + name);
  }
  sim_phone::PrivateAdbServer server;
  server.ApplyToThisProcess();
  ASSERT_EQ(0, init(config.c_str(), config.c_str(), (config + "/logs").c_str()));
  ASSERT_EQ(0, start_adb(false)) << "starts the private server on its port";
  ASSERT_EQ(0, start(HostCallback));

  // Plugged with USB debugging off; its strings come by control transfer on its device node.
  sim_phone::PhoneConfig properties;
  properties.manufacturer = "Google";
  properties.model = "Pixel 8 Pro";
  properties.android_version = "14";
  sim_phone::SimPhone phone(properties);  // listening, not attached to adb yet
  const std::string key = phone.serial();  // "127.0.0.1:<port>", already lower case
  SimulatedUsbDevice pixel;
  pixel.number = 5;
  pixel.serial = key;
  pixel.vid = 6353;
  pixel.pid = 0x4ee1;
  pixel.has_node = true;
  pixel.strings = {{1, u"Google"}, {2, u"Pixel 8"}};
  const std::string pixel_path = testbed.Plug(pixel);
  ASSERT_EQ(1u, Moves(1).size()) << "the USB phone was not reported";

  ASSERT_TRUE(server.Connect(phone.port()));
  ASSERT_EQ(2u, Moves(2).size()) << "the phone behind adb was not reported";
  // adb loses the phone first (debugging switched off), then the cable comes out.
  phone.Leave();
  server.Disconnect(phone.port());
  ASSERT_EQ(3u, Moves(3).size()) << "adb's loss of the phone was not reported";
  testbed.Unplug(pixel_path);

  // Each move once; the USB IDs stay with the key, the phone's own texts win over the USB ones
  // while adb has it (the version stays after), and the details leave with the device.
  EXPECT_EQ((Strings{key + " NotConnect>MtpConnect  6353:20193 Google//Pixel 8/",
                     key + " MtpConnect>AuthoredConnect " + key + " 6353:20193 Google/Google/Pixel 8 Pro/14",
                     key + " AuthoredConnect>MtpConnect " + key + " 6353:20193 Google//Pixel 8/14",
                     key + " MtpConnect>NotConnect  0:0 ///"}),
            Moves(4));
  stop();
}

}  // namespace
