// The behaviour behind the stand-in headers, as far as the macOS USB source relies on it:
// - arrivals reach a matching callback only once its iterator has been drained (that arms it);
// - a CFRunLoopStop issued before CFRunLoopRun is forgotten when the run starts, and a source
//   signalled from another thread fires when the loop next wakes (CFRunLoopWakeUp);
// - a device interface newer than the simulated system offers is refused with E_NOINTERFACE;
// - unimplemented slots (USBDeviceOpen, the unbounded DeviceRequest ...) are null, so a call
//   that the source must not make crashes the test.
// One lock guards everything; callbacks run without it, on the thread running the loop.
#include "IOKitStandIn.h"

#include <IOKit/IOMessage.h>
#include <IOKit/usb/IOUSBLib.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "UsbPlatform.h"

struct CFObject {
  explicit CFObject(CFTypeID id, bool is_constant = false);
  virtual ~CFObject();
  CFTypeID type;
  bool constant;
  int refs = 1;
};
struct __CFString : CFObject {
  explicit __CFString(std::string t, bool is_constant = false) : CFObject(1, is_constant), text(std::move(t)) {}
  std::string text;
};
struct __CFDictionary : CFObject {
  explicit __CFDictionary(std::string name) : CFObject(2), class_name(std::move(name)) {}
  std::string class_name;
};
struct __CFUUID : CFObject {
  explicit __CFUUID(const CFUUIDBytes& b) : CFObject(3, true), bytes(b) {}
  CFUUIDBytes bytes;
};
struct CFNumberStandIn : CFObject {
  CFNumberStandIn() : CFObject(4) {}
};
struct __CFRunLoopSource : CFObject {
  __CFRunLoopSource() : CFObject(5) {}
  CFRunLoopSourceContext context = {};
  bool signalled = false;
  IONotificationPortRef port = nullptr;  // set for a notification port's source
  std::set<CFRunLoopRef> loops;
};
struct __CFRunLoop {
  std::vector<CFRunLoopSourceRef> sources;
  bool stopped = false;
};
struct IONotificationPort {
  CFRunLoopSourceRef source = nullptr;
};

namespace {

using iokit_standin::Device;

constexpr IOReturn kPipeStalled = static_cast<IOReturn>(0xE000404F);  // kIOUSBPipeStalled

// COM objects: the table pointer comes first, so that the object's address is the T** handed out.
template <typename Table>
struct ComObject {
  const Table* table;
  int refs;
  Device device;
};
using PlugInObject = ComObject<IOCFPlugInInterface>;
using DeviceObject = ComObject<IOUSBDeviceInterface942>;

struct Object {
  enum Kind { kService, kIterator, kInterest };
  Object(Kind k, Device d = {}) : kind(k), device(std::move(d)) {}
  Kind kind;
  Device device;                // kService, and the device a kInterest is about
  std::deque<Device> pending;   // kIterator
  bool armed = false;           // kIterator: drained since the last announcement
  IOServiceMatchingCallback added = nullptr;
  IOServiceInterestCallback interest = nullptr;
  void* refCon = nullptr;
};

struct Event {
  bool plug;
  Device device;
  uint32_t messageType;
};

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  iokit_standin::World* world = nullptr;
  std::map<io_object_t, Object> objects;
  io_object_t next_handle = 1;
  int cf_objects = 0, ports = 0, plugins = 0, interfaces = 0, platforms = 0;
  std::deque<Event> events;
  bool busy = false;
  std::vector<iokit_standin::Request> requests;
};
// Never destroyed: a watcher thread may outlive the tests' statics.
State& g = *new State;

// A call the real framework would answer with a crash, or worse.
[[noreturn]] void Misuse(const char* what) {
  std::fprintf(stderr, "iokit stand-in: %s\n", what);
  std::abort();
}

bool SameUuid(const CFUUIDBytes& a, CFUUIDRef b) { return std::memcmp(&a, &b->bytes, sizeof a) == 0; }

io_object_t AddObject(Object object) {
  const io_object_t handle = g.next_handle++;
  g.objects.emplace(handle, std::move(object));
  return handle;
}

Object* Find(io_object_t handle, Object::Kind kind) {
  const auto found = g.objects.find(handle);
  if (found == g.objects.end() || found->second.kind != kind) Misuse("a handle that is not what the call needs");
  return &found->second;
}

void ReleaseLocked(CFTypeRef ref) {
  auto* object = static_cast<CFObject*>(const_cast<void*>(ref));
  if (object->constant || --object->refs > 0) return;
  delete object;
}

