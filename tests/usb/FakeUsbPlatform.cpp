#include "FakeUsbPlatform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace fake_usb {

namespace {

struct FakeService : UsbService {
  Device device;
};
struct FakeIterator : UsbIterator {
  std::deque<Device> pending;
};
struct FakePlugIn : UsbPlugIn {
  Device device;
};
struct FakeInterface : UsbDeviceInterface {
  Device device;
};
struct FakeNotification : UsbNotification {
  std::string id;
  UsbDeviceRemovedCallback callback = nullptr;
  void* refCon = nullptr;
};

}  // namespace

StringAnswer Text(const std::string& ascii) {
  StringAnswer answer;
  answer.bytes = {static_cast<unsigned char>(2 + 2 * ascii.size()), 3};
  for (char c : ascii) {
    answer.bytes.push_back(static_cast<unsigned char>(c));
    answer.bytes.push_back(0);
  }
  return answer;
}

class Platform : public UsbPlatform {
 public:
  explicit Platform(std::shared_ptr<World> world) : world_(std::move(world)) {}
  ~Platform() override {
    for (FakeNotification* n : live_) delete n;
  }

  bool CreateMatching() override { return !world_->matching_fails; }

  int AddMatchingNotification(UsbDeviceAddedCallback callback, void* refCon,
                              UsbIterator** iterator) override {
    if (world_->add_matching_result != 0) return world_->add_matching_result;
    callback_ = callback;
    refCon_ = refCon;
    iterator_.pending.assign(world_->attached.begin(), world_->attached.end());
    *iterator = &iterator_;
    return 0;
  }

  void RunLoop() override {
    std::unique_lock<std::mutex> lock(world_->mutex_);
    for (;;) {
      world_->changed_.wait(lock, [&] { return world_->stop_ || !world_->events_.empty(); });
      if (world_->stop_) return;
      World::Event event = world_->events_.front();
      world_->events_.pop_front();
      world_->busy_ = true;
      lock.unlock();
      Handle(event);
      lock.lock();
      world_->busy_ = false;
      world_->changed_.notify_all();
    }
  }

  void StopLoop() override {
    std::lock_guard<std::mutex> lock(world_->mutex_);
    world_->stop_ = true;
    world_->changed_.notify_all();
  }

  UsbService* IteratorNext(UsbIterator* iterator) override {
    auto* it = static_cast<FakeIterator*>(iterator);
    if (it->pending.empty()) return nullptr;
    auto* service = new FakeService;
    service->device = it->pending.front();
    it->pending.pop_front();
    Count(&Handles::services, +1);
    return service;
  }

  bool GetSerialNumberProperty(UsbService* service, std::string* serial) override {
    const Device& device = static_cast<FakeService*>(service)->device;
    if (!device.serial) return false;
    *serial = *device.serial;
    return true;
  }

  int CreatePlugInInterface(UsbService* service, UsbPlugIn** plugIn) override {
    const Device& device = static_cast<FakeService*>(service)->device;
    *plugIn = nullptr;
    if (device.plugin_result != 0 || device.plugin_missing) return device.plugin_result;
    auto* created = new FakePlugIn;
    created->device = device;
    Count(&Handles::plugins, +1);
    *plugIn = created;
    return 0;
  }

  int QueryDeviceInterface(UsbPlugIn* plugIn, UsbDeviceInterface** device) override {
    const Device& source = static_cast<FakePlugIn*>(plugIn)->device;
    *device = nullptr;
    if (source.interface_result != 0) return source.interface_result;
    auto* created = new FakeInterface;
    created->device = source;
    Count(&Handles::interfaces, +1);
    *device = created;
    return 0;
  }

  void ReleasePlugIn(UsbPlugIn* plugIn) override {
    delete static_cast<FakePlugIn*>(plugIn);
    Count(&Handles::plugins, -1);
  }

  int GetDeviceVendor(UsbDeviceInterface* device, uint16_t* vid) override {
    *vid = Of(device).vid;
    return 0;
  }
  int GetDeviceProduct(UsbDeviceInterface* device, uint16_t* pid) override {
    *pid = Of(device).pid;
    return 0;
  }
  int GetManufacturerStringIndex(UsbDeviceInterface* device, uint8_t* index) override {
    *index = Of(device).manufacturer_index;
    return 0;
  }
  int GetProductStringIndex(UsbDeviceInterface* device, uint8_t* index) override {
    *index = Of(device).product_index;
    return 0;
  }

