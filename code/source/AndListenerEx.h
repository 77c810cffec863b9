// The listener: the poll thread and its wiring. Each poll merges ADB's device list and the USB
// device table, compares the result with what the host was told last, and hands the changes to
// the host as JSON. A poll runs a second after the last one, or a few milliseconds after news
// (the USB table changed, the ADB server's list changed, a phone's details came in), whichever
// comes first.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AdbDeviceList.h"
#include "ChangeReport.h"
#include "DeviceDetails.h"
#include "DeviceInfo.h"
#include "DeviceMerge.h"

class ListenDeviceChange;

using HostCallback = int (*)(const char*, int);

// How long a poll woken by news waits for more of it, so that a burst (a hub with four phones,
// a phone that goes from unauthorised to authorised within milliseconds) makes one report.
inline constexpr std::chrono::milliseconds kNewsSettleWindow{1};
// Tracking of the ADB server's list is tried again at most this often, after a poll that reached
// the server.
inline constexpr std::chrono::milliseconds kTrackingRetryPause{1000};

// How a listener is wired. The defaults are the library's own: the process-wide USB watcher, a
// poll a second, details read on threads of their own. Tests put in a watcher of their own, a
// shorter pause, and reads made within the poll when they step polls by hand.
struct ListenerWiring {
  ListenDeviceChange* usb_watcher = nullptr;  // null: GetListenDeviceChangeMacInstance()
  std::chrono::milliseconds poll_pause{1000};
  bool inline_detail_reads = false;
};

class AndListenerEx {
 public:
  explicit AndListenerEx(HostCallback callback, ListenerWiring wiring = {});
  // Only tests destroy a listener: it asks the poll thread to end and waits until it has.
  ~AndListenerEx();

  // Starts the USB watcher and the poll thread; 0, or PELMORA_ERR_THREAD (logged) when the
  // thread cannot be created. While a poll thread is still running (a second start, or a start
  // soon after a stop) no second one is made: the running thread is kept and told to start
  // afresh, so its next poll reports every device as new, just as a new thread's first poll would.
  int StartListen();
  // Asks the poll thread to end after its current poll; does not wait.
  void StopListen();
  int ListenThread();

  // One poll's work: merge, changes, details, report.
  void DealListenInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                      const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                      std::map<std::string, DeviceBasicInfo_>* previous, int query_code,
                      int* last_query_code);

  // The merge and change detection (DeviceMerge.cpp): functions of their arguments alone.
  static void GetAssembleBasicInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                   const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                                   std::map<std::string, DeviceBasicInfo_>& merged);
  static void ConvertEnumDeviceInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                                    DeviceConnectStatus status, std::map<std::string, DeviceBasicInfo_>* merged);
  static void ConvertEnumDeviceInfo(const std::map<std::string, DeviceAuthorInfo_>& adb_devices,
                                    std::map<std::string, DeviceBasicInfo_>* merged);
  static void GetDevicesInfoChange(const std::map<std::string, DeviceBasicInfo_>& previous,
                                   const std::map<std::string, DeviceBasicInfo_>& current,
                                   std::vector<DevicesStatusChangeInfo_>& changes);

  // The detail cache (DeviceDetails.cpp): refreshed from the merged table every poll; reads of
  // missing texts are started there and collected on later polls.
  void RefreshDeviceInfo(const std::map<std::string, DeviceBasicInfo_>& merged,
                         std::map<std::string, DeviceInfo_>& details);
  // Reads what the record lacks of version, manufacturer and model; false when a read failed.
  static bool GetDeviceInfo(const std::string& serial, DeviceInfo_& details);

  // The report (ChangeReport.cpp).
  static std::string ConvertDeviceChangeToJson(const std::vector<DevicesStatusChangeInfo_>& changes,
                                               const std::map<std::string, DeviceInfo_>& details,
                                               int query_code);

  // The detail cache, for tests that look at what a poll left behind (poll thread only).
  const std::map<std::string, DeviceInfo_>& DetailCache() const { return m_device_info_map; }

 private:
  // Shared with the poll thread and with whoever brings news, which may outlive the listener.
  struct PollThreadState {
    std::mutex mutex;
    std::condition_variable changed;
    bool running = false;      // a poll thread exists and has not decided to end
    bool fresh_start = false;  // a start came while it ran: forget the previous table
    bool news = false;         // something changed since the last poll began
    bool news_whole = true;  // ... and all of it was whole news, with nothing more to come
    bool tracking_ended = false;
    int live_threads = 0;      // threads not yet past their last line
    enum class News { kMayComeInBursts, kWhole, kTrackingEnded };
    void Wake(News news);
  };
  class AdbTracking;

  void RunPollThread(std::shared_ptr<PollThreadState> state);
  bool KeepPolling(std::map<std::string, DeviceBasicInfo_>& previous, int& last_query_code);
  int PollOnce(std::map<std::string, DeviceBasicInfo_>& previous, int& last_query_code);
  void WaitForNextPoll(SteadyTime deadline);
  void AppendLateDetails(const DeviceTable& told, std::vector<DevicesStatusChangeInfo_>& changes) const;
  void ReportChanges(const std::vector<DevicesStatusChangeInfo_>& changes, int query_code);

  HostCallback m_callback;
  std::atomic<bool> m_stop_listen;
  std::map<std::string, DeviceInfo_> m_device_info_map;
  std::atomic<ListenDeviceChange*> m_listen_device_change{nullptr};
  ListenerWiring m_wiring;
  std::shared_ptr<PollThreadState> m_poll_state = std::make_shared<PollThreadState>();
  ReportHolds m_report_holds;             // poll thread only
  SteadyTime m_next_release = SteadyTime::max();  // poll thread only: when the earliest hold runs out
  DetailReads m_detail_reads;
};
