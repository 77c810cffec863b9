// The USB watcher's platform on Linux: libudev for the devices attached at the start and for
// later add/remove events, sysfs for serial number, descriptor fields and strings. The kernel
// read the manufacturer and product strings at enumeration and keeps them in sysfs as UTF-8,
// readable by anyone; a usbfs control transfer is made only for a string sysfs lacks, and without
// write access to the node (every desktop user without udev rules) usbfs refuses it.
#include <fcntl.h>
#include <libudev.h>
#include <linux/usbdevice_fs.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "Quenwick.h"
#include "UniqueFd.h"
#include "UsbPlatform.h"
#include "UsbSysfsLinux.h"

namespace {

constexpr unsigned kControlTimeoutMs = 1000;
constexpr size_t kDescriptorsReadLimit = 4096;  // the device descriptor is the first 18 bytes

struct LinuxUsbService : UsbService {
  udev_device* device = nullptr;
};

struct LinuxUsbIterator : UsbIterator {
  std::deque<udev_device*> pending;
};

struct DeviceNames {
  std::string syspath;
  std::string devnode;
  // The kernel's copies of the strings; absent when the device has none at that index.
  bool has_manufacturer = false;
  bool has_product = false;
  std::string manufacturer;
  std::string product;
};

struct LinuxUsbPlugIn : UsbPlugIn {
  std::vector<unsigned char> descriptors;
  DeviceNames names;
};

struct LinuxUsbDeviceInterface : UsbDeviceInterface {
  UsbDeviceDescriptorFields fields;
  bool has_interfaces = false;
  std::vector<UsbClassCodes> interfaces;
  DeviceNames names;
  bool path_logged = false;
  int node_refusal = 0;  // once the host refused a transfer, the rest get the same answer
};

struct LinuxUsbNotification : UsbNotification {
  std::string syspath;
  UsbDeviceRemovedCallback callback = nullptr;
  void* refCon = nullptr;
};

std::string ErrorText(int error) { return std::system_category().message(error); }

// An attribute read whole (up to limit bytes); an errno code when it cannot be read.
int ReadAttributeFile(const std::string& path, std::vector<unsigned char>* bytes) {
  const posix::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) return errno;
  bytes->resize(kDescriptorsReadLimit);
  size_t filled = 0;
  int error = 0;
  while (filled < bytes->size()) {
    const ssize_t n = ::read(fd.get(), bytes->data() + filled, bytes->size() - filled);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error = errno;
    if (n <= 0) break;
    filled += static_cast<size_t>(n);
  }
  bytes->resize(filled);
  return error;
}

