#pragma once

/**
 * @file
 * The C interface, for programs in C and languages that can call C.
 *
 * Threads: the main thread runs the main queue, and all callbacks are called on it. It is the
 * thread that ran `main`, or the one that called `ravelin_main_queue_adopt_current_thread()`. A
 * function marked "Any thread" never waits for the main thread. One marked "Any thread, waits" does
 * its work there, so on other threads it returns only if the main thread runs the queue.
 *
 * Errors are reported by the final event of a run. No function throws; if memory runs out, the
 * process is terminated. Texts are UTF-8 and paths are bytes. A null text means an empty one unless
 * the function says otherwise. Handles must not be null, except those of the `free` functions.
 */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The version of the loaded library, such as "1.2.3". Any thread. */
const char* ravelin_version(void);

/* ---- The main queue ---- */

/** Makes the calling thread the main thread. Call it once, before the first operation. */
void ravelin_main_queue_adopt_current_thread(void);
/** Whether the calling thread is the main thread. Any thread. */
bool ravelin_main_queue_is_main_thread(void);
/** Queues `task(user)` for the main thread and returns at once. Any thread. */
void ravelin_main_queue_async(void (*task)(void* user), void* user);
/** Runs queued work, and sleeps while there is none, until `ravelin_main_queue_stop()` is called.
 * Main thread. */
void ravelin_main_queue_run(void);
/** Makes `ravelin_main_queue_run()` return. Tasks that are queued already may run before it does;
 * later ones stay queued. If it is not active, the next call returns like that. Any thread. */
void ravelin_main_queue_stop(void);
/** A descriptor for event loops; readable while tasks are queued and `ravelin_main_queue_run()` is
 * not active; -1 if there is none left. Do not read, write or close it. Any thread. */
int ravelin_main_queue_descriptor(void);
/** Runs the tasks that are queued now, without waiting, and returns their number. Main thread. */
size_t ravelin_main_queue_drain(void);

/* ---- Events and states ---- */

/** What to do if the destination exists or is being downloaded. */
typedef enum ravelin_on_conflict {
  ravelin_on_conflict_resume = 0,    /**< continue an incomplete file, accept a complete one */
  ravelin_on_conflict_replace = 1,   /**< delete the file and download it again */
  ravelin_on_conflict_keep_both = 2, /**< use another name; see `ravelin_status_renamed` */
  ravelin_on_conflict_stop = 3       /**< fail */
} ravelin_on_conflict;

/** Kinds of events. Each run ends with exactly one of success, cancelled and error. */
typedef enum ravelin_status {
  ravelin_status_renamed = 0,           /**< fills main_file */
  ravelin_status_files_are_created = 1, /**< fills main_file and resume_file */
  ravelin_status_started = 2,           /**< fills progress.content_length */
  ravelin_status_downloading = 3,       /**< fills progress */
  ravelin_status_cancelled = 4,         /**< final; fills also_cleared_files and progress */
  ravelin_status_error = 5,             /**< final; fills the error fields */
  ravelin_status_pending = 6,           /**< waiting for a slot or for the same file */
  ravelin_status_connecting = 7,        /**< requesting the header */
  ravelin_status_success = 8,           /**< final: the file is complete */
  ravelin_status_cancelling = 9         /**< asked to stop */
} ravelin_status;

/** The state of an operation. */
typedef enum ravelin_state {
  ravelin_state_downloading = 0, /**< receiving the content */
  ravelin_state_cancelled = 1,   /**< the last run was cancelled */
  ravelin_state_failed = 2,      /**< the last run failed */
  ravelin_state_none = 3,        /**< not started yet */
  ravelin_state_pending = 4,     /**< waiting for a slot or for the same file */
  ravelin_state_connecting = 5,  /**< requesting the header */
  ravelin_state_successful = 6,  /**< the file is complete */
  ravelin_state_cancelling = 7   /**< asked to stop */
} ravelin_state;

/** Why a run failed. */
typedef enum ravelin_error_kind {
  ravelin_error_kind_other = 0,   /**< see error_domain, error_code and error_text */
  ravelin_error_kind_timeout = 1, /**< the server sent nothing for too long */
  ravelin_error_kind_not_connected_to_internet = 2, /**< no network interface is up */
  ravelin_error_kind_network_connection_lost = 3    /**< before the response was complete */
} ravelin_error_kind;

