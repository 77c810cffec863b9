#include "ListenDeviceChangeMac.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "Common.h"
#include "LoadConfig.h"
#include "Pelmora.h"
#include "Quenwick.h"
#include "Tarnwell.h"
#include "UsbPlatform.h"

namespace {

// One per device that passed the validity check: the context of its termination registration.
struct DeviceNotifyInfo {
  UsbNotification* notification = nullptr;
  UsbDeviceInterface* device_interface = nullptr;
  DeviceModleInfo info;
};

constexpr size_t kSerialNumberBufferSize = 260;  // text and its terminating zero
constexpr size_t kManufacturerBufferSize = 100;
constexpr uint16_t kStringDescriptorLength = 256;
// USB-IF classes a phone never has: a device whose own class is one of them, or that declares only
// interfaces of them, is passed over before the lists are asked. Bluetooth is matched to its
// protocol, because Android's RNDIS tethering shares its class and subclass (at device level too:
// Android's tethering configurations set the device class E0).
constexpr uint8_t kUsbClassHid = 0x03;
constexpr uint8_t kUsbClassPrinter = 0x07;
constexpr uint8_t kUsbClassHub = 0x09;
constexpr uint8_t kUsbClassSmartCard = 0x0B;
constexpr uint8_t kUsbClassVideo = 0x0E;
constexpr uint8_t kUsbClassBillboard = 0x11;
constexpr uint8_t kUsbClassWirelessController = 0xE0;
constexpr uint8_t kUsbClassApplicationSpecific = 0xFE;  // firmware update (DFU), IrDA bridges
constexpr uint8_t kUsbSubClassRadioFrequency = 0x01;
constexpr uint8_t kUsbProtocolBluetooth = 0x01;
// adb's own interface (vendor specific, subclass 0x42, protocol 1): debugging is switched on.
constexpr uint8_t kUsbClassVendorSpecific = 0xFF;
constexpr uint8_t kUsbSubClassAdb = 0x42;
constexpr uint8_t kUsbProtocolAdb = 0x01;

constexpr auto kStopTimeout = std::chrono::seconds(5);

}  // namespace

// The single instance; the callbacks reach the table through it.
static ListenDeviceChangeMac* s_ListenDeviceChangeMac = nullptr;

// Watcher-thread state: the platform that delivers notifications and the arrival iterator. Set
// during set-up, read by the callbacks, which run on the same thread.
static UsbPlatform* s_notification_port = nullptr;
static UsbIterator* s_AddedIter = nullptr;
// Records of the devices registered for termination, so that none outlives the thread. Never
// destroyed: the watcher thread may still run while the process exits.
static std::set<DeviceNotifyInfo*>& s_device_notify_infos = *new std::set<DeviceNotifyInfo*>;

// Lifecycle, shared between the watcher thread and callers of StartListen / StopListen. Never
// destroyed, for the same reason.
struct WatcherLifecycle {
  std::mutex mutex;
  std::condition_variable changed;
  bool running = false;
  bool listening = false;  // the devices attached at the start are handled
  bool stop_requested = false;
  std::thread::id thread_id;
  UsbPlatformFactory platform_factory;
};
static WatcherLifecycle& s_watcher = *new WatcherLifecycle;
// The running loop, set (under s_watcher.mutex) while the thread can be stopped through it.
static UsbPlatform* s_run_loop = nullptr;

// ---------------------------------------------------------------------------------------------
// Validity check

bool IsAndroidValid(unsigned short vid, unsigned short pid, std::string serial) {
  if (IsDeviceOnWhitePidList(vid, pid)) return true;
  if (!IsDeviceOnNon_AndroidList(vid, pid, serial)) return true;

  char manufacturer[kManufacturerBufferSize] = {};
  const int ret = AdbGetPhoneManufacturer(serial.c_str(), manufacturer, sizeof manufacturer, 0);
  if (ret != 0) {
    LogEx(kLogCategory, QUENWICK_LEVEL_WARNING, "android device disconnected or invalid,ret=%d, key serial:%s, vid:%hu, pid:%hu",
          ret, serial.c_str(), vid, pid);
    return false;
  }
  // The answer may fill the whole buffer without a terminating zero.
  if (strnlen(manufacturer, sizeof manufacturer) != 0) return true;
  LogEx(kLogCategory, QUENWICK_LEVEL_WARNING, "invalid android devices,ret=%d, key serial:%s, vid:%hu, pid:%hu", 0,
        serial.c_str(), vid, pid);
  return false;
}

// ---------------------------------------------------------------------------------------------
// Serial number and string descriptors