  int DeviceRequest(UsbDeviceInterface* device, UsbDeviceRequest* request) override {
    {
      std::lock_guard<std::mutex> lock(world_->mutex_);
      world_->requests_.push_back({request->bmRequestType, request->bRequest, request->wValue,
                                   request->wIndex, request->wLength});
    }
    const auto& strings = Of(device).strings;
    const auto found = strings.find(static_cast<uint8_t>(request->wValue & 0xFF));
    if (found == strings.end()) return EPIPE;
    const StringAnswer& answer = found->second;
    const size_t n = std::min<size_t>(answer.bytes.size(), request->wLength);
    std::memcpy(request->pData, answer.bytes.data(), n);
    request->wLenDone = answer.wLenDone.value_or(static_cast<uint32_t>(n));
    return answer.result;
  }

  void ReleaseDeviceInterface(UsbDeviceInterface* device) override {
    delete static_cast<FakeInterface*>(device);
    Count(&Handles::interfaces, -1);
  }

  int AddInterestNotification(UsbService* service, UsbDeviceRemovedCallback callback, void* refCon,
                              UsbNotification** notification) override {
    const Device& device = static_cast<FakeService*>(service)->device;
    if (device.interest_result != 0) return device.interest_result;
    auto* created = new FakeNotification;
    created->id = device.id;
    created->callback = callback;
    created->refCon = refCon;
    live_.insert(created);
    Count(&Handles::notifications, +1);
    *notification = created;
    return 0;
  }

  void ReleaseNotification(UsbNotification* notification) override {
    live_.erase(static_cast<FakeNotification*>(notification));
    delete static_cast<FakeNotification*>(notification);
    Count(&Handles::notifications, -1);
  }

  void ReleaseService(UsbService* service) override {
    delete static_cast<FakeService*>(service);
    Count(&Handles::services, -1);
  }

 private:
  static const Device& Of(UsbDeviceInterface* device) {
    return static_cast<FakeInterface*>(device)->device;
  }

  void Count(int Handles::*field, int delta) {
    std::lock_guard<std::mutex> lock(world_->mutex_);
    world_->handles_.*field += delta;
  }

  void Handle(const World::Event& event) {
    if (event.kind == World::Event::kPlug) {
      iterator_.pending.push_back(event.device);
      callback_(refCon_, &iterator_);
      return;
    }
    std::vector<FakeNotification*> targets;
    for (FakeNotification* n : live_) {
      if (n->id == event.device.id) targets.push_back(n);
    }
    for (FakeNotification* n : targets) {
      if (live_.count(n) == 0) continue;
      FakeService service;
      service.device = event.device;
      n->callback(n->refCon, &service, event.messageType, nullptr);
    }
  }

  std::shared_ptr<World> world_;
  FakeIterator iterator_;
  UsbDeviceAddedCallback callback_ = nullptr;
  void* refCon_ = nullptr;
  std::set<FakeNotification*> live_;
};

UsbPlatformFactory World::Factory() {
  std::weak_ptr<World> weak = shared_from_this();
  return [weak]() -> std::unique_ptr<UsbPlatform> {
    std::shared_ptr<World> world = weak.lock();
    if (!world) return nullptr;
    {
      std::lock_guard<std::mutex> lock(world->mutex_);
      ++world->platforms_;
      world->stop_ = false;
    }
    return std::make_unique<Platform>(world);
  };
}

void World::Plug(const Device& device) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back({Event::kPlug, device, 0});
  changed_.notify_all();
}

void World::Unplug(const std::string& id) { Message(id, kUsbMessageServiceIsTerminated); }

void World::Message(const std::string& id, uint32_t messageType) {
  Device device;
  device.id = id;
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back({Event::kMessage, device, messageType});
  changed_.notify_all();
}

bool World::WaitIdle(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return events_.empty() && !busy_; });
}

Handles World::Outstanding() {
  std::lock_guard<std::mutex> lock(mutex_);
  return handles_;
}

int World::PlatformsCreated() {
  std::lock_guard<std::mutex> lock(mutex_);
  return platforms_;
}

std::vector<Request> World::Requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

}  // namespace fake_usb
