// The system's behaviour the macOS USB source relies on, strictly: arrivals reach a matching
// callback only once its iterator is drained; a CFRunLoopStop before CFRunLoopRun is lost; only a
// bounded GET_DESCRIPTOR(STRING) in US English is answered, the slots the source must not call are
// null; a misused handle or call ends the test. One lock guards everything; callbacks run without it.
#include "IOKitStandIn.h"

#include <IOKit/usb/IOUSBLib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>

struct CFObject;
namespace {

using iokit_standin::Device;
using Lock = std::lock_guard<std::mutex>;

// An IOKit handle: a service, an iterator or an interest registration, by its kind's name.
struct Object {
  std::string kind;
  Device device = {};               // a service's, or the device a registration is about
  std::deque<Device> pending = {};  // an iterator's
  bool armed = false;               // an iterator drained since the last announcement
  std::function<void(io_object_t self, io_object_t service, uint32_t messageType)> notify = nullptr;
};

// A plug (messageType 0) or a message about a device.
struct Event {
  Device device;
  uint32_t messageType;
};

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  iokit_standin::World* world = nullptr;
  std::map<io_object_t, Object> objects;
  io_object_t next_handle = 1;
  iokit_standin::Handles held;  // COM and CF objects, by kind
  int ports = 0;  // made since the world began: one per watcher thread
  std::deque<Event> events;
  bool busy = false;
  std::map<std::string, CFObject*> constants;  // interned CFSTR texts and UUIDs
};
// Never destroyed: a watcher thread may outlive the tests' statics.
State& g = *new State;

}  // namespace

// Every CF object, whatever its type in the headers; made and released with g.mutex held.
struct CFObject {
  CFObject(CFTypeID t, std::string s = {}, bool is_constant = false)
      : type(t), text(std::move(s)), constant(is_constant) { g.held["cf"] += !constant; }
  virtual ~CFObject() { g.held["cf"] -= !constant; }
  CFTypeID type;
  std::string text;  // a string's text, a matching dictionary's class name, a UUID's bytes
  bool constant;
  int refs = 1;
};
struct __CFString : CFObject { using CFObject::CFObject; };
struct __CFDictionary : CFObject { using CFObject::CFObject; };
struct __CFUUID : CFObject { using CFObject::CFObject; };
struct __CFRunLoopSource : CFObject {
  using CFObject::CFObject;
  CFRunLoopSourceContext context = {};
  bool signalled = false;
  CFRunLoopRef loop = nullptr;
};
// A port is its own run-loop source: the loop delivers events through it.
struct IONotificationPort : __CFRunLoopSource { using __CFRunLoopSource::__CFRunLoopSource; };
bool IsPort(CFRunLoopSourceRef source) { return dynamic_cast<IONotificationPort*>(source) != nullptr; }
struct __CFRunLoop {
  std::vector<CFRunLoopSourceRef> sources;
  bool stopped = false;
};

