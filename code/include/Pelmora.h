/*
 * libPelmora: tells a host application which Android phones are plugged in, and in which state.
 *
 * Call InitPelmora first, then StartAdbServer, then StartListenAndroidDevice. The callback then
 * receives, on the library's poll thread, a JSON report {"changed": [...]} whenever a phone
 * arrives, leaves or changes state; its length in bytes is the second argument. The text is valid
 * only until the callback returns. The callback's result is only written to the log.
 *
 * None of these functions lets an exception out; every failure is a result code and a log line in
 * "Pelmora.log" inside the log folder.
 */
#ifndef PELMORA_H
#define PELMORA_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELMORA_API __attribute__((visibility("default")))

#define PELMORA_OK 0
#define PELMORA_ERR_ARGUMENT 1          /* InitPelmora: a folder argument is null or empty */
#define PELMORA_ERR_CONFIG_FILE 2       /* InitPelmora: "iManufactureAndiProduct.ini" unreadable */
#define PELMORA_ERR_USB_WATCHER 4       /* the USB watcher could not be set up (logged) */
#define PELMORA_ERR_NULL_CALLBACK 5     /* StartListenAndroidDevice: null callback, refused */
#define PELMORA_ERR_THREAD 6            /* StartListenAndroidDevice: a thread could not be made */
#define PELMORA_ERR_INTERNAL 7          /* an unexpected failure inside the library (logged) */

typedef int (*PelmoraDeviceCallback)(const char* report, int length);

/* Sets up logging, the ADB service library and the device filter lists from the four .ini files
 * of config_dir. Returns 1 (and does nothing, logs nothing) when an argument is null or empty;
 * otherwise the result of loading "iManufactureAndiProduct.ini" (0 = loaded). Other failures are
 * logged and do not change the result.
 * May be called again while listening: the filter tables are guarded by a reader-writer lock, so
 * the running threads see either the tables before or after the load, never a half-written one
 * (a second load only adds entries). */
PELMORA_API int InitPelmora(const char* config_dir, const char* resource_dir, const char* log_dir);

/* Starts the ADB server when none answers; have_adb_been_killed = true starts it again.
 * Returns the ADB service library's code unchanged (0 = a server answers). */
PELMORA_API int StartAdbServer(bool have_adb_been_killed);

/* Starts watching. The first call's callback is kept for the life of the process; later calls
 * reuse it and ignore their argument. Returns 0, or:
 *   PELMORA_ERR_NULL_CALLBACK when the first call's callback is null (nothing starts, and a
 *   later call with a real callback works);
 *   PELMORA_ERR_THREAD when the poll thread cannot be created.
 * There is never more than one poll thread. Every start behaves alike for the host: the next poll
 * reports every attached device as new. A start while the previous poll thread has not yet ended
 * (a second start, or a start within a second of a stop) keeps that thread and tells it to begin
 * afresh, instead of starting another, so no report is lost or doubled. */
PELMORA_API int StartListenAndroidDevice(PelmoraDeviceCallback callback);

/* Asks the poll thread to end after its current poll and pause (about a second); does not wait.
 * A report already under way may still reach the callback after this returns. */
PELMORA_API void StopListenAndroidDevice(void);

#ifdef __cplusplus
}
#endif

#endif /* PELMORA_H */
