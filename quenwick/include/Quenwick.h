/*
 * libQuenwick: the log library.
 *
 * Thread-safe, timestamped, size-bounded log files. Every call may come from any thread at any
 * time; lines are never torn or interleaved.
 *
 * Line layout:  "2026-11-23 04:23:32.123 [L1] [Category] message"   (LogEx)
 *               "2026-11-23 04:23:32.123 [L3] message"              (Log)
 * The message bytes are written exactly as formatted, a trailing "\r" or "\n" included; the
 * library adds one "\n" after every line.
 *
 * Size bound: the active file is rotated when it would grow past QUENWICK_MAX_FILE_BYTES;
 * QUENWICK_MAX_FILES rotated files are kept beside it ("Pelmora.1.log", "Pelmora.2.log", ...), so
 * one log never takes more than QUENWICK_MAX_FILE_BYTES * (QUENWICK_MAX_FILES + 1) bytes.
 *
 * Before the first successful InitLogEx, and after an InitLogEx that failed, LogEx and Log drop
 * their line and return QUENWICK_ERR_NOT_INITIALISED: nothing is written anywhere.
 * A null format or category never crashes: the call returns QUENWICK_ERR_BAD_ARGUMENT.
 * A second InitLogEx flushes and closes the current file and opens the new one; no line logged
 * before it returns is lost, and a line logged concurrently lands whole in one of the two files.
 */
#ifndef QUENWICK_H
#define QUENWICK_H

#ifdef __cplusplus
extern "C" {
#endif

#define QUENWICK_API __attribute__((visibility("default")))

#ifndef QUENWICK_MAX_FILE_BYTES
#define QUENWICK_MAX_FILE_BYTES (8 * 1024 * 1024)
#endif
#ifndef QUENWICK_MAX_FILES
#define QUENWICK_MAX_FILES 3
#endif

#define QUENWICK_OK 0
#define QUENWICK_ERR_BAD_ARGUMENT 1   /* null or empty path, null category or format */
#define QUENWICK_ERR_OPEN_FAILED 2    /* the log file (or its folder) cannot be created */
#define QUENWICK_ERR_NOT_INITIALISED 3
#define QUENWICK_ERR_WRITE_FAILED 4   /* the line could not be formatted or handed to the file */

/* Levels, written into each line as "[L<level>]"; any int is written as given. */
#define QUENWICK_LEVEL_INFO 1     /* traces and information */
#define QUENWICK_LEVEL_WARNING 2  /* something refused or passed over, and the work goes on */
#define QUENWICK_LEVEL_ERROR 3    /* failures, and the events the caller wants found quickly */

/* Opens (creating its folder when needed) the log file at log_path. config_dir and category are
 * accepted for the contract and not used: every LogEx line carries the category of its own call,
 * and a Log line none. Returns QUENWICK_OK or an error above. */
QUENWICK_API int InitLogEx(const char* config_dir, const char* category, const char* log_path);

/* printf-style; level is one of QUENWICK_LEVEL_* by convention, written as given. */
QUENWICK_API int LogEx(const char* category, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Like LogEx, without a category. */
QUENWICK_API int Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif /* QUENWICK_H */
