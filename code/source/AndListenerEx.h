// The listener: the poll thread, the merge of the USB and ADB views, change detection, device
// details and the JSON change report.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DeviceInfo.h"

class ListenDeviceChange;

using HostCallback = int (*)(const char*, int);

// The ADB list text of AdbGetDevicesEx into the ADB status map; 0, or the library's code. A device
// that ADB is still connecting or authorising is left out; a "no permissions" one is logged with
// its remedy when it first shows so.
int GetDevicesAuthorStatusEx(std::map<std::string, DeviceAuthorInfo_>& devices);

// True when text holds "\u" (backslash, u), "," or ".".
bool IsContainInvailChar(std::string text);
// text with every occurrence of sub removed, searching again from the start after each removal.
std::string StripSubString(std::string text, std::string sub);

// How a listener is wired. The defaults are the library's own: the process-wide USB watcher and a
// pause of one second after each poll. Tests put in a watcher of their own and a shorter pause.
struct ListenerWiring {
  ListenDeviceChange* usb_watcher = nullptr;  // null: GetListenDeviceChangeMacInstance()
  std::chrono::milliseconds poll_pause{1000};
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
  // Asks the poll thread to end after its current poll and pause; does not wait.
  void StopListen();
  int ListenThread();

  void DealListenInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                      const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                      std::map<std::string, DeviceBasicInfo_>* previous, int query_code,
                      int* last_query_code);
  void GetAssembleBasicInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                            const std::map<std::string, DeviceAuthorInfo_>* adb_devices,
                            std::map<std::string, DeviceBasicInfo_>& merged);
  void ConvertEnumDeviceInfo(const std::map<std::string, DeviceModleInfo>* usb_devices,
                             DeviceConnectStatus status,
                             std::map<std::string, DeviceBasicInfo_>* merged);
  void ConvertEnumDeviceInfo(const std::map<std::string, DeviceAuthorInfo_>& adb_devices,
                             std::map<std::string, DeviceBasicInfo_>* merged);
  void GetDevicesInfoChange(const std::map<std::string, DeviceBasicInfo_>& previous,
                            const std::map<std::string, DeviceBasicInfo_>& current,
                            std::vector<DevicesStatusChangeInfo_>& changes);
  void RefreshDeviceInfo(const std::map<std::string, DeviceBasicInfo_>& merged,
                         std::map<std::string, DeviceInfo_>& details);
  bool GetDeviceInfo(const std::string& serial, DeviceInfo_& details);
  std::string ConvertDeviceChangeToJson(const std::vector<DevicesStatusChangeInfo_>& changes,
                                        const std::map<std::string, DeviceInfo_>& details,
                                        int query_code);

  // The detail cache, for tests that look at what a poll left behind (poll thread only).
  const std::map<std::string, DeviceInfo_>& DetailCache() const { return m_device_info_map; }

 private:
  // Shared with the poll thread, which keeps it alive past the listener's own end.
  struct PollThreadState {
    std::mutex mutex;
    std::condition_variable changed;
    bool running = false;      // a poll thread exists and has not decided to end
    bool fresh_start = false;  // a start came while it ran: forget the previous table
    int live_threads = 0;      // threads not yet past their last line
  };

  void RunPollThread(std::shared_ptr<PollThreadState> state);
  bool KeepPolling(std::map<std::string, DeviceBasicInfo_>& previous, int& last_query_code);
  void PollOnce(std::map<std::string, DeviceBasicInfo_>& previous, int& last_query_code);
  void PauseAfterPoll();
  void AppendLateDetails(std::vector<DevicesStatusChangeInfo_>& changes) const;
  void ReportChanges(const std::vector<DevicesStatusChangeInfo_>& changes, int query_code);

  HostCallback m_callback;
  std::atomic<bool> m_stop_listen;
  std::map<std::string, DeviceInfo_> m_device_info_map;
  std::atomic<ListenDeviceChange*> m_listen_device_change{nullptr};
  ListenerWiring m_wiring;
  std::shared_ptr<PollThreadState> m_poll_state = std::make_shared<PollThreadState>();
};