namespace {

enum CFType : CFTypeID { kString = 1, kDictionary, kUuid, kNumber, kSource };
constexpr IOReturn kPipeStalled = static_cast<IOReturn>(0xE000404F);  // kIOUSBPipeStalled

// The table pointer first, so that the object's address is the T** handed out; no AddRef.
struct ComObject {
  const void* table;
  Device device;
  const char* kind;
};

// A call the real framework would answer with a crash, or worse.
[[noreturn]] void Misuse(const char* what) {
  std::fprintf(stderr, "iokit stand-in: %s\n", what);
  std::abort();
}

io_object_t AddObject(Object object) {
  g.objects.emplace(g.next_handle, std::move(object));
  return g.next_handle++;
}

Object* Find(io_object_t handle, const char* kind) {
  const auto found = g.objects.find(handle);
  if (found == g.objects.end() || found->second.kind != kind) Misuse("a handle that is not what the call needs");
  return &found->second;
}

void ReleaseLocked(CFTypeRef ref) {
  auto* object = static_cast<CFObject*>(const_cast<void*>(ref));
  if (!object->constant && --object->refs == 0) delete object;
}

// A constant, made on first use; callers must not hold g.mutex.
template <typename T>
T* Intern(CFType type, const std::string& text) {
  Lock lock(g.mutex);
  CFObject*& slot = g.constants[std::to_string(type) + text];
  return static_cast<T*>(slot != nullptr ? slot : slot = new T(type, text, true));
}

void* NewCom(const void* table, const Device& device, const char* kind) {
  return ++g.held[kind], new ComObject{table, device, kind};
}

ULONG Release(void* self) {
  Lock lock(g.mutex);
  --g.held[static_cast<ComObject*>(self)->kind];
  delete static_cast<ComObject*>(self);
  return 0;
}

Device& DeviceOf(void* self) { return static_cast<ComObject*>(self)->device; }

const IOUSBDeviceInterface942 kDeviceTable = [] {
  IOUSBDeviceInterface942 table = {};
  table.Release = Release;
  table.GetDeviceClass = [](void* self, UInt8* c) { return *c = DeviceOf(self).device_class.class_code, 0; };
  table.GetDeviceSubClass = [](void* self, UInt8* c) { return *c = DeviceOf(self).device_class.subclass, 0; };
  table.GetDeviceProtocol = [](void* self, UInt8* c) { return *c = DeviceOf(self).device_class.protocol, 0; };
  table.GetDeviceVendor = [](void* self, UInt16* vid) { return *vid = DeviceOf(self).vid, kIOReturnSuccess; };
  table.GetDeviceProduct = [](void* self, UInt16* pid) { return *pid = DeviceOf(self).pid, kIOReturnSuccess; };
  table.USBGetManufacturerStringIndex = [](void* self, UInt8* i) { return *i = DeviceOf(self).manufacturer_index, 0; };
  table.USBGetProductStringIndex = [](void* self, UInt8* i) { return *i = DeviceOf(self).product_index, 0; };
  table.GetNumberOfConfigurations = [](void* self, UInt8* n) { return *n = !DeviceOf(self).configuration.empty(), 0; };
  table.GetConfigurationDescriptorPtr = [](void* self, UInt8 index, IOUSBConfigurationDescriptorPtr* out) {
    auto& bytes = DeviceOf(self).configuration;
    *out = index == 0 ? reinterpret_cast<IOUSBConfigurationDescriptorPtr>(bytes.data()) : nullptr;
    return *out != nullptr ? kIOReturnSuccess : kIOReturnUnsupported;
  };
  table.DeviceRequestTO = [](void* self, IOUSBDevRequestTO* req) -> IOReturn {
    req->wLenDone = 0;
    const auto found = DeviceOf(self).strings.find(static_cast<uint8_t>(req->wValue & 0xFF));
    if (req->bmRequestType != 0x80 || req->bRequest != 6 || req->wValue >> 8 != 3 || req->wIndex != 0x0409 ||
        req->noDataTimeout == 0 || req->completionTimeout == 0 || found == DeviceOf(self).strings.end()) {
      return kPipeStalled;
    }
    const iokit_standin::StringAnswer& answer = found->second;
    const size_t n = std::min<size_t>(answer.bytes.size(), req->wLength);
    std::memcpy(req->pData, answer.bytes.data(), n);
    req->wLenDone = answer.wLenDone.value_or(static_cast<uint32_t>(n));
    return answer.result;
  };
  return table;
}();

const IOCFPlugInInterface kPlugInTable = [] {
  IOCFPlugInInterface table = {};
  table.QueryInterface = [](void* self, REFIID iid, LPVOID* out) -> HRESULT {
    *out = nullptr;
    int version = 0;  // of the device interface asked for, 0 for any other
    const std::pair<CFUUIDRef, int> ids[] = {
        {kIOUSBDeviceInterfaceID942, 942}, {kIOUSBDeviceInterfaceID650, 650}, {kIOUSBDeviceInterfaceID500, 500}};
    for (const auto& [id, v] : ids) version = std::memcmp(id->text.data(), &iid, sizeof iid) == 0 ? v : version;
    Lock lock(g.mutex);
    const Device& device = DeviceOf(self);
    if (version == 0 || version > device.interface_version) return E_NOINTERFACE;
    if (device.interface_result != 0) return device.interface_result;
    *out = NewCom(&kDeviceTable, device, "interface");
    return S_OK;
  };
  table.Release = Release;
  return table;
}();

// Hands one event to the registrations it concerns; called with the lock held.
void Deliver(std::unique_lock<std::mutex>& lock, const Event& event) {
  const bool plug = event.messageType == 0;
  if (plug) g.world->attached.push_back(event.device);
  std::vector<io_object_t> targets;
  for (auto& [handle, object] : g.objects) {
    if (plug && object.kind == "iterator") {
      object.pending.push_back(event.device);
      if (object.armed) targets.push_back(handle);
      object.armed = false;
    } else if (!plug && object.kind == "notification" && object.device.id == event.device.id) {
      targets.push_back(handle);
    }
  }
  // A registration released by an earlier callback of the same event is skipped.
  for (io_object_t target : targets) {
    const auto found = g.objects.find(target);
    if (found == g.objects.end()) continue;
    const Object registration = found->second;
    const io_object_t service = plug ? 0 : AddObject({"service", registration.device});
    lock.unlock();
    registration.notify(target, service, event.messageType);
    lock.lock();
    g.objects.erase(service);
  }
}

}  // namespace

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = new __CFString(kString, "kCFRunLoopDefaultMode", true);