std::string DecodeStringDescriptor(int result, const unsigned char* data, uint32_t wLenDone) {
  if (result != 0 || data == nullptr || wLenDone < 3) return "";
  if (data[1] != kUsbDescriptorTypeString || data[0] != wLenDone) return "";
  return Utf16LeToUtf8(data + 2, wLenDone - 2);
}

static std::string GetSerialNumber(UsbService* service) {
  std::string serial;
  if (!s_notification_port->GetSerialNumberProperty(service, &serial)) return "";
  serial = serial.substr(0, std::strlen(serial.c_str()));
  // Longer texts do not fit the property buffer and count as no serial at all.
  if (serial.size() >= kSerialNumberBufferSize) return "";
  return serial;
}

static std::string GetStringDescriptor(UsbDeviceInterface* device, unsigned char index) {
  unsigned char buffer[kStringDescriptorLength] = {};
  UsbDeviceRequest request;
  request.bmRequestType = kUsbRequestTypeStandardDeviceIn;
  request.bRequest = kUsbRequestGetDescriptor;
  request.wValue = static_cast<uint16_t>((kUsbDescriptorTypeString << 8) | index);
  request.wIndex = kUsbLanguageEnglishUs;
  request.wLength = kStringDescriptorLength;
  request.pData = buffer;
  const int result = s_notification_port->DeviceRequest(device, &request);
  return DecodeStringDescriptor(result, buffer,
                                std::min<uint32_t>(request.wLenDone, kStringDescriptorLength));
}

// The system's decoded copy when it keeps one, else the device's answer. Index 0 names no string
// (the device would answer with its language table), so nothing is asked for it.
static std::string ReadString(UsbDeviceInterface* device, UsbString which, uint8_t index) {
  std::string text;
  if (index == 0) return text;
  if (s_notification_port->GetStringText(device, which, &text)) return text;
  return GetStringDescriptor(device, index);
}

// ---------------------------------------------------------------------------------------------
// Arrival and termination

static void DeviceRemoved(void* refCon, UsbService* service, uint32_t messageType,
                          void* messageArgument);

// Ends a recorded device: its interface, its registration, its table entry and its record.
static void ForgetDevice(DeviceNotifyInfo* record) {
  if (record->device_interface != nullptr) {
    s_notification_port->ReleaseDeviceInterface(record->device_interface);
  }
  if (record->notification != nullptr) s_notification_port->ReleaseNotification(record->notification);
  if (s_ListenDeviceChangeMac != nullptr) s_ListenDeviceChangeMac->RemoveUSBDeviceInfo(record->info.serial);
  s_device_notify_infos.erase(record);
  delete record;
}

// The device interface of a service, or null after logging why there is none.
static UsbDeviceInterface* OpenDeviceInterface(UsbService* service) {
  UsbPlugIn* plugIn = nullptr;
  const int kr = s_notification_port->CreatePlugInInterface(service, &plugIn);
  if (kr != 0 || plugIn == nullptr) {
    Log(QUENWICK_LEVEL_ERROR, "IOCreatePlugInInterfaceForService returned 0x%08x.\n", static_cast<unsigned>(kr));
    return nullptr;
  }
  UsbDeviceInterface* device = nullptr;
  const int answer = s_notification_port->QueryDeviceInterface(plugIn, &device);
  s_notification_port->ReleasePlugIn(plugIn);
  if (answer != 0 || device == nullptr) {
    if (device != nullptr) s_notification_port->ReleaseDeviceInterface(device);
    Log(QUENWICK_LEVEL_INFO, "no io usb device info");
    return nullptr;
  }
  return device;
}

// Video counts only as the device's own class: a phone serving as a webcam declares video interfaces.
enum class ClassOf { kDevice, kInterface };
static bool IsNeverOnAPhone(const UsbClassCodes& codes, ClassOf owner) {
  switch (codes.class_code) {
    case kUsbClassHid:
    case kUsbClassPrinter:
    case kUsbClassHub:
    case kUsbClassSmartCard:
    case kUsbClassBillboard:
    case kUsbClassApplicationSpecific:
      return true;
    case kUsbClassVideo:
      return owner == ClassOf::kDevice;
    default:
      return codes.class_code == kUsbClassWirelessController && codes.subclass == kUsbSubClassRadioFrequency &&
             codes.protocol == kUsbProtocolBluetooth;
  }
}

static bool IsAdbInterface(const UsbClassCodes& interface) {
  return interface.class_code == kUsbClassVendorSpecific &&
         interface.subclass == kUsbSubClassAdb && interface.protocol == kUsbProtocolAdb;
}