void RemoveFromLoop(CFRunLoopRef loop, CFRunLoopSourceRef source) {
  auto& sources = loop->sources;
  const auto found = std::find(sources.begin(), sources.end(), source);
  if (found == sources.end()) return;
  sources.erase(found);
  source->loops.erase(loop);
  ReleaseLocked(source);
}

void InvalidateLocked(CFRunLoopSourceRef source) {
  const std::set<CFRunLoopRef> loops = source->loops;
  for (CFRunLoopRef loop : loops) RemoveFromLoop(loop, source);
}

// --- COM tables -----------------------------------------------------------------------------

template <typename T>
ULONG AddRef(void* self) {
  std::lock_guard<std::mutex> lock(g.mutex);
  return ++static_cast<T*>(self)->refs;
}
template <typename T>
ULONG Release(void* self) {
  std::lock_guard<std::mutex> lock(g.mutex);
  auto* object = static_cast<T*>(self);
  const ULONG left = --object->refs;
  if (left == 0) {
    if constexpr (std::is_same<T, PlugInObject>::value) --g.plugins;
    else --g.interfaces;
    delete object;
  }
  return left;
}
HRESULT NoInterface(void*, REFIID, LPVOID* out) {
  *out = nullptr;
  return E_NOINTERFACE;
}

const Device& DeviceOf(void* self) { return static_cast<DeviceObject*>(self)->device; }

const IOUSBDeviceInterface942 kDeviceTable = [] {
  IOUSBDeviceInterface942 table = {};
  table.QueryInterface = NoInterface;
  table.AddRef = AddRef<DeviceObject>;
  table.Release = Release<DeviceObject>;
  table.GetDeviceVendor = [](void* self, UInt16* vid) { return *vid = DeviceOf(self).vid, kIOReturnSuccess; };
  table.GetDeviceProduct = [](void* self, UInt16* pid) { return *pid = DeviceOf(self).pid, kIOReturnSuccess; };
  table.USBGetManufacturerStringIndex = [](void* self, UInt8* index) {
    return *index = DeviceOf(self).manufacturer_index, kIOReturnSuccess;
  };
  table.USBGetProductStringIndex = [](void* self, UInt8* index) {
    return *index = DeviceOf(self).product_index, kIOReturnSuccess;
  };
  table.GetNumberOfConfigurations = [](void* self, UInt8* count) {
    return *count = DeviceOf(self).configuration.empty() ? 0 : 1, kIOReturnSuccess;
  };
  table.GetConfigurationDescriptorPtr = [](void* self, UInt8 index,
                                           IOUSBConfigurationDescriptorPtr* out) -> IOReturn {
    auto& bytes = static_cast<DeviceObject*>(self)->device.configuration;
    *out = index == 0 && !bytes.empty() ? reinterpret_cast<IOUSBConfigurationDescriptorPtr>(bytes.data())
                                        : nullptr;
    return *out != nullptr ? kIOReturnSuccess : kIOReturnBadArgument;
  };
  table.DeviceRequestTO = [](void* self, IOUSBDevRequestTO* req) -> IOReturn {
    {
      std::lock_guard<std::mutex> lock(g.mutex);
      g.requests.push_back({req->bmRequestType, req->bRequest, req->wValue, req->wIndex, req->wLength,
                            req->noDataTimeout, req->completionTimeout});
    }
    req->wLenDone = 0;
    const auto& strings = DeviceOf(self).strings;
    const auto found = strings.find(static_cast<uint8_t>(req->wValue & 0xFF));
    if (found == strings.end()) return kPipeStalled;
    const iokit_standin::StringAnswer& answer = found->second;
    const size_t n = std::min<size_t>(answer.bytes.size(), req->wLength);
    std::memcpy(req->pData, answer.bytes.data(), n);
    req->wLenDone = answer.wLenDone.value_or(static_cast<uint32_t>(n));
    return answer.result;
  };
  return table;
}();

// The version of a device interface ID, 0 for any other ID.
int DeviceInterfaceVersion(const CFUUIDBytes& iid) {
  if (SameUuid(iid, kIOUSBDeviceInterfaceID942)) return 942;
  if (SameUuid(iid, kIOUSBDeviceInterfaceID650)) return 650;
  if (SameUuid(iid, kIOUSBDeviceInterfaceID500)) return 500;
  return 0;
}

