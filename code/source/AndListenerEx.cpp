// The listener's thread and wiring: when a poll runs, what it is handed, and where its report goes.
#include "AndListenerEx.h"

#ifdef __GLIBCXX__
#include <cxxabi.h>  // abi::__forced_unwind
#endif
#include <exception>
#include <set>
#include <system_error>
#include <thread>

#include "Common.h"
#include "ListenDeviceChangeMac.h"
#include "Pelmora.h"
#include "Quenwick.h"
#include "Tarnwell.h"

void AndListenerEx::PollThreadState::Wake(News what) {
  std::lock_guard<std::mutex> lock(mutex);
  news_whole = (news ? news_whole : true) && what != News::kMayComeInBursts;
  news = true;
  tracking_ended = tracking_ended || what == News::kTrackingEnded;
  changed.notify_all();
}

// The ADB server's own tracking of its list, for the life of a poll thread: each change wakes the
// poll. Without it (an old or absent server) the once-a-second poll carries on alone.
class AndListenerEx::AdbTracking {
 public:
  explicit AdbTracking(std::shared_ptr<PollThreadState> state) : state_(std::move(state)) {}
  ~AdbTracking() { Stop(); }
  AdbTracking(const AdbTracking&) = delete;
  AdbTracking& operator=(const AdbTracking&) = delete;

  // After each poll: when the poll reached the server and no tracking runs, starts it, at most
  // once per kTrackingRetryPause.
  void KeepUp(int query_code) {
    if (query_code != 0) return;
    bool ended = false;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      ended = state_->tracking_ended;
    }
    if (tracker_ != nullptr && !ended) return;
    const SteadyTime now = std::chrono::steady_clock::now();
    if (tried_ && now < last_try_ + kTrackingRetryPause) return;
    Stop();  // the tracker that ended, if any: no callback of it comes after this
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->tracking_ended = false;
    }
    tried_ = true;
    last_try_ = now;
    if (AdbTrackDevices(&AdbTracking::OnEvent, state_.get(), &tracker_) != 0) tracker_ = nullptr;
  }
  // Never under the state's lock: the tracker's last callback may be waiting for it.
  void Stop() {
    if (tracker_ == nullptr) return;
    AdbStopTrackDevices(tracker_);
    tracker_ = nullptr;
  }

 private:
  static void OnEvent(void* context, int event, int /*code*/) {
    static_cast<PollThreadState*>(context)->Wake(event == TARNWELL_TRACK_ENDED ? PollThreadState::News::kTrackingEnded
                                                                                : PollThreadState::News::kMayComeInBursts);
  }

  std::shared_ptr<PollThreadState> state_;
  TarnwellTracker* tracker_ = nullptr;
  bool tried_ = false;
  SteadyTime last_try_;
};

AndListenerEx::AndListenerEx(HostCallback callback, ListenerWiring wiring)
    : m_callback(callback),
      m_stop_listen(false),
      m_wiring(wiring),
      m_detail_reads([state = m_poll_state] { state->Wake(PollThreadState::News::kWhole); }, wiring.poll_pause,
                     wiring.inline_detail_reads) {}

AndListenerEx::~AndListenerEx() {
  StopListen();
  std::unique_lock<std::mutex> lock(m_poll_state->mutex);
  m_poll_state->changed.wait(lock, [this] { return m_poll_state->live_threads == 0; });
}

int AndListenerEx::StartListen() {
  ListenDeviceChange* watcher =
      m_wiring.usb_watcher != nullptr ? m_wiring.usb_watcher : GetListenDeviceChangeMacInstance();
  // Not under the state's lock, which the observer takes.
  watcher->SetTableObserver([state = m_poll_state] { state->Wake(PollThreadState::News::kMayComeInBursts); });
  std::lock_guard<std::mutex> lock(m_poll_state->mutex);
  m_stop_listen = false;
  m_listen_device_change = watcher;
  watcher->StartListen();

  if (m_poll_state->running) {
    m_poll_state->fresh_start = true;
    m_poll_state->changed.notify_all();
    return 0;
  }
  try {
    std::thread(&AndListenerEx::RunPollThread, this, m_poll_state).detach();
  } catch (const std::system_error& e) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Fail to create the poll thread: %s, error %d.", e.what(),
          PELMORA_ERR_THREAD);
    return PELMORA_ERR_THREAD;
  }
  m_poll_state->running = true;
  ++m_poll_state->live_threads;
  return 0;
}

void AndListenerEx::StopListen() {
  m_stop_listen = true;
  std::lock_guard<std::mutex> lock(m_poll_state->mutex);
  m_poll_state->changed.notify_all();  // the thread ends now, not after its pause
}

void AndListenerEx::RunPollThread(std::shared_ptr<PollThreadState> state) {
  ListenThread();
  // The listener may be gone from here on: only the shared state is touched.
  std::lock_guard<std::mutex> lock(state->mutex);
  --state->live_threads;
  state->changed.notify_all();
}

int AndListenerEx::ListenThread() {
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "Enter %s", "ListenThread");
  std::map<std::string, DeviceBasicInfo_> previous;
  int last_query_code = 0;
  AdbTracking tracking(m_poll_state);
  while (KeepPolling(previous, last_query_code)) {
    const SteadyTime started = std::chrono::steady_clock::now();
    tracking.KeepUp(PollOnce(previous, last_query_code));
    WaitForNextPoll(std::min(started + m_wiring.poll_pause, m_next_release));
  }
  tracking.Stop();
  LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "Exit %s", "ListenThread");
  return 0;
}

