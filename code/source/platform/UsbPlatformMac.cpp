// The USB watcher's platform on macOS: IOKit matching and interest notifications delivered on the
// watcher thread's run loop, the registry's serial number and string properties, and string
// descriptors read through the USB device interface without opening the device, for a string the
// registry lacks.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOCFPlugIn.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/IOMessage.h>
#include <IOKit/usb/IOUSBLib.h>

#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "UsbPlatform.h"

namespace {

// Main port 0 means "the default": kIOMasterPortDefault is deprecated from macOS 12 and
// kIOMainPortDefault exists only from 12, so neither name builds warning-free everywhere.
constexpr mach_port_t kDefaultMainPort = MACH_PORT_NULL;
constexpr UInt32 kControlTimeoutMs = 1000;
constexpr CFIndex kSerialNumberBufferSize = 260;  // text and its terminating zero
// A string descriptor holds at most 126 UTF-16 units, each at most 3 bytes of UTF-8.
constexpr CFIndex kStringTextBufferSize = 126 * 3 + 1;
constexpr uint8_t kInterfaceDescriptorType = 4;
constexpr size_t kInterfaceDescriptorLength = 9;

static_assert(kIOMessageServiceIsTerminated == kUsbMessageServiceIsTerminated,
              "the logic compares message types with IOKit's value");

// Every table from 182 on repeats the earlier slots in place, so the newest layout the headers
// declare serves any version asked for below, for the calls made here.
#ifdef kIOUSBDeviceInterfaceID942
using DeviceTable = IOUSBDeviceInterface942;
#else
using DeviceTable = IOUSBDeviceInterface650;
#endif

struct CFReleaser {
  void operator()(CFTypeRef object) const { CFRelease(object); }
};
using CFHolder = std::unique_ptr<const void, CFReleaser>;
struct PortDestroyer {
  void operator()(IONotificationPortRef port) const { IONotificationPortDestroy(port); }
};
struct SourceReleaser {
  void operator()(CFRunLoopSourceRef source) const {
    CFRunLoopSourceInvalidate(source);
    CFRelease(source);
  }
};
// An IOKit object handle, released once with its owner.
struct ObjectReleaser {
  ObjectReleaser() = default;
  ObjectReleaser(const ObjectReleaser&) = delete;
  ObjectReleaser& operator=(const ObjectReleaser&) = delete;
  ~ObjectReleaser() {
    if (object != 0) IOObjectRelease(object);
  }
  io_object_t object = 0;
};

struct MacUsbService : UsbService {
  explicit MacUsbService(io_service_t s) : service(s) {}
  io_service_t service;
};
struct MacUsbIterator : UsbIterator {
  ObjectReleaser iterator;
};
// IOKit's decoded copies of the device's manufacturer and product strings, from its registry
// entry; absent when the device has none or IOKit could not read them.
struct RegistryStrings {
  bool has_manufacturer = false;
  bool has_product = false;
  std::string manufacturer;
  std::string product;
};
struct MacUsbPlugIn : UsbPlugIn {
  IOCFPlugInInterface** plugIn = nullptr;
  RegistryStrings strings;
};
struct MacUsbDeviceInterface : UsbDeviceInterface {
  DeviceTable** device = nullptr;
  RegistryStrings strings;
};
struct MacUsbNotification : UsbNotification {
  ObjectReleaser registration;
  UsbDeviceRemovedCallback callback = nullptr;
  void* refCon = nullptr;
};

// A registry property as UTF-8 text; false when it is absent, no text, or longer than size - 1 bytes.
// The property is whatever the device's driver published: only a text is converted.
bool PropertyText(const CFHolder& property, CFIndex size, std::string* text) {
  if (property == nullptr || CFGetTypeID(property.get()) != CFStringGetTypeID()) return false;
  std::vector<char> buffer(static_cast<size_t>(size));
  if (!CFStringGetCString(static_cast<CFStringRef>(property.get()), buffer.data(), size, kCFStringEncodingUTF8)) {
    return false;
  }
  *text = buffer.data();
  return true;
}

// A text property of the device's own registry entry ("USB Vendor Name", say).
bool RegistryText(io_service_t service, CFStringRef key, std::string* text) {
  return PropertyText(CFHolder(IORegistryEntryCreateCFProperty(service, key, kCFAllocatorDefault, 0)),
                      kStringTextBufferSize, text);
}

io_service_t ServiceOf(UsbService* service) { return static_cast<MacUsbService*>(service)->service; }
DeviceTable** DeviceOf(UsbDeviceInterface* device) {
  return static_cast<MacUsbDeviceInterface*>(device)->device;
}

// The device interfaces to ask for, newest first; an older system answers E_NOINTERFACE for a
// newer one. The plain kIOUSBDeviceInterfaceID is version 100, whose table lacks the
// string-index calls, so it is never asked for.
CFUUIDRef DeviceInterfaceId(size_t rank) {
  const CFUUIDRef ids[] = {
#ifdef kIOUSBDeviceInterfaceID942
      kIOUSBDeviceInterfaceID942,
#endif
      kIOUSBDeviceInterfaceID650, kIOUSBDeviceInterfaceID500};
  return rank < std::size(ids) ? ids[rank] : nullptr;
}

class MacUsbPlatform : public UsbPlatform {
 public:
  bool CreateMatching() override {
    matching_.reset(IOServiceMatching(kIOUSBDeviceClassName));
    return matching_ != nullptr;
  }