/** The progress of a download. */
typedef struct ravelin_progress {
  int64_t received_bytes; /**< written to disk or queued for writing */
  int64_t content_length; /**< bytes; -1 if not known */
  double fraction; /**< 0.0 to 1.0, or above if the server sends more than it was asked for and
                        nothing refuses that; -1.0 if the length is not known */
  bool is_at_snap_point; /**< true about once per snap interval, to limit updates */
} ravelin_progress;

/** One event. It and its texts are valid until the callback returns. Fields that a status does not
 * fill are null, zero or -1. Later versions may add fields at the end. */
typedef struct ravelin_event {
  ravelin_status status;         /**< the kind of event */
  ravelin_progress progress;     /**< of the download */
  bool also_cleared_files;       /**< the files were deleted */
  const char* main_file;         /**< path */
  const char* resume_file;       /**< path */
  ravelin_error_kind error_kind; /**< why the run failed */
  int error_code;                /**< in the domain; 0 if the error has none */
  const char* error_domain; /**< "NSURLErrorDomain" for the network, "system" for errno, or "" */
  const char* error_text;   /**< for people; valid UTF-8 */
  int http_status;          /**< of `started` and `error` events; 0 if there was no response */
  double bytes_per_second;  /**< with downloading; over the last seconds */
  int64_t seconds_left;     /**< with downloading; -1 if it cannot be estimated */
} ravelin_event;

/** Called on the main thread with each event of a run and the `user` passed when it was started. It
 * may call any function here, and may restart its operation on the final event. */
typedef void (*ravelin_callback)(void* user, const ravelin_event* event);

/* ---- Operations ---- */

/** A download of one link to one file, which can be stopped and resumed. */
typedef struct ravelin_operation ravelin_operation;

/** Creates an operation. Release it with `ravelin_operation_free()`. Any thread, waits. */
ravelin_operation* ravelin_operation_new(void);
/** Releases the handle. The current run continues and still calls its callback; to stop it, cancel
 * it first. Null is ignored. Any thread. */
void ravelin_operation_free(ravelin_operation* operation);

/** Starts a run and returns before anything is sent over the network. `link`: http or https.
 * `dest_file`: a path, compared with other destinations exactly as given. `split_allowed`: use
 * several connections if the server supports ranges. `callback` may be null. If a run is already in
 * progress, this one fails: its callback gets one error. Any thread, waits. */
void ravelin_operation_resume(ravelin_operation* operation, const char* link, const char* dest_file,
                              bool split_allowed, ravelin_on_conflict on_conflict,
                              ravelin_callback callback, void* user);
/** Asks the run to stop and keeps its files. The final event follows later. If the operation is
 * idle, its next run is stopped instead. Any thread, waits. */
void ravelin_operation_cancel(ravelin_operation* operation);
/** Like `ravelin_operation_cancel()`, and deletes the files at the end; `also_cleared_files` of the
 * event tells whether it did. Any thread, waits. */
void ravelin_operation_cancel_and_clear_files(ravelin_operation* operation);
/** Returns the state of the operation. Fills `progress` unless it is null: with 0 bytes, except
 * while downloading and after a cancelled run. Any thread, waits. */
ravelin_state ravelin_operation_state(const ravelin_operation* operation,
                                      ravelin_progress* progress);
/** Sets the interval of the snap points as a fraction of the file; 0.1 by default. Any thread,
 * waits. */
void ravelin_operation_set_progress_snap_interval(ravelin_operation* operation, float interval);

/** Cancels all operations that are running or waiting. Any thread, waits. */
void ravelin_cancel_all(bool also_clear_files);
/** Maximum number of downloads that run at once; the others wait in order. 5 by default. Any
 * thread, waits. */
int64_t ravelin_max_simultaneous_download_count(void);
/** Sets it; below 1 means 1. Any thread, waits. */
void ravelin_set_max_simultaneous_download_count(int64_t count);
/** The progress of a destination according to its resume record. Needs no operation; reads one
 * small file on the calling thread. Any thread. */
