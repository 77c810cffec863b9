/*
 * libTarnwell: the ADB service library.
 *
 * A native client of the ADB server's host protocol on 127.0.0.1. The port is taken from the
 * environment variable ANDROID_ADB_SERVER_PORT when it is set (a number from 1 to 65535), else
 * 5037, as adb itself does; it is read on every call. A value that is set and not a port makes
 * every call fail with TARNWELL_ERR_BAD_PORT (adb refuses it too) rather than reach port 5037.
 *
 * Failures are logged through libQuenwick's LogEx with the category "Tarnwell" (level 3), the
 * server's FAIL message included.
 *
 * Every function is safe to call from several threads at once, returns 0 on success and one of
 * the codes below on failure, never throws, and is bounded in time:
 *   - connecting to the server:              TARNWELL_CONNECT_TIMEOUT_MS
 *   - any request, from connect to last byte: TARNWELL_REQUEST_TIMEOUT_MS
 *   - a property read, from connect to last byte: TARNWELL_PROPERTY_TIMEOUT_MS (a shell's getprop
 *     answers in milliseconds; a phone that takes longer is not going to answer)
 *   - AdbStartDaemon as a whole:              TARNWELL_START_TIMEOUT_MS
 * A server that accepts and never answers, or a phone that never answers, costs the caller at
 * most the bound, and the call returns TARNWELL_ERR_TIMEOUT.
 *
 * A device whose property read timed out, or that the server does not know ("device '...' not
 * found"), is not asked again for TARNWELL_UNREACHABLE_COOLDOWN_MS: every property read of it in
 * that time returns the same code at once, without a request and without a log line. The first
 * read after the cool-down asks the device again; one that answers is read normally from then on.
 *
 * The library never runs an adb executable while a server answers on the port, except when the
 * caller says the server was killed (AdbStartDaemon flag 0): an adb client whose version differs
 * from the running server's would kill that server and start its own.
 */
#ifndef TARNWELL_H
#define TARNWELL_H