  int AddMatchingNotification(UsbDeviceAddedCallback callback, void* refCon,
                              UsbIterator** iterator) override {
    port_.reset(IONotificationPortCreate(kDefaultMainPort));
    if (port_ == nullptr) return kIOReturnNoMemory;
    added_callback_ = callback;
    added_refCon_ = refCon;
    // The registration consumes the dictionary, whatever it answers.
    const auto matching = static_cast<CFDictionaryRef>(matching_.release());
    const kern_return_t kr = IOServiceAddMatchingNotification(
        port_.get(), kIOFirstMatchNotification, matching, &MacUsbPlatform::Arrived, this,
        &iterator_.iterator.object);
    if (kr != KERN_SUCCESS) return kr;

    run_loop_ = CFRunLoopGetCurrent();
    CFRunLoopAddSource(run_loop_, IONotificationPortGetRunLoopSource(port_.get()), kCFRunLoopDefaultMode);
    // StopLoop signals this source rather than calling CFRunLoopStop, which is lost when it comes
    // before CFRunLoopRun has started; a signalled source fires as soon as the loop runs.
    CFRunLoopSourceContext context = {};
    context.perform = [](void*) { CFRunLoopStop(CFRunLoopGetCurrent()); };
    stop_source_.reset(CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context));
    if (stop_source_ == nullptr) return kIOReturnNoMemory;
    CFRunLoopAddSource(run_loop_, stop_source_.get(), kCFRunLoopDefaultMode);
    // The caller drains the iterator at once: IOKit announces later arrivals only after that.
    *iterator = &iterator_;
    return 0;
  }

  void RunLoop() override { CFRunLoopRun(); }

  void StopLoop() override {
    if (stop_source_ == nullptr) return;
    CFRunLoopSourceSignal(stop_source_.get());
    CFRunLoopWakeUp(run_loop_);
  }

  UsbService* IteratorNext(UsbIterator* iterator) override {
    const io_service_t service = IOIteratorNext(static_cast<MacUsbIterator*>(iterator)->iterator.object);
    return service == 0 ? nullptr : new MacUsbService(service);
  }

  bool GetSerialNumberProperty(UsbService* service, std::string* serial) override {
    const CFHolder property(IORegistryEntrySearchCFProperty(ServiceOf(service), kIOServicePlane,
                                                            CFSTR(kUSBSerialNumberString), kCFAllocatorDefault,
                                                            kIORegistryIterateRecursively));
    return PropertyText(property, kSerialNumberBufferSize, serial);
  }