ravelin_progress ravelin_get_progress(const char* dest_file);
/** Deletes a destination and its resume record, unless another unfinished file needs that. Errors
 * are ignored. Do not use it while the destination is being downloaded. Any thread. */
void ravelin_clear_files(const char* dest_file);

/* ---- Options ----
 * Options that are not set are taken from the default options of the process. A run copies the
 * options when it starts. Functions may be called on any thread, but not at the same time on one
 * object. */

/** Options of a download. */
typedef struct ravelin_options ravelin_options;

/** Creates options with nothing set. Release them with `ravelin_options_free()`. */
ravelin_options* ravelin_options_new(void);
/** Releases the options. Null is ignored. */
void ravelin_options_free(ravelin_options* options);

/** "http://host:port" or "socks5://host:port"; "" for no proxy, null for the environment's. */
void ravelin_options_set_proxy(ravelin_options* options, const char* proxy);
/** A file of PEM certificates to trust instead of the system's; null for the system's. */
void ravelin_options_set_ca_bundle(ravelin_options* options, const char* path);
/** Adds a header field to every request. It is sent only to the origin of the link. */
void ravelin_options_add_header(ravelin_options* options, const char* name, const char* value);
/** The user agent; null for the name and version of the library. */
void ravelin_options_set_user_agent(ravelin_options* options, const char* user_agent);
/** Maximum bytes per second; 0 for no limit. In the options of an operation it limits that
 * download; in the default options, all downloads together. */
void ravelin_options_set_rate_limit(ravelin_options* options, int64_t bytes_per_second);
/** How long to wait for a server that sends nothing, in milliseconds; 0 for 60 seconds. */
void ravelin_options_set_idle_timeout(ravelin_options* options, int64_t milliseconds);
/** Maximum connections of one download, 1 to 5; other counts mean the nearest of these. */
void ravelin_options_set_max_connections(ravelin_options* options, int count);
/** Content of fewer bytes is downloaded over one connection; 0 for no minimum. */
void ravelin_options_set_min_split_size(ravelin_options* options, int64_t bytes);
/** Takes content that is not split from the response that told its length, instead of requesting it
 * again. Links that work only once can then be downloaded. If nothing has arrived yet, the
 * first parts of split content are taken from it as well if that is at most 8 MiB or the server
 * takes 50 ms or more to answer. Off unless set. */
void ravelin_options_set_reuse_header_response(ravelin_options* options, bool on);
/** Retries after errors that may be temporary: up to `max_attempts` times without progress and,
 * once bytes have arrived, for up to `patience` milliseconds without progress. 0 attempts: never.
 */
void ravelin_options_set_retry(ravelin_options* options, int max_attempts, int64_t patience);

/** Turns on all safeguards below that are not set yet. Recommended. */
void ravelin_options_set_careful(ravelin_options* options);
/** A final status without content (204, 205 and all but 2xx) is an error. */
void ravelin_options_set_reject_http_errors(ravelin_options* options, bool on);
/** The response to a range request must have exactly that range. */
void ravelin_options_set_require_exact_ranges(ravelin_options* options, bool on);
/** All responses of a download must have the same version of the content. */
void ravelin_options_set_reject_changed_content(ravelin_options* options, bool on);
/** A redirect from https to http is not followed. */
void ravelin_options_set_refuse_tls_downgrade(ravelin_options* options, bool on);
/** Content of zero bytes makes an empty file instead of an error. */
void ravelin_options_set_accept_empty_content(ravelin_options* options, bool on);
/** A failed write ends the run with an error instead of terminating the process. */
void ravelin_options_set_report_write_errors(ravelin_options* options, bool on);
/** The destination is locked, and only files from the same link are continued or accepted. */
void ravelin_options_set_check_destination(ravelin_options* options, bool on);
/** With the option above, an unfinished file from another link is continued if the last 64 KiB of
 * each part that has arrived are the same at the new link. Off unless set. */
void ravelin_options_set_compare_new_link(ravelin_options* options, bool on);

/** Sets the options of an operation for runs that start later. They are copied. Any thread,
 * waits. */
void ravelin_operation_set_options(ravelin_operation* operation, const ravelin_options* options);
/** Sets the default options of the process. They are copied. Any thread. */
void ravelin_set_default_options(const ravelin_options* options);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