const IOCFPlugInInterface kPlugInTable = [] {
  IOCFPlugInInterface table = {};
  table.QueryInterface = [](void* self, REFIID iid, LPVOID* out) -> HRESULT {
    *out = nullptr;
    std::lock_guard<std::mutex> lock(g.mutex);
    const Device& device = static_cast<PlugInObject*>(self)->device;
    const int version = DeviceInterfaceVersion(iid);
    if (version == 0 || version > device.interface_version) return E_NOINTERFACE;
    if (device.interface_result != 0) return device.interface_result;
    ++g.interfaces;
    *out = new DeviceObject{&kDeviceTable, 1, device};
    return S_OK;
  };
  table.AddRef = AddRef<PlugInObject>;
  table.Release = Release<PlugInObject>;
  return table;
}();

}  // namespace

CFObject::CFObject(CFTypeID id, bool is_constant) : type(id), constant(is_constant) {
  if (!constant) ++g.cf_objects;
}
CFObject::~CFObject() {
  if (!constant) --g.cf_objects;
}

// --- CoreFoundation ---------------------------------------------------------------------------

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFRunLoopMode kCFRunLoopDefaultMode = new __CFString("kCFRunLoopDefaultMode", true);

void CFRelease(CFTypeRef ref) {
  if (ref == nullptr) Misuse("CFRelease(NULL)");
  std::lock_guard<std::mutex> lock(g.mutex);
  ReleaseLocked(ref);
}

CFTypeID CFGetTypeID(CFTypeRef ref) { return static_cast<const CFObject*>(ref)->type; }
CFTypeID CFStringGetTypeID(void) { return 1; }

Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size, CFStringEncoding encoding) {
  if (string->type != CFStringGetTypeID()) Misuse("CFStringGetCString on something else than a text");
  if (encoding != kCFStringEncodingUTF8 || string->text.size() + 1 > static_cast<size_t>(size)) return false;
  std::memcpy(buffer, string->text.c_str(), string->text.size() + 1);
  return true;
}

// Constants have a lock of their own: the ID macros are evaluated while g.mutex is held.
static std::mutex& ConstantsMutex() {
  static auto& mutex = *new std::mutex;
  return mutex;
}

CFStringRef __CFStringMakeConstantString(const char* text) {
  static auto& interned = *new std::map<std::string, CFStringRef>;
  std::lock_guard<std::mutex> lock(ConstantsMutex());
  CFStringRef& slot = interned[text];
  if (slot == nullptr) slot = new __CFString(text, true);
  return slot;
}

CFUUIDRef CFUUIDGetConstantUUIDWithBytes(CFAllocatorRef, UInt8 b0, UInt8 b1, UInt8 b2, UInt8 b3,
                                         UInt8 b4, UInt8 b5, UInt8 b6, UInt8 b7, UInt8 b8, UInt8 b9,
                                         UInt8 b10, UInt8 b11, UInt8 b12, UInt8 b13, UInt8 b14,
                                         UInt8 b15) {
  static auto& interned = *new std::map<std::vector<UInt8>, CFUUIDRef>;
  const CFUUIDBytes bytes = {b0, b1, b2, b3, b4, b5, b6, b7, b8, b9, b10, b11, b12, b13, b14, b15};
  std::lock_guard<std::mutex> lock(ConstantsMutex());
  CFUUIDRef& slot = interned[{b0, b1, b2, b3, b4, b5, b6, b7, b8, b9, b10, b11, b12, b13, b14, b15}];
  if (slot == nullptr) slot = new __CFUUID(bytes);
  return slot;
}

CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef uuid) { return uuid->bytes; }

CFRunLoopRef CFRunLoopGetCurrent(void) {
  thread_local std::unique_ptr<__CFRunLoop> loop(new __CFRunLoop);
  return loop.get();
}

