#include "UsbTestbed.h"

#include <glib/gstdio.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

struct UsbTestbed::Handler {
  SimulatedUsbDevice device;
  UsbTestbed::Impl* owner = nullptr;
  UMockdevIoctlBase* base = nullptr;
};

struct UsbTestbed::Impl {
  UMockdevTestbed* testbed = nullptr;
  std::string sys_dir;
  std::vector<std::unique_ptr<Handler>> handlers;
  std::mutex mutex;  // the handlers answer on umockdev's own thread
  std::vector<Transfer> transfers;
  void RecordTransfer(const usbdevfs_ctrltransfer& transfer);
};

namespace {

std::string Hex(const std::vector<unsigned char>& bytes) {
  std::string text;
  char pair[3];
  for (unsigned char b : bytes) text.append(pair, std::snprintf(pair, sizeof pair, "%02x", b));
  return text;
}

std::vector<unsigned char> DeviceDescriptor(const SimulatedUsbDevice& d) {
  std::vector<unsigned char> bytes = {
      18, 1, 0x00, 0x02, 0, 0, 0, 64,
      static_cast<unsigned char>(d.vid & 0xFF), static_cast<unsigned char>(d.vid >> 8),
      static_cast<unsigned char>(d.pid & 0xFF), static_cast<unsigned char>(d.pid >> 8),
      0x00, 0x01, d.manufacturer_index, d.product_index, 3, 1};
  if (d.interfaces.empty()) return bytes;
  const size_t total = 9 + 9 * d.interfaces.size();
  const std::vector<unsigned char> configuration = {
      9, 2, static_cast<unsigned char>(total & 0xFF), static_cast<unsigned char>(total >> 8),
      static_cast<unsigned char>(d.interfaces.size()), 1, 0, 0x80, 250};
  bytes.insert(bytes.end(), configuration.begin(), configuration.end());
  unsigned char number = 0;
  for (const auto& [cls, subclass, protocol] : d.interfaces) {
    const std::vector<unsigned char> interface = {9, 4, number++, 0, 0, cls, subclass, protocol, 0};
    bytes.insert(bytes.end(), interface.begin(), interface.end());
  }
  return bytes;
}

constexpr const char* kIncompleteDevtype = "usb_device_in_making";

std::string NodeName(int number) {
  char name[32];
  std::snprintf(name, sizeof name, "bus/usb/001/%03d", number);
  return name;
}

// Index 0 answers the language table; an index without text has no answer (a stall).
std::optional<std::vector<unsigned char>> StringDescriptor(const SimulatedUsbDevice& device, uint8_t index) {
  if (index == 0) return std::vector<unsigned char>{4, 3, 0x09, 0x04};
  const auto text = device.strings.find(index);
  if (text == device.strings.end()) return std::nullopt;
  std::vector<unsigned char> bytes = {static_cast<unsigned char>(2 + 2 * text->second.size()), 3};
  for (char16_t unit : text->second) {
    bytes.insert(bytes.end(), {static_cast<unsigned char>(unit & 0xFF), static_cast<unsigned char>(unit >> 8)});
  }
  return bytes;
}

gboolean AnswerControlTransfer(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
  auto* handler = static_cast<UsbTestbed::Handler*>(data);
  if (umockdev_ioctl_client_get_request(client) != USBDEVFS_CONTROL) return FALSE;
  UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
  UMockdevIoctlData* setup = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_ctrltransfer), nullptr);
  if (setup == nullptr) return FALSE;
  const usbdevfs_ctrltransfer transfer = *static_cast<usbdevfs_ctrltransfer*>(static_cast<void*>(setup->data));
  handler->owner->RecordTransfer(transfer);
  const bool is_string_request = transfer.bRequestType == 0x80 && transfer.bRequest == 6 &&
                                 (transfer.wValue >> 8) == 3;
  const auto answer = StringDescriptor(handler->device, static_cast<uint8_t>(transfer.wValue & 0xFF));
  if (handler->device.fail_with_errno != 0) {
    umockdev_ioctl_client_complete(client, -1, handler->device.fail_with_errno);
  } else if (!is_string_request || !answer) {
    umockdev_ioctl_client_complete(client, -1, EPIPE);
  } else {
    const size_t n = std::min<size_t>(answer->size(), transfer.wLength);
    UMockdevIoctlData* buffer = umockdev_ioctl_data_resolve(
        setup, offsetof(usbdevfs_ctrltransfer, data), transfer.wLength, nullptr);
    if (buffer != nullptr) {
      std::memcpy(buffer->data, answer->data(), n);
      g_object_unref(buffer);
    }
    umockdev_ioctl_client_complete(client, buffer != nullptr ? static_cast<glong>(n) : -1,
                                   buffer != nullptr ? 0 : EFAULT);
  }
  g_object_unref(setup);
  return TRUE;
}

}  // namespace

