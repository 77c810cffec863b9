// The four exported functions and the single listener.
#include "Pelmora.h"

#include <exception>
#include <new>
#include <string>

#include "AndListenerEx.h"
#include "Common.h"
#include "LoadConfig.h"
#include "Quenwick.h"
#include "Tarnwell.h"

namespace {

constexpr const char* kVersion = "2.0.125-D-e04cbdc";
constexpr const char* kLogFileName = "Pelmora.log";

AndListenerEx* s_listen_object = nullptr;

bool IsMissing(const char* text) { return text == nullptr || text[0] == '\0'; }

// Runs body; an exception becomes PELMORA_ERR_INTERNAL and a log line, never the host's problem.
template <typename Body>
int Guarded(const char* function, Body body) noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "%s failed: %s", function, e.what());
  } catch (...) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "%s failed: unknown exception", function);
  }
  return PELMORA_ERR_INTERNAL;
}

}  // namespace

extern "C" PELMORA_API int InitPelmora(const char* config_dir, const char* resource_dir,
                                       const char* log_dir) {
  if (IsMissing(config_dir) || IsMissing(resource_dir) || IsMissing(log_dir)) return PELMORA_ERR_ARGUMENT;
  return Guarded("InitPelmora", [&] {
    const std::string log_path = std::string(log_dir) + "/" + kLogFileName;
    InitLogEx(config_dir, kLogCategory, log_path.c_str());

    int ret = AdbSdkInit(resource_dir, config_dir, log_dir);
    if (ret != 0) LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Fail to init adb sdk, error %d.", ret);

    ret = LoadVIDConfig(config_dir);
    if (ret != 0) LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Fail to load vid config, error %d.", ret);

    ret = LoadiManufactureAndiProductConfig(config_dir);
    if (ret != 0) {
      LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Fail to load iManufacture and iProduct config, error %d.", ret);
    }
    LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "Pelmora verion %s", kVersion);
    return ret;
  });
}

extern "C" PELMORA_API int StartAdbServer(bool have_adb_been_killed) {
  return Guarded("StartAdbServer", [&] {
    LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s Enter... (have adb been killed=%s)", "StartAdbServer",
          have_adb_been_killed ? "true" : "false");
    return AdbStartDaemon(have_adb_been_killed ? 0 : 1, 0);
  });
}

extern "C" PELMORA_API int StartListenAndroidDevice(PelmoraDeviceCallback callback) {
  return Guarded("StartListenAndroidDevice", [&] {
    LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s Enter...", "StartListenAndroidDevice");
    if (s_listen_object == nullptr) {
      // A null callback would be called from the poll thread: refuse it, and keep the slot free
      // so that a later call with a real callback can still register.
      if (callback == nullptr) {
        LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "StartListenAndroidDevice: null callback refused, error %d.",
              PELMORA_ERR_NULL_CALLBACK);
        return PELMORA_ERR_NULL_CALLBACK;
      }
      s_listen_object = new AndListenerEx(callback);
    }
    return s_listen_object->StartListen();
  });
}

extern "C" PELMORA_API void StopListenAndroidDevice(void) {
  Guarded("StopListenAndroidDevice", [&] {
    LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s Enter...", "StopListenAndroidDevice");
    if (s_listen_object != nullptr) s_listen_object->StopListen();
    return 0;
  });
}
