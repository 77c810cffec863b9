#include "DeviceTracker.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include "AdbClient.h"
#include "Tarnwell.h"

namespace tarnwell {

int DeviceTracker::Start(std::uint16_t port, Listener listener, std::unique_ptr<DeviceTracker>* tracker,
                         std::string* why) {
  std::unique_ptr<DeviceTracker> made(new DeviceTracker(port, std::move(listener)));
  if (!posix::OpenPipe(&made->wake_, posix::Blocking::kNo)) {
    *why = std::string("pipe: ") + std::strerror(errno);
    return TARNWELL_ERR_IO;
  }
  try {
    made->thread_ = std::thread(&DeviceTracker::Run, made.get());
  } catch (const std::system_error& e) {
    *why = std::string("thread: ") + e.what();
    return TARNWELL_ERR_IO;
  }
  *tracker = std::move(made);
  return TARNWELL_OK;
}

DeviceTracker::~DeviceTracker() {
  stopping_ = true;
  const char byte = 0;
  // The pipe stays readable from here on, so every later wait of the thread ends too.
  while (::write(wake_.write.get(), &byte, 1) < 0 && errno == EINTR) {}
  if (thread_.joinable()) thread_.join();
}

void DeviceTracker::Run() {
  std::string why;
  std::string service;
  HostConnection connection;
  int code = OpenDeviceTracking(port_, wake_.read.get(), &connection, &service, &why);
  // The server sends a frame on every transport event, changed or not: only real changes count.
  std::string last;
  for (bool first = true; code == TARNWELL_OK; first = false) {
    std::string list;
    code = ReadTrackingFrame(connection, &list, &why);
    if (code != TARNWELL_OK) break;
    if (!first && list == last) continue;
    last = std::move(list);
    listener_(Event::kChanged, TARNWELL_OK, service);
  }
  if (!stopping_) listener_(Event::kEnded, code, why);
}

}  // namespace tarnwell