void CFRunLoopRun(void) {
  CFRunLoopRef loop = CFRunLoopGetCurrent();
  std::unique_lock<std::mutex> lock(g.mutex);
  loop->stopped = false;  // each run starts afresh: an earlier stop is lost
  for (;;) {
    if (loop->stopped || loop->sources.empty()) return;
    const auto fired = std::find_if(loop->sources.begin(), loop->sources.end(),
                                    [](CFRunLoopSourceRef s) { return s->signalled; });
    if (fired != loop->sources.end()) {
      (*fired)->signalled = false;
      const CFRunLoopSourceContext context = (*fired)->context;
      lock.unlock();
      if (context.perform != nullptr) context.perform(context.info);
      lock.lock();
      continue;
    }
    const bool has_port = std::any_of(loop->sources.begin(), loop->sources.end(),
                                      [](CFRunLoopSourceRef s) { return s->port != nullptr; });
    if (!has_port || g.events.empty()) {
      g.changed.wait(lock);
      continue;
    }
    const Event event = g.events.front();
    g.events.pop_front();
    g.busy = true;
    // Gather the callbacks under the lock, call them without it; a registration released by an
    // earlier callback of the same event is skipped.
    std::vector<io_object_t> targets;
    if (event.plug) {
      if (g.world != nullptr) g.world->attached.push_back(event.device);
      for (auto& [handle, object] : g.objects) {
        if (object.kind != Object::kIterator) continue;
        object.pending.push_back(event.device);
        if (object.armed) targets.push_back(handle);
        object.armed = false;
      }
    } else {
      if (g.world != nullptr && event.messageType == kIOMessageServiceIsTerminated) {
        auto& attached = g.world->attached;
        attached.erase(std::remove_if(attached.begin(), attached.end(),
                                      [&](const Device& d) { return d.id == event.device.id; }),
                       attached.end());
      }
      for (auto& [handle, object] : g.objects) {
        if (object.kind == Object::kInterest && object.device.id == event.device.id) targets.push_back(handle);
      }
    }
    for (io_object_t target : targets) {
      const auto found = g.objects.find(target);
      if (found == g.objects.end()) continue;
      const Object registration = found->second;
      if (event.plug) {
        lock.unlock();
        registration.added(registration.refCon, target);
        lock.lock();
      } else {
        const io_object_t service = AddObject(Object(Object::kService, registration.device));
        lock.unlock();
        registration.interest(registration.refCon, service, event.messageType, nullptr);
        lock.lock();
        g.objects.erase(service);
      }
    }
    g.busy = false;
    g.changed.notify_all();
  }
}

void CFRunLoopStop(CFRunLoopRef loop) {
  std::lock_guard<std::mutex> lock(g.mutex);
  loop->stopped = true;
  g.changed.notify_all();
}

void CFRunLoopWakeUp(CFRunLoopRef) {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.changed.notify_all();
}

void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode) {
  std::lock_guard<std::mutex> lock(g.mutex);
  if (!source->loops.insert(loop).second) return;
  loop->sources.push_back(source);
  ++source->refs;
}

void CFRunLoopRemoveSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode) {
  std::lock_guard<std::mutex> lock(g.mutex);
  RemoveFromLoop(loop, source);
}

CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef, CFIndex, CFRunLoopSourceContext* context) {
  std::lock_guard<std::mutex> lock(g.mutex);
  auto* source = new __CFRunLoopSource;
  source->context = *context;
  return source;
}

void CFRunLoopSourceSignal(CFRunLoopSourceRef source) {
  std::lock_guard<std::mutex> lock(g.mutex);
  source->signalled = true;  // no wake-up: the loop sees it when it next looks
}

void CFRunLoopSourceInvalidate(CFRunLoopSourceRef source) {
  std::lock_guard<std::mutex> lock(g.mutex);
  InvalidateLocked(source);
}

// --- IOKit ------------------------------------------------------------------------------------

IONotificationPortRef IONotificationPortCreate(mach_port_t) {
  std::lock_guard<std::mutex> lock(g.mutex);
  auto* port = new IONotificationPort;
  auto* source = new __CFRunLoopSource;
  source->port = port;
  port->source = source;
  ++g.ports;
  return port;
}

void IONotificationPortDestroy(IONotificationPortRef port) {
  std::lock_guard<std::mutex> lock(g.mutex);
  InvalidateLocked(port->source);
  ReleaseLocked(port->source);
  delete port;
  --g.ports;
}

CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port) { return port->source; }

kern_return_t IOObjectRelease(io_object_t object) {
  std::lock_guard<std::mutex> lock(g.mutex);
  return g.objects.erase(object) == 1 ? KERN_SUCCESS : kIOReturnBadArgument;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
  std::lock_guard<std::mutex> lock(g.mutex);
  Object* it = Find(iterator, Object::kIterator);
  if (it->pending.empty()) {
    it->armed = true;
    return 0;
  }
  Device device = it->pending.front();
  it->pending.pop_front();
  return AddObject(Object(Object::kService, std::move(device)));
}

CFMutableDictionaryRef IOServiceMatching(const char* name) {
  std::lock_guard<std::mutex> lock(g.mutex);
  if (g.world != nullptr && g.world->matching_fails) return nullptr;
  return new __CFDictionary(name);
}

kern_return_t IOServiceAddMatchingNotification(IONotificationPortRef, const io_name_t type,
                                               CFDictionaryRef matching, IOServiceMatchingCallback callback,
                                               void* refCon, io_iterator_t* notification) {
  std::lock_guard<std::mutex> lock(g.mutex);
  const bool usb_devices = matching->class_name == kIOUSBDeviceClassName;
  ReleaseLocked(matching);  // consumed on every answer
  if (std::strcmp(type, kIOFirstMatchNotification) != 0 || !usb_devices) return kIOReturnUnsupported;
  if (g.world != nullptr && g.world->add_matching_result != 0) return g.world->add_matching_result;
  Object it(Object::kIterator);
  if (g.world != nullptr) it.pending.assign(g.world->attached.begin(), g.world->attached.end());
  it.added = callback;
  it.refCon = refCon;
  *notification = AddObject(std::move(it));
  return KERN_SUCCESS;
}