void CFRelease(CFTypeRef ref) {
  if (ref == nullptr) Misuse("CFRelease(NULL)");
  Lock lock(g.mutex);
  ReleaseLocked(ref);
}

CFTypeID CFGetTypeID(CFTypeRef ref) { return static_cast<const CFObject*>(ref)->type; }
CFTypeID CFStringGetTypeID(void) { return kString; }

Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size, CFStringEncoding encoding) {
  if (string->type != kString) Misuse("CFStringGetCString on something else than a text");
  if (encoding != kCFStringEncodingUTF8 || string->text.size() + 1 > static_cast<size_t>(size)) return false;
  std::memcpy(buffer, string->text.c_str(), string->text.size() + 1);
  return true;
}

CFStringRef __CFStringMakeConstantString(const char* text) { return Intern<__CFString>(kString, text); }

CFUUIDRef CFUUIDGetConstantUUIDWithBytes(CFAllocatorRef, UInt8 b0, UInt8 b1, UInt8 b2, UInt8 b3, UInt8 b4, UInt8 b5,
                                         UInt8 b6, UInt8 b7, UInt8 b8, UInt8 b9, UInt8 b10, UInt8 b11, UInt8 b12,
                                         UInt8 b13, UInt8 b14, UInt8 b15) {
  const UInt8 bytes[] = {b0, b1, b2, b3, b4, b5, b6, b7, b8, b9, b10, b11, b12, b13, b14, b15};
  return Intern<__CFUUID>(kUuid, std::string(bytes, bytes + sizeof bytes));
}

CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef uuid) { return *reinterpret_cast<const CFUUIDBytes*>(uuid->text.data()); }

CFRunLoopRef CFRunLoopGetCurrent(void) { thread_local __CFRunLoop loop; return &loop; }

void CFRunLoopRun(void) {
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  std::unique_lock<std::mutex> lock(g.mutex);
  loop->stopped = false;  // each run starts afresh: an earlier stop is lost
  const auto& sources = loop->sources;
  while (!loop->stopped && !sources.empty()) {
    const auto fired = std::find_if(sources.begin(), sources.end(), [](auto s) { return s->signalled; });
    if (fired != sources.end()) {
      (*fired)->signalled = false;
      const CFRunLoopSourceContext context = (*fired)->context;
      lock.unlock();
      if (context.perform != nullptr) context.perform(context.info);
      lock.lock();
    } else if (g.events.empty() || std::none_of(sources.begin(), sources.end(), IsPort)) {
      g.changed.wait(lock);
    } else {
      const Event event = g.events.front();
      g.events.pop_front();
      g.busy = true;
      Deliver(lock, event);
      g.busy = false;
      g.changed.notify_all();
    }
  }
}

void CFRunLoopStop(CFRunLoopRef loop) { Lock lock(g.mutex); loop->stopped = true; g.changed.notify_all(); }

void CFRunLoopWakeUp(CFRunLoopRef) { Lock lock(g.mutex); g.changed.notify_all(); }

void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode) {
  Lock lock(g.mutex);
  if (source->loop != nullptr) Misuse("a source added to a second loop");
  loop->sources.push_back(source);
  source->loop = loop;
  ++source->refs;
}

CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef, CFIndex, CFRunLoopSourceContext* context) {
  Lock lock(g.mutex);
  auto* source = new __CFRunLoopSource(kSource);
  source->context = *context;
  return source;
}

// No wake-up: the loop sees it when it next looks.
void CFRunLoopSourceSignal(CFRunLoopSourceRef source) { Lock lock(g.mutex); source->signalled = true; }

// A source is on one loop at most: invalidating it takes it off, with the loop's reference.
void CFRunLoopSourceInvalidate(CFRunLoopSourceRef source) {
  Lock lock(g.mutex);
  if (source->loop == nullptr) return;
  auto& sources = source->loop->sources;
  sources.erase(std::find(sources.begin(), sources.end(), source));
  source->loop = nullptr;
  ReleaseLocked(source);
}

IONotificationPortRef IONotificationPortCreate(mach_port_t mainPort) {
  if (mainPort != MACH_PORT_NULL) Misuse("a main port other than the default");
  Lock lock(g.mutex);
  ++g.ports;
  return new IONotificationPort(kSource);
}

void IONotificationPortDestroy(IONotificationPortRef port) { CFRunLoopSourceInvalidate(port); CFRelease(port); }

CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) { return port; }