void UsbTestbed::Impl::RecordTransfer(const usbdevfs_ctrltransfer& transfer) {
  std::lock_guard<std::mutex> lock(mutex);
  transfers.push_back({transfer.wValue, transfer.wIndex, transfer.wLength});
}

UsbTestbed::UsbTestbed() : impl_(std::make_unique<Impl>()) {
  impl_->testbed = umockdev_testbed_new();
  if (impl_->testbed == nullptr) throw std::runtime_error("umockdev testbed not created");
  gchar* sys = umockdev_testbed_get_sys_dir(impl_->testbed);
  impl_->sys_dir = sys;
  g_free(sys);
}

UsbTestbed::~UsbTestbed() {
  for (auto& handler : impl_->handlers) g_object_unref(handler->base);
  g_object_unref(impl_->testbed);
}

std::string UsbTestbed::Plug(const SimulatedUsbDevice& device) {
  const std::string node = NodeName(device.number);
  const std::string syspath = "/sys/devices/pelmora-usb/1-" + std::to_string(device.number);
  if (device.has_node) {
    auto handler = std::make_unique<Handler>();
    handler->device = device;
    handler->owner = impl_.get();
    handler->base = umockdev_ioctl_base_new();
    g_signal_connect(handler->base, "handle-ioctl", G_CALLBACK(AnswerControlTransfer), handler.get());
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(impl_->testbed, ("/dev/" + node).c_str(), handler->base, &error)) {
      const std::string message = error ? error->message : "attach failed";
      g_clear_error(&error);
      g_object_unref(handler->base);
      throw std::runtime_error(message);
    }
    impl_->handlers.push_back(std::move(handler));
  }
  std::string record = "P: " + syspath.substr(4) + "\n";
  if (device.has_node) record += "N: " + node + "\n";
  // umockdev sends "add" before it writes the binary attributes and the node, which a watcher
  // may read first; the device carries a type no watcher matches until it is whole.
  record += "E: SUBSYSTEM=usb\nE: DEVTYPE=" + std::string(kIncompleteDevtype) + "\n";
  record += "E: DEVNAME=/dev/" + node + "\n";
  record += "E: BUSNUM=001\nE: DEVNUM=" + node.substr(node.size() - 3) + "\n";
  record += "A: busnum=1\nA: devnum=" + std::to_string(device.number) + "\n";
  if (device.serial) record += "A: serial=" + *device.serial + "\n";
  if (device.sysfs_manufacturer) record += "A: manufacturer=" + *device.sysfs_manufacturer + "\n";
  if (device.sysfs_product) record += "A: product=" + *device.sysfs_product + "\n";
  const std::vector<unsigned char> descriptors = device.descriptors.value_or(DeviceDescriptor(device));
  if (!descriptors.empty()) record += "H: descriptors=" + Hex(descriptors) + "\n";
  GError* error = nullptr;
  if (!umockdev_testbed_add_from_string(impl_->testbed, record.c_str(), &error)) {
    const std::string message = error ? error->message : "add failed";
    g_clear_error(&error);
    throw std::runtime_error(message);
  }
  umockdev_testbed_set_property(impl_->testbed, syspath.c_str(), "DEVTYPE", "usb_device");
  umockdev_testbed_uevent(impl_->testbed, syspath.c_str(), "add");
  return syspath;
}

void UsbTestbed::Unplug(const std::string& syspath) {
  // The kernel's "remove" comes when the attributes are gone; udev reads only "uevent" then.
  const fs::path dir = impl_->sys_dir + syspath.substr(4);
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(dir, ignored)) {
    if (entry.path().filename() != "uevent" && !entry.is_directory(ignored)) fs::remove(entry.path(), ignored);
  }
  umockdev_testbed_uevent(impl_->testbed, syspath.c_str(), "remove");
  umockdev_testbed_remove_device(impl_->testbed, syspath.c_str());
}

void UsbTestbed::SendUevent(const std::string& syspath, const char* action) {
  umockdev_testbed_uevent(impl_->testbed, syspath.c_str(), action);
}

std::vector<UsbTestbed::Transfer> UsbTestbed::Transfers() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->transfers;
}

bool UmockdevPreloaded() {
  const char* preload = std::getenv("LD_PRELOAD");
  return preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr;
}