kern_return_t IOServiceAddInterestNotification(IONotificationPortRef, io_service_t service,
                                               const io_name_t type, IOServiceInterestCallback callback,
                                               void* refCon, io_object_t* notification) {
  std::lock_guard<std::mutex> lock(g.mutex);
  const Device device = Find(service, Object::kService)->device;
  if (std::strcmp(type, kIOGeneralInterest) != 0) return kIOReturnUnsupported;
  if (device.interest_result != 0) return device.interest_result;
  Object registration(Object::kInterest, device);
  registration.interest = callback;
  registration.refCon = refCon;
  *notification = AddObject(std::move(registration));
  return KERN_SUCCESS;
}

CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane, CFStringRef key,
                                          CFAllocatorRef, IOOptionBits) {
  std::lock_guard<std::mutex> lock(g.mutex);
  const Device& device = Find(entry, Object::kService)->device;
  if (std::strcmp(plane, kIOServicePlane) != 0 || key->text != kUSBSerialNumberString) return nullptr;
  if (device.serial_is_number) return new CFNumberStandIn;
  if (!device.serial) return nullptr;
  return new __CFString(*device.serial);
}

kern_return_t IOCreatePlugInInterfaceForService(io_service_t service, CFUUIDRef pluginType,
                                                CFUUIDRef interfaceType, IOCFPlugInInterface*** plugIn,
                                                SInt32* score) {
  std::lock_guard<std::mutex> lock(g.mutex);
  *plugIn = nullptr;
  *score = 0;
  const Device& device = Find(service, Object::kService)->device;
  if (pluginType != kIOUSBDeviceUserClientTypeID || interfaceType != kIOCFPlugInInterfaceID) {
    return kIOReturnUnsupported;
  }
  if (device.plugin_result != 0 || device.plugin_missing) return device.plugin_result;
  ++g.plugins;
  *plugIn = reinterpret_cast<IOCFPlugInInterface**>(new PlugInObject{&kPlugInTable, 1, device});
  return KERN_SUCCESS;
}

// --- The test's side --------------------------------------------------------------------------

namespace iokit_standin {

StringAnswer Text(const std::string& ascii) {
  StringAnswer answer;
  answer.bytes = {static_cast<unsigned char>(2 + 2 * ascii.size()), 3};
  for (char c : ascii) answer.bytes.insert(answer.bytes.end(), {static_cast<unsigned char>(c), 0});
  return answer;
}

World::World() {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.world = this;
  g.events.clear();
  g.requests.clear();
  g.platforms = 0;
}

World::~World() {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.world = nullptr;
}

UsbPlatformFactory World::Factory() {
  return [] {
    {
      std::lock_guard<std::mutex> lock(g.mutex);
      ++g.platforms;
    }
    return CreateMacUsbPlatform();
  };
}

void World::Plug(const Device& device) {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.events.push_back({true, device, 0});
  g.changed.notify_all();
}

void World::Unplug(const std::string& id) { Message(id, kIOMessageServiceIsTerminated); }

void World::Message(const std::string& id, uint32_t messageType) {
  Device device;
  device.id = id;
  std::lock_guard<std::mutex> lock(g.mutex);
  g.events.push_back({false, device, messageType});
  g.changed.notify_all();
}

bool World::WaitIdle(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(g.mutex);
  return g.changed.wait_for(lock, timeout, [] { return g.events.empty() && !g.busy; });
}

Handles World::Outstanding() {
  std::lock_guard<std::mutex> lock(g.mutex);
  Handles handles;
  for (const auto& [handle, object] : g.objects) {
    if (object.kind == Object::kService) ++handles.services;
    if (object.kind == Object::kInterest) ++handles.notifications;
    if (object.kind == Object::kIterator) ++handles.others;
  }
  handles.plugins = g.plugins;
  handles.interfaces = g.interfaces;
  handles.others += g.ports + g.cf_objects;
  return handles;
}

int World::PlatformsCreated() {
  std::lock_guard<std::mutex> lock(g.mutex);
  return g.platforms;
}

std::vector<Request> World::Requests() {
  std::lock_guard<std::mutex> lock(g.mutex);
  return g.requests;
}

}  // namespace iokit_standin