// True for a device whose every interface is of a class no phone exposes (a keyboard, a hub, a
// printer, a card reader, a Bluetooth radio with its firmware interface), when the platform can tell.
static bool DeclaresOnlyNonPhoneInterfaces(const std::vector<UsbClassCodes>& interfaces) {
  return !interfaces.empty() && std::all_of(interfaces.begin(), interfaces.end(), [](const UsbClassCodes& codes) {
           return IsNeverOnAPhone(codes, ClassOf::kInterface);
         });
}

static void HandleArrival(UsbService* service) {
  const std::string serial = GetSerialNumber(service);
  if (serial.empty()) return;  // no serial: the device leaves no trace

  UsbDeviceInterface* device = OpenDeviceInterface(service);
  if (device == nullptr) return;

  uint16_t vid = 0;
  uint16_t pid = 0;
  uint8_t manufacturer_index = 0;
  uint8_t product_index = 0;
  (void)s_notification_port->GetDeviceVendor(device, &vid);
  (void)s_notification_port->GetDeviceProduct(device, &pid);
  (void)s_notification_port->GetManufacturerStringIndex(device, &manufacturer_index);
  (void)s_notification_port->GetProductStringIndex(device, &product_index);

  // Released here on every way out, unless the record takes it over.
  std::unique_ptr<UsbDeviceInterface, void (*)(UsbDeviceInterface*)> interface_guard(
      device, [](UsbDeviceInterface* d) { s_notification_port->ReleaseDeviceInterface(d); });
  std::vector<UsbClassCodes> interfaces;
  if (!s_notification_port->GetInterfaceClasses(device, &interfaces)) interfaces.clear();
  UsbClassCodes device_class;
  const bool class_known = s_notification_port->GetDeviceClass(device, &device_class);
  if ((class_known && IsNeverOnAPhone(device_class, ClassOf::kDevice)) || DeclaresOnlyNonPhoneInterfaces(interfaces)) {
    Log(QUENWICK_LEVEL_INFO, "usb device passed over, no interface a phone has: serial:%s vid:%hu pid:%hu",
        serial.c_str(), vid, pid);
    return;
  }
  auto record = std::make_unique<DeviceNotifyInfo>();
  record->info.manufacturer = ReadString(device, UsbString::kManufacturer, manufacturer_index);
  record->info.product = ReadString(device, UsbString::kProduct, product_index);
  if (!IsAndroidValid(vid, pid, serial)) return;

  record->info.vid = vid;
  record->info.pid = pid;
  record->info.serial = serial;
  record->info.adb_interface = std::any_of(interfaces.begin(), interfaces.end(), IsAdbInterface);
  s_device_notify_infos.insert(record.get());
  DeviceNotifyInfo* info = record.release();
  info->device_interface = interface_guard.release();
  if (s_ListenDeviceChangeMac != nullptr) {
    s_ListenDeviceChangeMac->InsertUSBDeviceInfo(info->info.serial, info->info, false);
  }

  const int kr = s_notification_port->AddInterestNotification(service, DeviceRemoved, info,
                                                              &info->notification);
  if (kr != 0) {
    // The entry and the record stay; this device's termination will not be reported.
    info->notification = nullptr;
    Log(QUENWICK_LEVEL_ERROR, "IOServiceAddInterestNotification failed, return 0x%08x.", static_cast<unsigned>(kr));
  }
}

static void DeviceAdded(void* /*refCon*/, UsbIterator* iterator) {
  while (UsbService* service = s_notification_port->IteratorNext(iterator)) {
    try {
      HandleArrival(service);
    } catch (const std::exception& error) {
      Log(QUENWICK_LEVEL_ERROR, "usb device arrival not handled: %s", error.what());
    }
    s_notification_port->ReleaseService(service);
  }
}

static void DeviceRemoved(void* refCon, UsbService* /*service*/, uint32_t messageType,
                          void* /*messageArgument*/) {
  if (messageType != kUsbMessageServiceIsTerminated) return;
  ForgetDevice(static_cast<DeviceNotifyInfo*>(refCon));
}

// ---------------------------------------------------------------------------------------------
// The watcher thread

ListenDeviceChangeMac::~ListenDeviceChangeMac() = default;

ListenDeviceChange* GetListenDeviceChangeMacInstance() {
  if (s_ListenDeviceChangeMac == nullptr) s_ListenDeviceChangeMac = new ListenDeviceChangeMac();
  return s_ListenDeviceChangeMac;
}