kern_return_t IOObjectRelease(io_object_t object) {
  Lock lock(g.mutex);
  if (g.objects.erase(object) != 1) Misuse("IOObjectRelease of a handle not held");
  return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
  Lock lock(g.mutex);
  Object* it = Find(iterator, "iterator");
  it->armed = it->pending.empty();
  if (it->armed) return 0;
  const io_object_t service = AddObject({"service", it->pending.front()});
  it->pending.pop_front();
  return service;
}

CFMutableDictionaryRef IOServiceMatching(const char* name) {
  Lock lock(g.mutex);
  return g.world->matching_fails ? nullptr : new __CFDictionary(kDictionary, name);
}

kern_return_t IOServiceAddMatchingNotification(IONotificationPortRef, const io_name_t type,
                                               CFDictionaryRef matching, IOServiceMatchingCallback callback,
                                               void* refCon, io_iterator_t* notification) {
  Lock lock(g.mutex);
  const bool usb_devices = matching->text == kIOUSBDeviceClassName;
  ReleaseLocked(matching);  // consumed on every answer
  if (std::strcmp(type, kIOFirstMatchNotification) != 0 || !usb_devices) return kIOReturnUnsupported;
  if (g.world->add_matching_result != 0) return g.world->add_matching_result;
  *notification = AddObject({"iterator", {}, {g.world->attached.begin(), g.world->attached.end()}, false,
                             [=](io_object_t it, io_object_t, uint32_t) { callback(refCon, it); }});
  return KERN_SUCCESS;
}

kern_return_t IOServiceAddInterestNotification(IONotificationPortRef, io_service_t service,
                                               const io_name_t type, IOServiceInterestCallback callback,
                                               void* refCon, io_object_t* notification) {
  Lock lock(g.mutex);
  const Device device = Find(service, "service")->device;
  if (std::strcmp(type, kIOGeneralInterest) != 0) return kIOReturnUnsupported;
  if (device.interest_result != 0) return device.interest_result;
  *notification = AddObject({"notification", device, {}, false, [=](io_object_t, io_object_t s, uint32_t type) {
                               callback(refCon, s, type, nullptr);
                             }});
  return KERN_SUCCESS;
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef, IOOptionBits) {
  Lock lock(g.mutex);
  const Device& device = Find(entry, "service")->device;
  const auto& text = key->text == kUSBVendorString ? device.vendor_name
                     : key->text == kUSBProductString ? device.product_name : std::nullopt;
  return text ? new __CFString(kString, *text) : nullptr;
}

CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane, CFStringRef key,
                                          CFAllocatorRef, IOOptionBits) {
  Lock lock(g.mutex);
  const Device& device = Find(entry, "service")->device;
  if (std::strcmp(plane, kIOServicePlane) != 0 || key->text != kUSBSerialNumberString) return nullptr;
  if (device.serial_is_number) return new CFObject(kNumber);
  return device.serial ? new __CFString(kString, *device.serial) : nullptr;
}

kern_return_t IOCreatePlugInInterfaceForService(io_service_t service, CFUUIDRef pluginType,
                                                CFUUIDRef interfaceType, IOCFPlugInInterface*** plugIn,
                                                SInt32* score) {
  const bool usb_device = pluginType == kIOUSBDeviceUserClientTypeID && interfaceType == kIOCFPlugInInterfaceID;
  Lock lock(g.mutex);
  *plugIn = nullptr;
  *score = 0;
  const Device& device = Find(service, "service")->device;
  if (!usb_device) return kIOReturnUnsupported;
  if (device.plugin_result != 0 || device.plugin_missing) return device.plugin_result;
  *plugIn = static_cast<IOCFPlugInInterface**>(NewCom(&kPlugInTable, device, "plug-in"));
  return KERN_SUCCESS;
}

namespace iokit_standin {

World::World() { Lock lock(g.mutex); g.world = this; g.events.clear(); g.ports = 0; }

World::~World() { Lock lock(g.mutex); g.world = nullptr; }

bool World::Send(const Device& device, uint32_t messageType) {
  std::unique_lock<std::mutex> lock(g.mutex);
  g.events.push_back({device, messageType});
  g.changed.notify_all();
  return g.changed.wait_for(lock, std::chrono::seconds(5), [] { return g.events.empty() && !g.busy; });
}

Handles World::Outstanding() {
  Lock lock(g.mutex);
  Handles held;
  for (const auto& [kind, count] : g.held) if (count != 0) held[kind] = count;
  for (const auto& [handle, object] : g.objects) ++held[object.kind];
  return held;
}

int World::PortsCreated() { Lock lock(g.mutex); return g.ports; }

}  // namespace iokit_standin
