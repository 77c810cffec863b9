// The USB device table: the Android USB devices attached now, written by the watcher thread and
// read by the poll thread.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "DeviceInfo.h"

class ListenDeviceChange {
 public:
  virtual ~ListenDeviceChange();
  virtual int StartListen() = 0;
  virtual void StopListen() = 0;

  // Enters a device under its key serial. An existing entry is left untouched, except that
  // update = true then sets its reported_model and reported_manufacturer from info. The watcher
  // always passes false: the update form waits for a source that learns those names later.
  void InsertUSBDeviceInfo(const std::string& serial, const DeviceModleInfo& info, bool update);
  // Takes the entry with this serial's key out; an absent key changes nothing.
  void RemoveUSBDeviceInfo(const std::string& serial);
  // The table as it is now, copied under the mutex, for the poll thread to merge at leisure.
  std::map<std::string, DeviceModleInfo> CopyUSBDeviceMap();
  // Called after every change of the table, on the thread that made it (the listener wakes its
  // poll with it). Replaces the one set before.
  void SetTableObserver(std::function<void()> observer);

 protected:
  std::mutex m_usb_device_mutex;
  std::map<std::string, DeviceModleInfo> m_usb_device_map;

 private:
  void TableChanged();
  std::mutex m_observer_mutex;
  std::function<void()> m_table_observer;  // guarded by m_observer_mutex
};
