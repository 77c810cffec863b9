#include "ListenDeviceChange.h"

#include "Common.h"

ListenDeviceChange::~ListenDeviceChange() = default;

void ListenDeviceChange::InsertUSBDeviceInfo(const std::string& serial, const DeviceModleInfo& info,
                                             bool update) {
  {
    std::lock_guard<std::mutex> lock(m_usb_device_mutex);
    // A second arrival under the same key changes nothing but the update fields.
    auto [entry, created] = m_usb_device_map.try_emplace(GetLowerCaseString(serial), info);
    if (!created && !update) return;
    if (update) {
      entry->second.reported_model = info.reported_model;
      entry->second.reported_manufacturer = info.reported_manufacturer;
    }
  }
  TableChanged();
}

void ListenDeviceChange::RemoveUSBDeviceInfo(const std::string& serial) {
  {
    std::lock_guard<std::mutex> lock(m_usb_device_mutex);
    if (m_usb_device_map.erase(GetLowerCaseString(serial)) == 0) return;
  }
  TableChanged();
}

void ListenDeviceChange::SetTableObserver(std::function<void()> observer) {
  std::lock_guard<std::mutex> lock(m_observer_mutex);
  m_table_observer = std::move(observer);
}

void ListenDeviceChange::TableChanged() {
  std::function<void()> observer;
  {
    std::lock_guard<std::mutex> lock(m_observer_mutex);
    observer = m_table_observer;
  }
  // Called with no lock held: the observer takes locks of its own.
  if (observer) observer();
}

std::map<std::string, DeviceModleInfo> ListenDeviceChange::CopyUSBDeviceMap() {
  std::lock_guard<std::mutex> lock(m_usb_device_mutex);
  return m_usb_device_map;
}