  int CreatePlugInInterface(UsbService* service, UsbPlugIn** plugIn) override {
    *plugIn = nullptr;
    IOCFPlugInInterface** created = nullptr;
    SInt32 score = 0;
    const kern_return_t kr = IOCreatePlugInInterfaceForService(
        ServiceOf(service), kIOUSBDeviceUserClientTypeID, kIOCFPlugInInterfaceID, &created, &score);
    if (kr != KERN_SUCCESS || created == nullptr) return kr;
    auto* wrapped = new MacUsbPlugIn;
    wrapped->plugIn = created;
    RegistryStrings& strings = wrapped->strings;
    strings.has_manufacturer = RegistryText(ServiceOf(service), CFSTR(kUSBVendorString), &strings.manufacturer);
    strings.has_product = RegistryText(ServiceOf(service), CFSTR(kUSBProductString), &strings.product);
    *plugIn = wrapped;
    return 0;
  }

  int QueryDeviceInterface(UsbPlugIn* plugIn, UsbDeviceInterface** device) override {
    *device = nullptr;
    auto* wrapped_plugIn = static_cast<MacUsbPlugIn*>(plugIn);
    IOCFPlugInInterface** source = wrapped_plugIn->plugIn;
    HRESULT answer = E_NOINTERFACE;
    for (size_t rank = 0; answer == E_NOINTERFACE && DeviceInterfaceId(rank) != nullptr; ++rank) {
      DeviceTable** found = nullptr;
      answer = (*source)->QueryInterface(source, CFUUIDGetUUIDBytes(DeviceInterfaceId(rank)),
                                         reinterpret_cast<LPVOID*>(&found));
      if (answer == S_OK && found != nullptr) {
        auto* wrapped = new MacUsbDeviceInterface;
        wrapped->device = found;
        wrapped->strings = wrapped_plugIn->strings;
        *device = wrapped;
        return 0;
      }
      if (found != nullptr) (*found)->Release(found);
    }
    return answer;
  }

  void ReleasePlugIn(UsbPlugIn* plugIn) override {
    auto* wrapped = static_cast<MacUsbPlugIn*>(plugIn);
    (*wrapped->plugIn)->Release(wrapped->plugIn);
    delete wrapped;
  }

  int GetDeviceVendor(UsbDeviceInterface* device, uint16_t* vid) override {
    return (*DeviceOf(device))->GetDeviceVendor(DeviceOf(device), vid);
  }
  int GetDeviceProduct(UsbDeviceInterface* device, uint16_t* pid) override {
    return (*DeviceOf(device))->GetDeviceProduct(DeviceOf(device), pid);
  }
  int GetManufacturerStringIndex(UsbDeviceInterface* device, uint8_t* index) override {
    return (*DeviceOf(device))->USBGetManufacturerStringIndex(DeviceOf(device), index);
  }
  int GetProductStringIndex(UsbDeviceInterface* device, uint8_t* index) override {
    return (*DeviceOf(device))->USBGetProductStringIndex(DeviceOf(device), index);
  }

  bool GetStringText(UsbDeviceInterface* device, UsbString which, std::string* text) override {
    const RegistryStrings& strings = static_cast<MacUsbDeviceInterface*>(device)->strings;
    const bool manufacturer = which == UsbString::kManufacturer;
    if (!(manufacturer ? strings.has_manufacturer : strings.has_product)) return false;
    *text = manufacturer ? strings.manufacturer : strings.product;
    return true;
  }

  int DeviceRequest(UsbDeviceInterface* device, UsbDeviceRequest* request) override {
    // DeviceRequestTO, on the unopened device: the plain DeviceRequest waits as long as the
    // device takes, and one silent device would hold up every later arrival.
    IOUSBDevRequestTO transfer = {};
    transfer.bmRequestType = request->bmRequestType;
    transfer.bRequest = request->bRequest;
    transfer.wValue = request->wValue;
    transfer.wIndex = request->wIndex;
    transfer.wLength = request->wLength;
    transfer.pData = request->pData;
    transfer.noDataTimeout = kControlTimeoutMs;
    transfer.completionTimeout = kControlTimeoutMs;
    const IOReturn kr = (*DeviceOf(device))->DeviceRequestTO(DeviceOf(device), &transfer);
    request->wLenDone = transfer.wLenDone;
    return kr;
  }

  // From the device descriptor IOKit read at enumeration.
  bool GetDeviceClass(UsbDeviceInterface* handle, UsbClassCodes* codes) override {
    DeviceTable** device = DeviceOf(handle);
    return (*device)->GetDeviceClass(device, &codes->class_code) == kIOReturnSuccess &&
           (*device)->GetDeviceSubClass(device, &codes->subclass) == kIOReturnSuccess &&
           (*device)->GetDeviceProtocol(device, &codes->protocol) == kIOReturnSuccess;
  }

