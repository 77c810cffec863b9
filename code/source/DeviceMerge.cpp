#include "DeviceMerge.h"

#include "AndListenerEx.h"

namespace {

bool NumbersDiffer(const DeviceBasicInfo_& a, const DeviceBasicInfo_& b) {
  return a.status != b.status || a.reserved != b.reserved || a.vid != b.vid || a.pid != b.pid;
}

// What a device waits for before the host hears of it, if anything.
bool AwaitedNews(const std::string& key, const DeviceBasicInfo_& device, DeviceConnectStatus told_before,
                 const PollViews& views, ReportHold::Kind* kind) {
  *kind = ReportHold::kAwaitingAdb;
  if (device.status == MtpConnect && told_before == NotConnect && views.adb != nullptr) {
    const auto usb = views.usb->find(key);
    return usb != views.usb->end() && usb->second.adb_interface;
  }
  // adb lists a phone it has just found as offline until the phone answers its handshake.
  if (device.status == OfflineConnect && (told_before == NotConnect || told_before == MtpConnect)) return true;
  *kind = ReportHold::kAwaitingDetails;
  return device.status == AuthoredConnect && told_before != AuthoredConnect &&
         (views.details_ready == nullptr || views.details_ready->count(key) == 0);
}

std::chrono::milliseconds Wait(ReportHold::Kind kind) {
  return kind == ReportHold::kAwaitingAdb ? kAdbListingWait : kDetailsWait;
}

}  // namespace

DevicesStatusChangeInfo_ MakeStatusChange(const std::string& key, const std::string& actual_serial,
                                          DeviceConnectStatus old_status, DeviceConnectStatus new_status) {
  DevicesStatusChangeInfo_ change;
  change.key_serial = key;
  change.actual_serial = actual_serial;
  change.old_status = old_status;
  change.new_status = new_status;
  return change;
}

DeviceTableStep StepDeviceTable(const DeviceTable& previous, const DeviceTable& merged, const PollViews& views,
                                ReportHolds& holds) {
  DeviceTableStep step;
  step.told = merged;
  ReportHolds kept;
  for (const auto& [key, device] : merged) {
    const auto before = previous.find(key);
    ReportHold::Kind kind{};
    if (!AwaitedNews(key, device, before == previous.end() ? NotConnect : before->second.status, views, &kind)) {
      continue;
    }
    const auto held = holds.find(key);
    const SteadyTime since = held != holds.end() && held->second.kind == kind ? held->second.since : views.now;
    kept[key] = {kind, since};
    const SteadyTime release = since + Wait(kind);
    if (views.now >= release) continue;  // waited long enough: the host hears what there is
    if (release < step.next_release) step.next_release = release;
    if (before == previous.end()) {
      step.told.erase(key);
    } else {
      step.told[key] = before->second;
    }
  }
  holds = std::move(kept);
  AndListenerEx::GetDevicesInfoChange(previous, step.told, step.changes);
  return step;
}

void AndListenerEx::GetAssembleBasicInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                         const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                                         std::map<std::string, DeviceBasicInfo_>& merged) {
  merged.clear();
  ConvertEnumDeviceInfo(usb_devices, MtpConnect, &merged);
  if (adb_devices != nullptr) ConvertEnumDeviceInfo(*adb_devices, &merged);
}

void AndListenerEx::ConvertEnumDeviceInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                          DeviceConnectStatus status,
                                          std::map<std::string, DeviceBasicInfo_>* merged) {
  for (const auto& [key, usb] : *usb_devices) {
    const auto found = merged->find(key);
    if (found != merged->end()) {
      if (status > found->second.status) found->second.status = status;
      continue;
    }
    DeviceBasicInfo_& device = (*merged)[key];
    device.status = status;
    device.reserved = -1;
    device.vid = usb.vid;
    device.pid = usb.pid;
    device.usb_manufacturer = usb.manufacturer;
    device.usb_product = usb.product;
    device.reported_manufacturer = usb.reported_manufacturer;
    device.reported_model = usb.reported_model;
  }
}

void AndListenerEx::ConvertEnumDeviceInfo(const std::map<std::string, DeviceAuthorInfo_>& adb_devices,
                                          std::map<std::string, DeviceBasicInfo_>* merged) {
  for (const auto& [key, adb] : adb_devices) {
    const DeviceConnectStatus status = ConvertAuthorStatus2ConnectStatus(adb.status);
    const auto [device, created] = merged->try_emplace(key);
    device->second.status = status;
    device->second.actual_serial = adb.serial;
    if (created) device->second.reserved = -1;
  }
}

void AndListenerEx::GetDevicesInfoChange(const std::map<std::string, DeviceBasicInfo_>& previous,
                                         const std::map<std::string, DeviceBasicInfo_>& current,
                                         std::vector<DevicesStatusChangeInfo_>& changes) {
  for (const auto& [key, before] : previous) {
    const auto now = current.find(key);
    if (now == current.end()) {
      changes.push_back(MakeStatusChange(key, before.actual_serial, before.status, NotConnect));
    } else if (NumbersDiffer(before, now->second)) {
      const std::string& serial =
          before.actual_serial.empty() ? now->second.actual_serial : before.actual_serial;
      changes.push_back(MakeStatusChange(key, serial, before.status, now->second.status));
    }
  }
  for (const auto& [key, now] : current) {
    if (previous.count(key) == 0) changes.push_back(MakeStatusChange(key, now.actual_serial, NotConnect, now.status));
  }
}