// Decides, under the lock a start takes, whether this thread polls again: a start that sees the
// thread running can then rely on it going on.
bool AndListenerEx::KeepPolling(std::map<std::string, DeviceBasicInfo_>& previous, int& last_query_code) {
  std::lock_guard<std::mutex> lock(m_poll_state->mutex);
  if (m_stop_listen) {
    m_poll_state->running = false;
    return false;
  }
  if (m_poll_state->fresh_start) {
    m_poll_state->fresh_start = false;
    previous.clear();
    m_report_holds.clear();
    last_query_code = 0;
  }
  return true;
}

// One poll; its query code.
int AndListenerEx::PollOnce(std::map<std::string, DeviceBasicInfo_>& previous, int& last_query_code) {
  int query_code = 0;
  try {
    std::map<std::string, DeviceAuthorInfo_> adb_devices;
    query_code = GetDevicesAuthorStatusEx(adb_devices);
    if (query_code != 0) {
      LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "[%s] fail to GetDevicesAuthorStatus(), error %d!", "ListenThread",
            query_code);
    }
    const std::map<std::string, DeviceModleInfo> usb_devices = m_listen_device_change.load()->CopyUSBDeviceMap();
    DealListenInfo(&usb_devices, query_code == 0 ? &adb_devices : nullptr, &previous, query_code, &last_query_code);
#ifdef __GLIBCXX__
  } catch (abi::__forced_unwind&) {
    // A host that ends this thread from its callback (an interpreter shutting down calls
    // pthread_exit) must be let through: swallowing the unwind aborts the process.
    throw;
#endif
  } catch (const std::exception& e) {
    // Nothing a poll meets may end the thread: the next poll starts from the same tables.
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "[%s] poll failed: %s", "ListenThread", e.what());
  } catch (...) {
    LogEx(kLogCategory, QUENWICK_LEVEL_ERROR, "[%s] poll failed", "ListenThread");
  }
  return query_code;
}

// Until the deadline, a stop, a start, or news; news that may come in bursts (USB, the server's
// list) is given a moment to settle, so that a burst makes one poll. A phone's details are whole.
void AndListenerEx::WaitForNextPoll(SteadyTime deadline) {
  PollThreadState& state = *m_poll_state;
  std::unique_lock<std::mutex> lock(state.mutex);
  const auto interrupted = [&] { return state.fresh_start || m_stop_listen.load(); };
  state.changed.wait_until(lock, deadline, [&] { return state.news || interrupted(); });
  if (state.news && !state.news_whole && !interrupted()) {
    state.changed.wait_for(lock, kNewsSettleWindow, interrupted);
  }
  state.news = false;
}

void AndListenerEx::DealListenInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                   const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                                   std::map<std::string, DeviceBasicInfo_>* previous, int query_code,
                                   int* last_query_code) {
  std::map<std::string, DeviceBasicInfo_> merged;
  GetAssembleBasicInfo(usb_devices, adb_devices, merged);
  RefreshDeviceInfo(merged, m_device_info_map);
  std::set<std::string> details_ready;
  for (const auto& [key, record] : m_device_info_map) {
    if (record.details_read || KnownAdbTexts(record) == 3) details_ready.insert(key);
  }
  const PollViews views{usb_devices, adb_devices, &details_ready, std::chrono::steady_clock::now()};
  DeviceTableStep step = StepDeviceTable(*previous, merged, views, m_report_holds);
  std::vector<DevicesStatusChangeInfo_>& changes = step.changes;

  // A new failure with nothing else to report: tell the host once what the table looks like now.
  if (query_code != 0 && changes.empty() && query_code != *last_query_code && !step.told.empty()) {
    for (const auto& [key, device] : step.told) {
      changes.push_back(MakeStatusChange(key, device.actual_serial, device.status, device.status));
    }
  }
  AppendLateDetails(step.told, changes);
  if (!changes.empty()) ReportChanges(changes, query_code);

  *previous = std::move(step.told);
  *last_query_code = query_code;
  m_next_release = step.next_release;
}

// An authorised phone whose texts came after its status was reported gets an entry of its own,
// with the same old and new status.
void AndListenerEx::AppendLateDetails(const DeviceTable& told, std::vector<DevicesStatusChangeInfo_>& changes) const {
  std::set<std::string> listed;
  for (const DevicesStatusChangeInfo_& change : changes) listed.insert(change.key_serial);
  for (const auto& [key, record] : m_device_info_map) {
    const auto device = told.find(key);
    if (device != told.end() && device->second.status == AuthoredConnect &&
        KnownAdbTexts(record) > record.adb_texts_told && listed.count(key) == 0) {
      changes.push_back(MakeStatusChange(key, record.actual_serial, AuthoredConnect, AuthoredConnect));
    }
  }
}

void AndListenerEx::ReportChanges(const std::vector<DevicesStatusChangeInfo_>& changes, int query_code) {
  const std::string report = ConvertDeviceChangeToJson(changes, m_device_info_map, query_code);
  for (const DevicesStatusChangeInfo_& change : changes) {
    const auto record = m_device_info_map.find(change.key_serial);
    if (record != m_device_info_map.end()) record->second.adb_texts_told = KnownAdbTexts(record->second);
  }
  if (report.empty()) return;
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "%s", report.c_str());
  // A null callback is refused when the listener is made; the check keeps it that way.
  if (m_callback == nullptr) return;
  const int answer = m_callback(report.c_str(), static_cast<int>(report.size()));
  LogEx(kLogCategory, QUENWICK_LEVEL_INFO, "callback return %d\n", answer);
}