  // From the configuration descriptors IOKit read at enumeration: nothing is sent to the device.
  bool GetInterfaceClasses(UsbDeviceInterface* handle, std::vector<UsbClassCodes>* interfaces) override {
    interfaces->clear();
    DeviceTable** device = DeviceOf(handle);
    UInt8 count = 0;
    if ((*device)->GetNumberOfConfigurations(device, &count) != kIOReturnSuccess) return false;
    for (UInt8 index = 0; index < count; ++index) {
      IOUSBConfigurationDescriptorPtr configuration = nullptr;
      if ((*device)->GetConfigurationDescriptorPtr(device, index, &configuration) != kIOReturnSuccess ||
          configuration == nullptr) {
        return false;
      }
      const auto* bytes = reinterpret_cast<const unsigned char*>(configuration);
      const size_t total = bytes[2] | bytes[3] << 8;  // wTotalLength, little-endian as on the wire
      for (size_t at = 0; at < total; at += bytes[at]) {
        if (bytes[at] < 2 || at + bytes[at] > total) return false;  // a descriptor that does not chain
        if (bytes[at + 1] == kInterfaceDescriptorType && bytes[at] >= kInterfaceDescriptorLength) {
          interfaces->push_back({bytes[at + 5], bytes[at + 6], bytes[at + 7]});
        }
      }
    }
    return !interfaces->empty();
  }

  void ReleaseDeviceInterface(UsbDeviceInterface* device) override {
    (*DeviceOf(device))->Release(DeviceOf(device));
    delete static_cast<MacUsbDeviceInterface*>(device);
  }

  int AddInterestNotification(UsbService* service, UsbDeviceRemovedCallback callback, void* refCon,
                              UsbNotification** notification) override {
    auto created = std::make_unique<MacUsbNotification>();
    created->callback = callback;
    created->refCon = refCon;
    const kern_return_t kr = IOServiceAddInterestNotification(
        port_.get(), ServiceOf(service), kIOGeneralInterest, &MacUsbPlatform::Notified, created.get(),
        &created->registration.object);
    if (kr != KERN_SUCCESS) return kr;
    *notification = created.release();
    return 0;
  }

  void ReleaseNotification(UsbNotification* notification) override {
    delete static_cast<MacUsbNotification*>(notification);
  }

  void ReleaseService(UsbService* service) override {
    IOObjectRelease(ServiceOf(service));
    delete static_cast<MacUsbService*>(service);
  }

 private:
  static void Arrived(void* refCon, io_iterator_t /*iterator*/) {
    auto* self = static_cast<MacUsbPlatform*>(refCon);
    self->added_callback_(self->added_refCon_, &self->iterator_);
  }

  // The callback may release its own registration: nothing of it is touched afterwards.
  static void Notified(void* refCon, io_service_t service, uint32_t messageType, void* argument) {
    auto* registration = static_cast<MacUsbNotification*>(refCon);
    MacUsbService borrowed(service);
    registration->callback(registration->refCon, &borrowed, messageType, argument);
  }

  // Released in reverse order: the stop source (invalidating takes it off the loop), the
  // arrival iterator, then the port with its own run-loop source.
  std::unique_ptr<std::remove_pointer_t<CFMutableDictionaryRef>, CFReleaser> matching_;
  std::unique_ptr<std::remove_pointer_t<IONotificationPortRef>, PortDestroyer> port_;
  MacUsbIterator iterator_;
  CFRunLoopRef run_loop_ = nullptr;
  std::unique_ptr<std::remove_pointer_t<CFRunLoopSourceRef>, SourceReleaser> stop_source_;
  UsbDeviceAddedCallback added_callback_ = nullptr;
  void* added_refCon_ = nullptr;
};

}  // namespace

std::unique_ptr<UsbPlatform> CreateMacUsbPlatform() { return std::make_unique<MacUsbPlatform>(); }

#ifdef __APPLE__
std::unique_ptr<UsbPlatform> CreateUsbPlatform() { return CreateMacUsbPlatform(); }
#endif
