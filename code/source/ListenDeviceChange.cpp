#include "ListenDeviceChange.h"

#include "Common.h"

ListenDeviceChange::~ListenDeviceChange() = default;

void ListenDeviceChange::InsertUSBDeviceInfo(const std::string& serial, const DeviceModleInfo& info,
                                             bool update) {
  std::lock_guard<std::mutex> lock(m_usb_device_mutex);
  auto [entry, created] = m_usb_device_map.try_emplace(GetLowerCaseString(serial), info);
  (void)created;  // a second arrival under the same key changes nothing but the update fields
  if (update) {
    entry->second.reported_model = info.reported_model;
    entry->second.reported_manufacturer = info.reported_manufacturer;
  }
}

void ListenDeviceChange::RemoveUSBDeviceInfo(const std::string& serial) {
  std::lock_guard<std::mutex> lock(m_usb_device_mutex);
  m_usb_device_map.erase(GetLowerCaseString(serial));
}

std::map<std::string, DeviceModleInfo> ListenDeviceChange::CopyUSBDeviceMap() {
  std::lock_guard<std::mutex> lock(m_usb_device_mutex);
  return m_usb_device_map;
}
