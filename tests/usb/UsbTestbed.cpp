#include "UsbTestbed.h"

#include <glib/gstdio.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <umockdev.h>
#include <unistd.h>

#include <atomic>
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
  std::atomic<int> transfers{0};  // counted on umockdev's own thread
};

namespace {

using Bytes = std::vector<unsigned char>;

void Append(Bytes* bytes, std::initializer_list<unsigned char> more) { bytes->insert(bytes->end(), more); }

Bytes DeviceDescriptor(const SimulatedUsbDevice& d) {
  const auto low = [](unsigned value) { return static_cast<unsigned char>(value & 0xFF); };
  Bytes bytes = {18, 1, 0x00, 0x02, d.device_class, 0, 0, 64, low(d.vid), low(d.vid >> 8), low(d.pid), low(d.pid >> 8),
                 0x00, 0x01, d.manufacturer_index, d.product_index, 3, 1};
  if (d.interfaces.empty()) return bytes;
  const size_t total = 9 + 9 * d.interfaces.size();
  Append(&bytes, {9, 2, low(total), low(total >> 8), low(d.interfaces.size()), 1, 0, 0x80, 250});
  unsigned char number = 0;
  for (const auto& [cls, subclass, protocol] : d.interfaces) Append(&bytes, {9, 4, number++, 0, 0, cls, subclass, protocol, 0});
  return bytes;
}

// An index without text has no answer (a stall).
std::optional<Bytes> StringDescriptor(const SimulatedUsbDevice& device, uint8_t index) {
  const auto text = device.strings.find(index);
  if (text == device.strings.end()) return std::nullopt;
  Bytes bytes = {static_cast<unsigned char>(2 + 2 * text->second.size()), 3};
  for (char16_t unit : text->second) Append(&bytes, {static_cast<unsigned char>(unit & 0xFF), static_cast<unsigned char>(unit >> 8)});
  return bytes;
}

gboolean AnswerControlTransfer(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
  auto* handler = static_cast<UsbTestbed::Handler*>(data);
  if (umockdev_ioctl_client_get_request(client) != USBDEVFS_CONTROL) return FALSE;
  UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
  UMockdevIoctlData* setup = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_ctrltransfer), nullptr);
  if (setup == nullptr) return FALSE;
  const usbdevfs_ctrltransfer transfer = *static_cast<usbdevfs_ctrltransfer*>(static_cast<void*>(setup->data));
  ++handler->owner->transfers;
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

void ThrowUnless(gboolean done, GError* error, const char* what) {
  if (done) return;
  const std::string message = error != nullptr ? error->message : what;
  g_clear_error(&error);
  throw std::runtime_error(message);
}

}  // namespace

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
  char node[32];
  std::snprintf(node, sizeof node, "bus/usb/001/%03d", device.number);
  const std::string syspath = "/sys/devices/pelmora-usb/1-" + std::to_string(device.number);
  GError* error = nullptr;
  if (device.has_node) {
    impl_->handlers.push_back(std::make_unique<Handler>(Handler{device, impl_.get(), umockdev_ioctl_base_new()}));
    Handler* handler = impl_->handlers.back().get();
    g_signal_connect(handler->base, "handle-ioctl", G_CALLBACK(AnswerControlTransfer), handler);
    ThrowUnless(umockdev_testbed_attach_ioctl(impl_->testbed, (std::string("/dev/") + node).c_str(), handler->base,
                                              &error),
                error, "attach failed");
  }
  std::string record = "P: " + syspath.substr(4) + "\n";
  if (device.has_node) record += std::string("N: ") + node + "\n";
  // umockdev sends "add" before it writes the binary attributes and the node, which a watcher
  // may read first; the device carries a type no watcher matches until it is whole.
  record += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device_in_making\nE: DEVNAME=/dev/" + std::string(node) + "\n";
  record += "E: BUSNUM=001\nE: DEVNUM=" + std::string(node + std::strlen(node) - 3) + "\n";
  record += "A: busnum=1\nA: devnum=" + std::to_string(device.number) + "\n";
  if (device.serial) record += "A: serial=" + *device.serial + "\n";
  if (device.sysfs_manufacturer) record += "A: manufacturer=" + *device.sysfs_manufacturer + "\n";
  if (device.sysfs_product) record += "A: product=" + *device.sysfs_product + "\n";
  const Bytes descriptors = device.descriptors.value_or(DeviceDescriptor(device));
  if (!descriptors.empty()) record += "H: descriptors=";
  for (unsigned char b : descriptors) record += "0123456789abcdef"[b >> 4], record += "0123456789abcdef"[b & 0xF];
  if (!descriptors.empty()) record += "\n";
  ThrowUnless(umockdev_testbed_add_from_string(impl_->testbed, record.c_str(), &error), error, "add failed");
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

int UsbTestbed::Transfers() { return impl_->transfers; }

bool UmockdevPreloaded() {
  const char* preload = std::getenv("LD_PRELOAD");
  return preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr;
}
