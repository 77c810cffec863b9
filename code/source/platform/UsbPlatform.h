// The operating system's side of the USB watcher: a source of arrival and termination events and
// the few per-device queries the watcher makes. One implementation per platform lives beside this
// header (UsbPlatformLinux.cpp with libudev and usbfs, UsbPlatformMac.cpp with IOKit), and
// CreateUsbPlatform() picks this system's. The watcher logic (ListenDeviceChangeMac) only sees this.
//
// Every call is made on the watcher thread, except StopLoop, which may come from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Opaque handles. Each platform derives its own structs from these and casts back; the logic only
// passes them around and hands each one back to the platform exactly once to be released.
struct UsbService {};          // one attached USB device, as the system names it
struct UsbIterator {};         // arrivals waiting to be taken
struct UsbPlugIn {};           // first step towards a device interface
struct UsbDeviceInterface {};  // what descriptor requests go through
struct UsbNotification {};     // a termination registration

// Message types of the termination callback. Only kUsbMessageServiceIsTerminated ends a device;
// a platform passes every other notification about a registered device as some other value.
inline constexpr uint32_t kUsbMessageServiceIsTerminated = 0xE0000010;
inline constexpr uint32_t kUsbMessageServiceChanged = 0xE0000130;

// Arrival: take services from the iterator with IteratorNext until it yields null.
using UsbDeviceAddedCallback = void (*)(void* refCon, UsbIterator* iterator);
// A notification about a registered device; refCon is the context given at registration. The
// service is only valid during the call.
using UsbDeviceRemovedCallback = void (*)(void* refCon, UsbService* service, uint32_t messageType,
                                          void* messageArgument);

// USB 2.0's values for the one request the watcher makes, GET_DESCRIPTOR(STRING).
inline constexpr uint8_t kUsbRequestTypeStandardDeviceIn = 0x80;  // device to host, standard, device
inline constexpr uint8_t kUsbRequestGetDescriptor = 6;
inline constexpr uint8_t kUsbDescriptorTypeString = 3;
inline constexpr uint16_t kUsbLanguageEnglishUs = 0x0409;

// USB-IF class codes: of one interface a device declares, or of the device descriptor itself.
struct UsbClassCodes {
  uint8_t class_code = 0;
  uint8_t subclass = 0;
  uint8_t protocol = 0;
};

// The two strings the watcher reads, by what they name.
enum class UsbString { kManufacturer, kProduct };

// One standard control transfer, device to host (the fields of USB 2.0's SETUP packet).
struct UsbDeviceRequest {
  uint8_t bmRequestType = 0;
  uint8_t bRequest = 0;
  uint16_t wValue = 0;
  uint16_t wIndex = 0;
  uint16_t wLength = 0;
  void* pData = nullptr;
  uint32_t wLenDone = 0;  // bytes transferred, filled by DeviceRequest
};

class UsbPlatform {
 public:
  virtual ~UsbPlatform() = default;

  // --- Event source, in the order the watcher thread uses it.
  // Prepares matching of USB devices; false when the system refuses.
  virtual bool CreateMatching() = 0;
  // Arms arrival notifications. On success (0) *iterator holds the devices attached now; later
  // arrivals are queued on the same iterator and announced through callback. Non-zero: a code.
  virtual int AddMatchingNotification(UsbDeviceAddedCallback callback, void* refCon,
                                      UsbIterator** iterator) = 0;
  // Delivers notifications on this thread, one at a time, until StopLoop.
  virtual void RunLoop() = 0;
  // Makes RunLoop return promptly (or return at once, if called before it). Any thread.
  virtual void StopLoop() = 0;

  // --- Arrivals.
  virtual UsbService* IteratorNext(UsbIterator* iterator) = 0;
  // The device's serial number property: false when it has none.
  virtual bool GetSerialNumberProperty(UsbService* service, std::string* serial) = 0;
  // 0 with *plugIn set on success; a non-zero code, or 0 with *plugIn null, on failure.
  virtual int CreatePlugInInterface(UsbService* service, UsbPlugIn** plugIn) = 0;
  // 0 with *device set on success. The caller releases the plug-in whatever the answer.
  virtual int QueryDeviceInterface(UsbPlugIn* plugIn, UsbDeviceInterface** device) = 0;
  virtual void ReleasePlugIn(UsbPlugIn* plugIn) = 0;
  virtual int GetDeviceVendor(UsbDeviceInterface* device, uint16_t* vid) = 0;
  virtual int GetDeviceProduct(UsbDeviceInterface* device, uint16_t* pid) = 0;
  virtual int GetManufacturerStringIndex(UsbDeviceInterface* device, uint8_t* index) = 0;
  virtual int GetProductStringIndex(UsbDeviceInterface* device, uint8_t* index) = 0;
  // The system's own UTF-8 copy of the device's string, read at enumeration (Linux: sysfs; macOS:
  // the registry); false when it keeps none, and the watcher then asks the device.
  virtual bool GetStringText(UsbDeviceInterface* /*device*/, UsbString /*which*/, std::string* /*text*/) {
    return false;
  }
  // One synchronous control transfer with a bounded time; 0 on success with wLenDone filled.
  virtual int DeviceRequest(UsbDeviceInterface* device, UsbDeviceRequest* request) = 0;
  virtual void ReleaseDeviceInterface(UsbDeviceInterface* device) = 0;
  // The class codes of the device descriptor; false when the platform cannot tell.
  virtual bool GetDeviceClass(UsbDeviceInterface* /*device*/, UsbClassCodes* /*codes*/) { return false; }
  // The interfaces of the device's configuration descriptors, read without asking the device.
  // False when the platform cannot tell; no device is then passed over for its interfaces.
  virtual bool GetInterfaceClasses(UsbDeviceInterface* /*device*/,
                                   std::vector<UsbClassCodes>* /*interfaces*/) {
    return false;
  }
  // Registers for the device's notifications: 0 with *notification set, or a non-zero code.
  virtual int AddInterestNotification(UsbService* service, UsbDeviceRemovedCallback callback,
                                      void* refCon, UsbNotification** notification) = 0;
  virtual void ReleaseNotification(UsbNotification* notification) = 0;
  virtual void ReleaseService(UsbService* service) = 0;
};

// This platform's implementation.
std::unique_ptr<UsbPlatform> CreateUsbPlatform();
// The IOKit implementation by its own name, so that tests elsewhere can build it against a
// simulated IOKit beside the native one.
std::unique_ptr<UsbPlatform> CreateMacUsbPlatform();
