// The native half of the Node.js binding. It loads libPelmora at run time, registers one report
// callback for the whole process (the library keeps the first one forever), and hands each report
// to the JavaScript thread of the active listener through a thread-safe function. Nothing on the
// library's poll thread touches JavaScript: the callback copies the text and queues it.
#include <dlfcn.h>
#include <napi.h>

#include <memory>
#include <mutex>
#include <string>

namespace {

using ReportCallback = int (*)(const char* report, int length);
using InitFunction = int (*)(const char* config_dir, const char* resource_dir, const char* log_dir);
using StartAdbServerFunction = int (*)(bool have_adb_been_killed);
using StartListenFunction = int (*)(ReportCallback callback);
using StopListenFunction = void (*)();

// What the report callback answers; the library only writes it to its log, where it tells
// whether the report reached a listener.
constexpr int kReportQueued = 0;
constexpr int kReportDropped = 1;      // no listener: stopped, or its environment has ended
constexpr int kReportNotQueued = 2;    // the listener is closing, or memory ran out

struct Library {
  std::string path;
  InitFunction init = nullptr;
  StartAdbServerFunction start_adb_server = nullptr;
  StartListenFunction start_listen = nullptr;
  StopListenFunction stop_listen = nullptr;
};

// One listener's end of the route; lives until its thread-safe function is finalized.
struct Session {
  napi_threadsafe_function sink = nullptr;
};

// The state the poll thread reads. Made once and never destroyed, because that thread may still
// call the report callback while the process exits.
struct Route {
  std::mutex mutex;
  Session* active = nullptr;
  Library library;       // written only on the JavaScript thread, before any listener exists
  bool loaded = false;
};

Route& TheRoute() {
  static Route* route = new Route;
  return *route;
}

// Runs on the library's poll thread.
int OnReport(const char* report, int length) noexcept {
  if (report == nullptr || length < 0) return kReportNotQueued;
  Route& route = TheRoute();
  std::lock_guard<std::mutex> lock(route.mutex);
  if (route.active == nullptr) return kReportDropped;
  try {
    auto text = std::make_unique<std::string>(report, static_cast<size_t>(length));
    if (napi_call_threadsafe_function(route.active->sink, text.get(), napi_tsfn_nonblocking) != napi_ok) {
      return kReportNotQueued;
    }
    text.release();  // DeliverReport owns it now
    return kReportQueued;
  } catch (...) {
    return kReportNotQueued;
  }
}

// Runs on the JavaScript thread for each queued report; env is null when the queue is thrown away.
void DeliverReport(napi_env env, napi_value js_callback, void*, void* data) {
  std::unique_ptr<std::string> text(static_cast<std::string*>(data));
  if (env == nullptr || js_callback == nullptr) return;
  try {
    Napi::Function(env, js_callback).Call({Napi::String::New(env, *text)});
  } catch (const Napi::Error& e) {
    e.ThrowAsJavaScriptException();  // becomes the process's uncaught exception, as in any event
  }
}

// Runs on the JavaScript thread when a listener's thread-safe function goes away. After it the
// poll thread cannot reach that function any more; an environment that ends while still listening
// (a worker, or the process) also stops the library's listening.
void FinalizeSession(napi_env, void* data, void*) {
  std::unique_ptr<Session> session(static_cast<Session*>(data));
  Route& route = TheRoute();
  bool was_active = false;
  {
    std::lock_guard<std::mutex> lock(route.mutex);
    was_active = route.active == session.get();
    if (was_active) route.active = nullptr;
  }
  if (was_active && route.loaded) route.library.stop_listen();
}

const Library& LoadedLibrary(const Napi::Env& env) {
  Route& route = TheRoute();
  if (!route.loaded) throw Napi::Error::New(env, "libPelmora is not loaded");
  return route.library;
}

template <typename Function>
bool Resolve(void* handle, const char* name, Function* out, std::string* why) {
  *out = reinterpret_cast<Function>(dlsym(handle, name));
  if (*out == nullptr) *why = std::string("no symbol ") + name;
  return *out != nullptr;
}

// load(path): opens libPelmora at path (a file, or a name for the loader to find) and returns
// that path; throws with the loader's reason when it is no libPelmora. The library stays loaded
// for the life of the process, so later calls return the first path.
Napi::Value Load(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  Route& route = TheRoute();
  if (route.loaded) return Napi::String::New(env, route.library.path);
  if (info.Length() != 1 || !info[0].IsString()) throw Napi::TypeError::New(env, "load(path: string)");
  Library library;
  library.path = info[0].As<Napi::String>();
  void* handle = dlopen(library.path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* error = dlerror();
    throw Napi::Error::New(env, error != nullptr ? error : "cannot be opened");
  }
  std::string why;
  if (!Resolve(handle, "InitPelmora", &library.init, &why) ||
      !Resolve(handle, "StartAdbServer", &library.start_adb_server, &why) ||
      !Resolve(handle, "StartListenAndroidDevice", &library.start_listen, &why) ||
      !Resolve(handle, "StopListenAndroidDevice", &library.stop_listen, &why)) {
    dlclose(handle);
    throw Napi::Error::New(env, why);
  }
  route.library = library;
  route.loaded = true;
  return Napi::String::New(env, library.path);
}

Napi::Value Init(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  const Library& library = LoadedLibrary(env);
  const std::string config_dir = info[0].ToString();
  const std::string resource_dir = info[1].ToString();
  const std::string log_dir = info[2].ToString();
  return Napi::Number::New(env, library.init(config_dir.c_str(), resource_dir.c_str(), log_dir.c_str()));
}

// StartAdbServer may start a server and wait for it, so it runs on libuv's worker pool.
class StartAdbServerWork : public Napi::AsyncWorker {
 public:
  StartAdbServerWork(Napi::Env env, StartAdbServerFunction start, bool killed)
      : Napi::AsyncWorker(env, "pelmora.startAdbServer"), deferred_(env), start_(start), killed_(killed) {}
  Napi::Promise Promise() const { return deferred_.Promise(); }