// A text attribute as the kernel gives it, less its closing newline; false when the device has
// none. Read directly rather than through libudev's attribute cache: each arrival reads three,
// once, and libudev's path checks cost more than the read itself.
bool SysattrText(udev_device* device, const char* name, std::string* text) {
  std::vector<unsigned char> bytes;
  if (ReadAttributeFile(std::string(udev_device_get_syspath(device)) + "/" + name, &bytes) != 0) {
    return false;
  }
  while (!bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r')) bytes.pop_back();
  text->assign(bytes.begin(), bytes.end());
  return true;
}

DeviceNames NamesOf(udev_device* device) {
  DeviceNames names;
  names.syspath = udev_device_get_syspath(device);
  const char* devnode = udev_device_get_devnode(device);
  if (devnode != nullptr) names.devnode = devnode;
  names.has_manufacturer = SysattrText(device, "manufacturer", &names.manufacturer);
  names.has_product = SysattrText(device, "product", &names.product);
  return names;
}

// The kernel's text for a string index, when sysfs holds one.
const std::string* SysfsText(const LinuxUsbDeviceInterface& device, uint8_t index) {
  if (index == 0) return nullptr;
  if (index == device.fields.manufacturer_index && device.names.has_manufacturer) {
    return &device.names.manufacturer;
  }
  if (index == device.fields.product_index && device.names.has_product) return &device.names.product;
  return nullptr;
}

// Refusals by this host (rights, a read-only descriptor, a node that is not usbfs), as opposed
// to answers of the device (a stall, a timeout, a device gone).
bool IsHostRefusal(int error) {
  switch (error) {
    case EPERM:
    case EACCES:
    case ENOTTY:
    case EBADF:
    case ENOENT:
    case EROFS:
    case EINVAL:
      return true;
    default:
      return false;
  }
}

// One usbfs control transfer on the node, opened for it; 0 or an errno code.
int ControlTransfer(const std::string& devnode, UsbDeviceRequest* request) {
  // A missing node (no devtmpfs entry yet, or none at all) is not worth an open attempt.
  if (devnode.empty() || ::access(devnode.c_str(), F_OK) != 0) return ENOENT;
  // usbfs refuses ioctls on a read-only descriptor, so there is no read-only retry.
  const posix::UniqueFd fd(::open(devnode.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.ok()) return errno;
  usbdevfs_ctrltransfer transfer{};
  transfer.bRequestType = request->bmRequestType;
  transfer.bRequest = request->bRequest;
  transfer.wValue = request->wValue;
  transfer.wIndex = request->wIndex;
  transfer.wLength = request->wLength;
  transfer.timeout = kControlTimeoutMs;
  transfer.data = request->pData;
  int done = 0;
  do {
    done = ::ioctl(fd.get(), USBDEVFS_CONTROL, &transfer);
  } while (done < 0 && errno == EINTR);
  if (done < 0) return errno;
  request->wLenDone = static_cast<uint32_t>(std::min<int>(done, request->wLength));
  return 0;
}

class LinuxUsbPlatform : public UsbPlatform {
 public:
  ~LinuxUsbPlatform() override {
    for (udev_device* device : iterator_.pending) udev_device_unref(device);
    for (LinuxUsbNotification* notification : live_notifications_) delete notification;
    if (monitor_ != nullptr) udev_monitor_unref(monitor_);
    if (udev_ != nullptr) udev_unref(udev_);
  }

  bool CreateMatching() override {
    udev_ = udev_new();
    if (udev_ == nullptr) return false;
    monitor_ = udev_monitor_new_from_netlink(udev_, "udev");
    if (monitor_ == nullptr) return false;
    if (udev_monitor_filter_add_match_subsystem_devtype(monitor_, "usb", "usb_device") < 0) return false;
    stop_fd_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return stop_fd_.ok();
  }

  int AddMatchingNotification(UsbDeviceAddedCallback callback, void* refCon,
                              UsbIterator** iterator) override {
    // The monitor listens before the enumeration, so that no device falls between the two; one
    // seen by both is delivered once.
    const int listening = udev_monitor_enable_receiving(monitor_);
    if (listening < 0) return -listening;
    udev_enumerate* enumerate = udev_enumerate_new(udev_);
    if (enumerate == nullptr) return ENOMEM;
    udev_enumerate_add_match_subsystem(enumerate, "usb");
    udev_enumerate_add_match_property(enumerate, "DEVTYPE", "usb_device");
    const int scanned = udev_enumerate_scan_devices(enumerate);
    if (scanned < 0) {
      udev_enumerate_unref(enumerate);
      return -scanned;
    }
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate)) {
      udev_device* device = udev_device_new_from_syspath(udev_, udev_list_entry_get_name(entry));
      if (device != nullptr) Deliver(device);
    }
    udev_enumerate_unref(enumerate);
    added_callback_ = callback;
    added_refCon_ = refCon;
    *iterator = &iterator_;
    return 0;
  }

  void RunLoop() override {
    pollfd fds[2] = {{udev_monitor_get_fd(monitor_), POLLIN, 0}, {stop_fd_.get(), POLLIN, 0}};
    for (;;) {
      const int ready = ::poll(fds, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) {
        Log(QUENWICK_LEVEL_ERROR, "usb event loop failed: %s", ErrorText(errno).c_str());
        return;
      }
      if (fds[1].revents != 0) return;
      if (fds[0].revents != 0) ReceiveEvent();
    }
  }

  void StopLoop() override {
    const uint64_t one = 1;
    if (stop_fd_.ok()) (void)!::write(stop_fd_.get(), &one, sizeof one);
  }

  UsbService* IteratorNext(UsbIterator* iterator) override {
    auto* pending = static_cast<LinuxUsbIterator*>(iterator);
    if (pending->pending.empty()) return nullptr;
    auto* service = new LinuxUsbService;
    service->device = pending->pending.front();
    pending->pending.pop_front();
    return service;
  }

  bool GetSerialNumberProperty(UsbService* service, std::string* serial) override {
    return SysattrText(Device(service), "serial", serial);
  }

  int CreatePlugInInterface(UsbService* service, UsbPlugIn** plugIn) override {
    *plugIn = nullptr;
    udev_device* device = Device(service);
    std::vector<unsigned char> descriptors;
    const int error =
        ReadAttributeFile(std::string(udev_device_get_syspath(device)) + "/descriptors", &descriptors);
    if (error != 0) return error;
    if (descriptors.empty()) return 0;
    auto* created = new LinuxUsbPlugIn;
    created->descriptors = std::move(descriptors);
    created->names = NamesOf(device);
    *plugIn = created;
    return 0;
  }

  int QueryDeviceInterface(UsbPlugIn* plugIn, UsbDeviceInterface** device) override {
    *device = nullptr;
    auto* source = static_cast<LinuxUsbPlugIn*>(plugIn);
    UsbDeviceDescriptorFields fields;
    if (!ParseDeviceDescriptor(source->descriptors.data(), source->descriptors.size(), &fields)) {
      return EINVAL;
    }
    auto* created = new LinuxUsbDeviceInterface;
    created->fields = fields;
    created->has_interfaces = ParseInterfaceClasses(source->descriptors.data(), source->descriptors.size(),
                                                    &created->interfaces);
    created->names = source->names;
    *device = created;
    return 0;
  }

  void ReleasePlugIn(UsbPlugIn* plugIn) override { delete static_cast<LinuxUsbPlugIn*>(plugIn); }

  int GetDeviceVendor(UsbDeviceInterface* device, uint16_t* vid) override {
    *vid = Interface(device)->fields.vid;
    return 0;
  }
  int GetDeviceProduct(UsbDeviceInterface* device, uint16_t* pid) override {
    *pid = Interface(device)->fields.pid;
    return 0;
  }
  int GetManufacturerStringIndex(UsbDeviceInterface* device, uint8_t* index) override {
    *index = Interface(device)->fields.manufacturer_index;
    return 0;
  }
  int GetProductStringIndex(UsbDeviceInterface* device, uint8_t* index) override {
    *index = Interface(device)->fields.product_index;
    return 0;
  }

  bool GetStringText(UsbDeviceInterface* handle, UsbString which, std::string* text) override {
    LinuxUsbDeviceInterface* device = Interface(handle);
    LogWayOnce(device);
    const uint8_t index = which == UsbString::kManufacturer ? device->fields.manufacturer_index
                                                            : device->fields.product_index;
    const std::string* kept = SysfsText(*device, index);
    if (kept != nullptr) *text = *kept;
    return kept != nullptr;
  }

  int DeviceRequest(UsbDeviceInterface* handle, UsbDeviceRequest* request) override {
    LinuxUsbDeviceInterface* device = Interface(handle);
    request->wLenDone = 0;
    LogWayOnce(device);
    if (device->node_refusal != 0) return device->node_refusal;
    const int error = ControlTransfer(device->names.devnode, request);
    if (error == 0 || !IsHostRefusal(error)) return error;
    device->node_refusal = error;
    Log(QUENWICK_LEVEL_INFO, "usb device %s: control transfer on %s refused (%s); strings sysfs lacks stay empty",
        device->names.syspath.c_str(), device->names.devnode.c_str(), ErrorText(error).c_str());
    return error;
  }

  void ReleaseDeviceInterface(UsbDeviceInterface* device) override { delete Interface(device); }

  bool GetDeviceClass(UsbDeviceInterface* device, UsbClassCodes* codes) override {
    *codes = Interface(device)->fields.device_class;
    return true;
  }

  bool GetInterfaceClasses(UsbDeviceInterface* device, std::vector<UsbClassCodes>* interfaces) override {
    *interfaces = Interface(device)->interfaces;
    return Interface(device)->has_interfaces;
  }

  int AddInterestNotification(UsbService* service, UsbDeviceRemovedCallback callback, void* refCon,
                              UsbNotification** notification) override {
    auto* created = new LinuxUsbNotification;
    created->syspath = udev_device_get_syspath(Device(service));
    created->callback = callback;
    created->refCon = refCon;
    live_notifications_.insert(created);
    *notification = created;
    return 0;
  }

  void ReleaseNotification(UsbNotification* notification) override {
    auto* registered = static_cast<LinuxUsbNotification*>(notification);
    live_notifications_.erase(registered);
    delete registered;
  }

  void ReleaseService(UsbService* service) override {
    auto* linux_service = static_cast<LinuxUsbService*>(service);
    udev_device_unref(linux_service->device);
    delete linux_service;
  }

 private:
  static udev_device* Device(UsbService* service) {
    return static_cast<LinuxUsbService*>(service)->device;
  }
  static LinuxUsbDeviceInterface* Interface(UsbDeviceInterface* device) {
    return static_cast<LinuxUsbDeviceInterface*>(device);
  }

  // One line per device naming where its strings come from.
  static void LogWayOnce(LinuxUsbDeviceInterface* device) {
    if (device->path_logged) return;
    device->path_logged = true;
    const uint8_t indexes[] = {device->fields.manufacturer_index, device->fields.product_index};
    for (const uint8_t index : indexes) {
      if (index != 0 && SysfsText(*device, index) == nullptr) {
        Log(QUENWICK_LEVEL_INFO, "usb device %s: strings read by control transfer on %s (sysfs has no string %u)",
            device->names.syspath.c_str(), device->names.devnode.c_str(), index);
        return;
      }
    }
    Log(QUENWICK_LEVEL_INFO, "usb device %s: strings taken from sysfs", device->names.syspath.c_str());
  }

  // Queues a device for the arrival handler, unless it was delivered already and is still there.
  bool Deliver(udev_device* device) {
    if (!delivered_.insert(udev_device_get_syspath(device)).second) {
      udev_device_unref(device);
      return false;
    }
    iterator_.pending.push_back(device);
    return true;
  }

  void ReceiveEvent() {
    udev_device* device = udev_monitor_receive_device(monitor_);
    if (device == nullptr) return;
    const char* action = udev_device_get_action(device);
    const std::string verb = action != nullptr ? action : "";
    if (verb == "add") {
      if (Deliver(device)) added_callback_(added_refCon_, &iterator_);
      return;
    }
    const std::string syspath = udev_device_get_syspath(device);
    if (verb == "remove") delivered_.erase(syspath);
    Notify(device, syspath,
           verb == "remove" ? kUsbMessageServiceIsTerminated : kUsbMessageServiceChanged);
    udev_device_unref(device);
  }

  // Tells every registration of this device; a callback may release its own registration.
  void Notify(udev_device* device, const std::string& syspath, uint32_t messageType) {
    std::vector<LinuxUsbNotification*> targets;
    for (LinuxUsbNotification* notification : live_notifications_) {
      if (notification->syspath == syspath) targets.push_back(notification);
    }
    LinuxUsbService service;
    service.device = device;
    for (LinuxUsbNotification* notification : targets) {
      if (live_notifications_.count(notification) == 0) continue;
      notification->callback(notification->refCon, &service, messageType, nullptr);
    }
  }

  udev* udev_ = nullptr;
  udev_monitor* monitor_ = nullptr;
  posix::UniqueFd stop_fd_;
  LinuxUsbIterator iterator_;
  UsbDeviceAddedCallback added_callback_ = nullptr;
  void* added_refCon_ = nullptr;
  std::set<std::string> delivered_;
  std::set<LinuxUsbNotification*> live_notifications_;
};

}  // namespace

std::unique_ptr<UsbPlatform> CreateUsbPlatform() { return std::make_unique<LinuxUsbPlatform>(); }