#ifdef __cplusplus
extern "C" {
#endif

#define TARNWELL_API __attribute__((visibility("default")))

#define TARNWELL_CONNECT_TIMEOUT_MS 1000
#define TARNWELL_REQUEST_TIMEOUT_MS 3000
#define TARNWELL_PROPERTY_TIMEOUT_MS 1000
#define TARNWELL_UNREACHABLE_COOLDOWN_MS 5000
#define TARNWELL_START_TIMEOUT_MS 10000

#define TARNWELL_OK 0
#define TARNWELL_ERR_BAD_ARGUMENT 101  /* null pointer, size < 1, empty or over-long serial */
#define TARNWELL_ERR_NO_FOLDER 102     /* AdbSdkInit: a folder that does not exist */
#define TARNWELL_ERR_NO_SERVER 103     /* nothing accepts connections on the server port */
#define TARNWELL_ERR_SERVER_FAIL 104   /* the server answered FAIL; its message is logged */
#define TARNWELL_ERR_TIMEOUT 105       /* no complete answer within the time bound */
#define TARNWELL_ERR_MALFORMED 106     /* an answer that breaks the protocol */
#define TARNWELL_ERR_CLOSED 107        /* the server closed the connection mid-answer */
#define TARNWELL_ERR_NO_ADB 108        /* no adb executable in the resource folder or on PATH */
#define TARNWELL_ERR_START_FAILED 109  /* adb start-server ran, yet no server answers */
#define TARNWELL_ERR_NO_MEMORY 110
#define TARNWELL_ERR_IO 111            /* any other socket or process error */
#define TARNWELL_ERR_BAD_PORT 112      /* ANDROID_ADB_SERVER_PORT is set but not a port number */

/* Remembers which adb executable to use: "adb" in resource_dir when it is an executable file
 * there, else "adb" found on PATH (looked up again whenever a server is started). Null or empty
 * arguments: TARNWELL_ERR_BAD_ARGUMENT; a folder that does not exist: TARNWELL_ERR_NO_FOLDER;
 * no adb in either place: TARNWELL_ERR_NO_ADB (the folder is still remembered). log_dir is
 * checked but unused: diagnostics go to the host's log through libQuenwick. */
TARNWELL_API int AdbSdkInit(const char* resource_dir, const char* config_dir, const char* log_dir);

/* flag 1: the server was not killed; make sure one answers, starting it only when nothing
 *         listens on the port (a server that accepts and answers badly is reported, not
 *         replaced).
 * flag 0: the caller says the server was killed; run "adb start-server" again.
 * Any other flag: TARNWELL_ERR_BAD_ARGUMENT. reserved: pass 0 (ignored).
 * Returns 0 only when the server answers "host:version" afterwards; concurrent calls are
 * serialised, and the whole call (waiting for another one included) is bounded by
 * TARNWELL_START_TIMEOUT_MS. Without AdbSdkInit, adb is looked up on PATH. */
TARNWELL_API int AdbStartDaemon(int flag, int reserved);

/* "host:devices" as one text: for each device "<serial>-<state>;", NUL-terminated, in the
 * server's order. The state is adb's state word alone: "device", "offline", "unauthorized",
 * "authorizing", "connecting", "bootloader", "recovery", "sideload", "rescue", "host",
 * "detached", "no permissions", or whatever word a later adb adds. The free text adb writes after
 * a state (why "no permissions", and what to do) goes to the log, once per device and text, never
 * into the list. A state holds no '-' and no ';' (either would become '_'), so an entry's serial
 * is the text before its last '-' whatever the serial holds ("emulator-5554"); a ';' inside a
 * serial is written as ',' so that every entry ends at its own ';'. *list is set to a text the
 * library allocated (release it with AdbFreeResource), or to NULL when the server lists no
 * device. *device_count, when device_count is not NULL, receives the number of devices.
 * reserved: pass 0 (ignored). On failure neither *list nor *device_count is touched. */
TARNWELL_API int AdbGetDevicesEx(char** list, int* device_count, int reserved);

/* Releases a text of AdbGetDevicesEx and sets *list to NULL; NULL and *list == NULL are fine.
 * Always 0. */
TARNWELL_API int AdbFreeResource(char** list);

/* getprop ro.build.version.release / ro.product.manufacturer / ro.product.model of the device
 * with this serial, through "host:transport:<serial>" and the shell service "shell:getprop".
 * The value's trailing line breaks ("\n", "\r\n") are removed; at most size - 1 bytes are
 * written, then a NUL. When the device's connection closes before the shell answers (the server
 * says FAIL "closed", or the stream ends before any status), the buffer holds "error: closed"
 * and the result is 0, as adb's own client shows it. An unknown, unauthorised or offline device
 * is TARNWELL_ERR_SERVER_FAIL with the server's message logged. A read that takes longer than
 * TARNWELL_PROPERTY_TIMEOUT_MS is TARNWELL_ERR_TIMEOUT; that device, like one the server does not
 * know, then has its cool-down (above). Null serial or buffer, empty serial or size < 1:
 * TARNWELL_ERR_BAD_ARGUMENT. On failure the buffer is not touched. reserved: pass 0 (ignored). */
TARNWELL_API int AdbGetPhoneSoftVersion(const char* serial, char* buffer, int size, int reserved);
TARNWELL_API int AdbGetPhoneManufacturer(const char* serial, char* buffer, int size, int reserved);
TARNWELL_API int AdbGetPhoneProductModel(const char* serial, char* buffer, int size, int reserved);

/* Tracking: the server pushes its device list on every change, so a client learns of a phone
 * within milliseconds of the server instead of at its next AdbGetDevicesEx.
 *
 * AdbTrackDevices opens "host:track-devices-l" (or "host:track-devices" where the server refuses
 * the long form) on a thread of its own and returns at once; it never starts a server. The
 * callback runs on that thread:
 *   - TARNWELL_TRACK_CHANGED (code 0) when the list differs from the one before, the first list
 *     included (the server also sends lists that did not change; those are passed over);
 *   - TARNWELL_TRACK_ENDED once, with the code of what ended it (TARNWELL_ERR_NO_SERVER,
 *     TARNWELL_ERR_CLOSED when the server went away, TARNWELL_ERR_SERVER_FAIL, ...), when the
 *     stream cannot be opened or ends. Nothing follows it; the end is logged. Start a new tracker
 *     to go on.
 * The callback should return quickly: the next list waits for it. *tracker receives a handle that
 * must be given to AdbStopTrackDevices exactly once, also after TARNWELL_TRACK_ENDED.
 * Null callback or tracker: TARNWELL_ERR_BAD_ARGUMENT; no thread: TARNWELL_ERR_IO. */
#define TARNWELL_TRACK_CHANGED 1
#define TARNWELL_TRACK_ENDED 2
typedef struct TarnwellTracker TarnwellTracker;
typedef void (*TarnwellTrackCallback)(void* context, int event, int code);
TARNWELL_API int AdbTrackDevices(TarnwellTrackCallback callback, void* context, TarnwellTracker** tracker);

/* Ends tracking at once (a read that waits for the server is cut short), waits for the tracking
 * thread to end, and frees the handle: no callback runs after it returns. NULL is fine. Calling
 * it from the tracker's own callback is refused with TARNWELL_ERR_BAD_ARGUMENT (it would wait for
 * itself); stop it from another thread. */
TARNWELL_API int AdbStopTrackDevices(TarnwellTracker* tracker);

#ifdef __cplusplus
}
#endif

#endif /* TARNWELL_H */