void SetUsbPlatformFactory(UsbPlatformFactory factory) {
  std::lock_guard<std::mutex> lock(s_watcher.mutex);
  s_watcher.platform_factory = std::move(factory);
}

int ListenDeviceChangeMac::StartListen() {
  std::lock_guard<std::mutex> lock(s_watcher.mutex);
  // The listener calls this on each of its starts. The statics serve one watcher thread, and the
  // running one keeps the table current, so a further start leaves it alone.
  if (s_watcher.running) return 0;
  s_watcher.running = true;
  s_watcher.listening = false;
  s_watcher.stop_requested = false;
  try {
    std::thread([this] { StartListenThread(); }).detach();
  } catch (const std::system_error& error) {
    s_watcher.running = false;
    Log(QUENWICK_LEVEL_ERROR, "usb watcher thread not started: %s", error.what());
    return PELMORA_ERR_USB_WATCHER;
  }
  return 0;
}

void ListenDeviceChangeMac::StopListen() {
  std::unique_lock<std::mutex> lock(s_watcher.mutex);
  // After the thread has ended there is no loop left to stop: the call does nothing.
  if (!s_watcher.running) return;
  s_watcher.stop_requested = true;
  if (s_run_loop != nullptr) s_run_loop->StopLoop();
  if (std::this_thread::get_id() == s_watcher.thread_id) return;  // from a callback: cannot wait
  s_watcher.changed.wait_for(lock, kStopTimeout, [] { return !s_watcher.running; });
}

bool ListenDeviceChangeMac::WaitUntilListening(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(s_watcher.mutex);
  return s_watcher.changed.wait_for(lock, timeout,
                                    [] { return s_watcher.listening || !s_watcher.running; });
}

// Set-up and run on the given platform: PELMORA_ERR_USB_WATCHER when set-up fails, 0 once the
// loop has been stopped.
static int RunWatcher(UsbPlatform* platform) {
  if (!platform->CreateMatching()) {
    Log(QUENWICK_LEVEL_ERROR, "IOServiceMatching return NULL!");
    return PELMORA_ERR_USB_WATCHER;
  }
  s_notification_port = platform;
  const int kr = platform->AddMatchingNotification(DeviceAdded, nullptr, &s_AddedIter);
  if (kr != 0) {
    Log(QUENWICK_LEVEL_ERROR, "IOServiceAddMatchingNotification failed, return 0x%08x", static_cast<unsigned>(kr));
    return PELMORA_ERR_USB_WATCHER;
  }
  {
    std::lock_guard<std::mutex> lock(s_watcher.mutex);
    s_run_loop = platform;
    if (s_watcher.stop_requested) platform->StopLoop();
  }
  DeviceAdded(nullptr, s_AddedIter);  // the devices attached now; arms later arrivals
  {
    std::lock_guard<std::mutex> lock(s_watcher.mutex);
    s_watcher.listening = true;
    s_watcher.changed.notify_all();
  }
  platform->RunLoop();
  return 0;
}

int ListenDeviceChangeMac::StartListenThread() {
  UsbPlatformFactory factory;
  {
    std::lock_guard<std::mutex> lock(s_watcher.mutex);
    s_watcher.running = true;
    s_watcher.thread_id = std::this_thread::get_id();
    factory = s_watcher.platform_factory;
  }
  int result = 4;
  std::unique_ptr<UsbPlatform> platform;
  try {
    platform = factory ? factory() : CreateUsbPlatform();
    if (platform == nullptr) {
      Log(QUENWICK_LEVEL_ERROR, "IOServiceMatching return NULL!");
    } else {
      result = RunWatcher(platform.get());
    }
  } catch (const std::exception& error) {
    Log(QUENWICK_LEVEL_ERROR, "usb watcher stopped: %s", error.what());
  }
  {
    std::lock_guard<std::mutex> lock(s_watcher.mutex);
    s_run_loop = nullptr;
  }
  // Nothing keeps these devices' entries current once the thread is gone, so they go with it.
  while (!s_device_notify_infos.empty()) ForgetDevice(*s_device_notify_infos.begin());
  platform.reset();
  s_notification_port = nullptr;
  s_AddedIter = nullptr;
  {
    std::lock_guard<std::mutex> lock(s_watcher.mutex);
    s_watcher.running = false;
    s_watcher.listening = false;
    s_watcher.thread_id = std::thread::id();
    // Notified under the lock: once a waiter sees the thread ended, the thread touches nothing.
    s_watcher.changed.notify_all();
  }
  return result;
}
