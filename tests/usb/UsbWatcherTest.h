// Set-up both USB suites share: the lists, fresh ADB and log stand-ins, a watcher a stop empties.
#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "FakeTarnwell.h"
#include "ListenDeviceChangeMac.h"
#include "LogCapture.h"
#include "UsbTestLists.h"

class UsbWatcherTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { LoadUsbTestFilterLists(); }
  void SetUp() override {
    fake_adb::Reset();
    log_capture::Clear();
    watcher_ = static_cast<ListenDeviceChangeMac*>(GetListenDeviceChangeMacInstance());
  }
  void TearDown() override {
    watcher_->StopListen();
    EXPECT_TRUE(Table().empty()) << "a stopped watcher leaves no entry";
  }
  void Start() {
    ASSERT_EQ(watcher_->StartListen(), 0);
    ASSERT_TRUE(watcher_->WaitUntilListening(std::chrono::seconds(5)));
  }
  std::map<std::string, DeviceModleInfo> Table() { return watcher_->CopyUSBDeviceMap(); }

  ListenDeviceChangeMac* watcher_ = nullptr;
};