 protected:
  void Execute() override { code_ = start_(killed_); }
  void OnOK() override { deferred_.Resolve(Napi::Number::New(Env(), code_)); }
  void OnError(const Napi::Error& e) override { deferred_.Reject(e.Value()); }

 private:
  Napi::Promise::Deferred deferred_;
  StartAdbServerFunction start_;
  bool killed_;
  int code_ = 0;
};

Napi::Value StartAdbServer(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  auto* work = new StartAdbServerWork(env, LoadedLibrary(env).start_adb_server, info[0].ToBoolean());
  Napi::Promise promise = work->Promise();
  work->Queue();  // deletes itself when done
  return promise;
}

// listen(onReport): routes reports to onReport(text) and starts the library's listening; returns
// the library's code (0 = listening). The thread-safe function keeps the event loop alive while
// listening, as a server socket does; stop() lets it go.
Napi::Value Listen(const Napi::CallbackInfo& info) {
  Napi::Env env = info.Env();
  const Library& library = LoadedLibrary(env);
  if (info.Length() != 1 || !info[0].IsFunction()) throw Napi::TypeError::New(env, "listen(onReport)");
  Route& route = TheRoute();
  {
    std::lock_guard<std::mutex> lock(route.mutex);
    // index.js refuses a second listener first, with its code; this only guards the addon.
    if (route.active != nullptr) throw Napi::Error::New(env, "already listening");
  }
  auto session = std::make_unique<Session>();
  napi_status status = napi_create_threadsafe_function(
      env, info[0], nullptr, Napi::String::New(env, "pelmora.report"), 0, 1, session.get(),
      FinalizeSession, nullptr, DeliverReport, &session->sink);
  NAPI_THROW_IF_FAILED(env, status, Napi::Value());
  Session* active = session.release();  // FinalizeSession owns it now
  {
    std::lock_guard<std::mutex> lock(route.mutex);
    route.active = active;
  }
  const int code = library.start_listen(OnReport);
  if (code != 0) {
    {
      std::lock_guard<std::mutex> lock(route.mutex);
      route.active = nullptr;
    }
    napi_release_threadsafe_function(active->sink, napi_tsfn_abort);
  }
  return Napi::Number::New(env, code);
}

// stop(): stops the library's listening and drops every report not yet delivered, as well as the
// one a poll under way may still make.
void Stop(const Napi::CallbackInfo& info) {
  Route& route = TheRoute();
  if (route.loaded) route.library.stop_listen();
  Session* session = nullptr;
  {
    std::lock_guard<std::mutex> lock(route.mutex);
    std::swap(session, route.active);
  }
  if (session != nullptr) napi_release_threadsafe_function(session->sink, napi_tsfn_abort);
  (void)info;
}

// ref(keep): whether the active listener keeps the event loop alive.
void Ref(const Napi::CallbackInfo& info) {
  Route& route = TheRoute();
  std::lock_guard<std::mutex> lock(route.mutex);
  if (route.active == nullptr) return;
  if (info[0].ToBoolean()) {
    napi_ref_threadsafe_function(info.Env(), route.active->sink);
  } else {
    napi_unref_threadsafe_function(info.Env(), route.active->sink);
  }
}

Napi::Object Register(Napi::Env env, Napi::Object exports) {
  exports.Set("load", Napi::Function::New(env, Load, "load"));
  exports.Set("init", Napi::Function::New(env, Init, "init"));
  exports.Set("startAdbServer", Napi::Function::New(env, StartAdbServer, "startAdbServer"));
  exports.Set("listen", Napi::Function::New(env, Listen, "listen"));
  exports.Set("stop", Napi::Function::New(env, Stop, "stop"));
  exports.Set("ref", Napi::Function::New(env, Ref, "ref"));
  return exports;
}

}  // namespace

NODE_API_MODULE(pelmora, Register)
