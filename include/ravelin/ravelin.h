#pragma once

/**
 * @file
 * The library in C, for programs in C and for every language that can call it.
 *
 * Threads: one thread, the main thread, runs the main queue, and every callback comes on it. It is
 * the one that ran `main` unless `ravelin_main_queue_adopt_current_thread()` names another. A
 * function marked "Any thread" never waits for it; one marked "Any thread, waits" does its work
 * there, so that off the main thread it returns only while that thread runs the queue.
 *
 * Errors: they come as the final event of a run. No function throws; without memory the process
 * ends. Texts are UTF-8, paths are bytes, and a null text is taken as an empty one where nothing
 * else is said.
 */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The version of the library that is loaded, such as "1.2.3". Any thread. */
const char* ravelin_version(void);

/* ---- The main queue ---- */

/** Makes the calling thread the main thread. Once, at start, before the first operation. */
void ravelin_main_queue_adopt_current_thread(void);
/** Whether the calling thread is the main thread. Any thread. */
bool ravelin_main_queue_is_main_thread(void);
/** Queues `task(user)` for the main thread and returns at once. Any thread. */
void ravelin_main_queue_async(void (*task)(void* user), void* user);
/** Runs queued work until `ravelin_main_queue_stop()`, sleeping while there is none. Main
 * thread. */
void ravelin_main_queue_run(void);
/** Makes `run` return after the work under way; if none is under way, the next one. Any thread. */
void ravelin_main_queue_stop(void);
/** Readable while work is queued that no `run` sees to, for an event loop. Not to be read, written
 * or closed. Any thread. */
int ravelin_main_queue_descriptor(void);
/** Runs the work that is queued now, without waiting, and returns how many pieces. Main thread. */
size_t ravelin_main_queue_drain(void);

/* ---- What is told ---- */

/** What happens when the destination exists already or is being downloaded. */
typedef enum ravelin_on_conflict {
  ravelin_on_conflict_resume = 0,    /**< continue what is incomplete, accept what is complete */
  ravelin_on_conflict_replace = 1,   /**< delete what is there and begin anew */
  ravelin_on_conflict_keep_both = 2, /**< take another name; `ravelin_status_renamed` tells it */
  ravelin_on_conflict_stop = 3       /**< end in an error */
} ravelin_on_conflict;

/** What an event tells. Each run ends in exactly one of success, cancelled and error. */
typedef enum ravelin_status {
  ravelin_status_renamed = 0,           /**< fills main_file */
  ravelin_status_files_are_created = 1, /**< fills main_file and resume_file */
  ravelin_status_started = 2,           /**< fills progress.content_length */
  ravelin_status_downloading = 3,       /**< fills progress */
  ravelin_status_cancelled = 4,         /**< final; fills also_cleared_files and progress */
  ravelin_status_error = 5,             /**< final; fills the error fields */
  ravelin_status_pending = 6,           /**< waits for a free slot or for the same file */
  ravelin_status_connecting = 7,        /**< asks the server */
  ravelin_status_success = 8,           /**< final: the file is complete */
  ravelin_status_cancelling = 9         /**< was asked to stop */
} ravelin_status;

/** Where an operation stands. */
typedef enum ravelin_state {
  ravelin_state_downloading = 0, /**< the content comes in */
  ravelin_state_cancelled = 1,   /**< its last run was */
  ravelin_state_failed = 2,      /**< its last run did */
  ravelin_state_none = 3,        /**< not started yet */
  ravelin_state_pending = 4,     /**< waits for a free slot or for the same file */
  ravelin_state_connecting = 5,  /**< asks the server */
  ravelin_state_successful = 6,  /**< the file is complete */
  ravelin_state_cancelling = 7   /**< was asked to stop */
} ravelin_state;

/** Why a run failed. */
typedef enum ravelin_error_kind {
  ravelin_error_kind_other = 0,   /**< and the reason in error_domain, error_code and error_text */
  ravelin_error_kind_timeout = 1, /**< the server was silent */
  ravelin_error_kind_not_connected_to_internet = 2, /**< there is no network at all */
  ravelin_error_kind_network_connection_lost = 3    /**< in the middle */
} ravelin_error_kind;

/** How far a download has come. */
typedef struct ravelin_progress {
  int64_t received_bytes; /**< on disk or on their way there */
  int64_t content_length; /**< bytes; -1 while it is not known */
  double fraction;        /**< 0.0 to 1.0; -1.0 while the length is not known */
  bool is_at_snap_point;  /**< true about every snap interval, for few updates */
} ravelin_progress;

/** One event. It and its texts are valid until the callback returns. What a status does not fill is
 * null, zero or -1. Later versions may add fields at the end. */
typedef struct ravelin_event {
  ravelin_status status;         /**< which event it is */
  ravelin_progress progress;     /**< how far the download has come */
  bool also_cleared_files;       /**< the files were deleted */
  const char* main_file;         /**< path */
  const char* resume_file;       /**< path */
  ravelin_error_kind error_kind; /**< why the run failed */
  int error_code;                /**< of the domain; 0 where the error has none */
  const char* error_domain; /**< "NSURLErrorDomain" for the network's, "system" for errno, or "" */
  const char* error_text;   /**< for people */
} ravelin_event;

/** Is told each event of a run, on the main thread, with the `user` given at its start. It may call
 * every function here, and may resume its operation again when the event is final. */
typedef void (*ravelin_callback)(void* user, const ravelin_event* event);

/* ---- Operations ---- */

/** A download of one link to one file, which can be stopped and continued. */
typedef struct ravelin_operation ravelin_operation;

/** Makes an operation, which `ravelin_operation_free()` gives back. Any thread. */
ravelin_operation* ravelin_operation_new(void);
/** Gives the handle back. A run under way goes on, and its callback is still called until its final
 * event: cancel first to stop it. Null is ignored. Any thread. */
void ravelin_operation_free(ravelin_operation* operation);

/** Starts, or starts again, and returns before anything is sent over the network. `link`: http or
 * https. `dest_file`: a path, compared with other destinations exactly as given. `split_allowed`:
 * five connections where the server offers ranges. `callback` may be null. While a run is under
 * way a second one is refused: its callback gets one error. Any thread, waits. */
void ravelin_operation_resume(ravelin_operation* operation, const char* link, const char* dest_file,
                              bool split_allowed, ravelin_on_conflict on_conflict,
                              ravelin_callback callback, void* user);
/** Asks the run to stop and keeps its files; an idle operation stops at its next start. The final
 * event comes later. Any thread, waits. */
void ravelin_operation_cancel(ravelin_operation* operation);
/** The same, and deletes the files at the end. Any thread, waits. */
void ravelin_operation_cancel_and_clear_files(ravelin_operation* operation);
/** Tells where the operation stands, and in `progress`, unless it is null, how far it has come:
 * known while it downloads and once it is cancelled, otherwise 0 bytes. Any thread, waits. */
ravelin_state ravelin_operation_state(const ravelin_operation* operation,
                                      ravelin_progress* progress);
/** Spacing of the snap points in parts of the whole; 0.1 unless set. Any thread, waits. */
void ravelin_operation_set_progress_snap_interval(ravelin_operation* operation, float interval);

/** Cancels every operation that runs or waits. Any thread, waits. */
void ravelin_cancel_all(bool also_clear_files);
/** How many downloads run at once; the others wait in order. 5 unless set. Any thread, waits. */
int64_t ravelin_max_simultaneous_download_count(void);
/** Sets it; below 1 means 1. Any thread, waits. */
void ravelin_set_max_simultaneous_download_count(int64_t count);
/** How far a destination has come by its resume record, without an operation. Reads one small file
 * on the calling thread. Any thread. */
ravelin_progress ravelin_get_progress(const char* dest_file);
/** Deletes a destination and its resume record; errors are dropped. Not for one that is being
 * downloaded. Any thread. */
void ravelin_clear_files(const char* dest_file);

/* ---- What all downloads use ----
 * To be set before the first download, from one thread at a time; any thread. */

/** "http://host:port", "socks5://..."; "" for none, null for the environment's variables. */
void ravelin_set_proxy(const char* proxy);
/** A file of PEM certificates to trust instead of the system's; null for those. */
void ravelin_set_ca_bundle(const char* path);
/** One more header field for every request. */
void ravelin_add_header(const char* name, const char* value);
/** Takes all added header fields away. */
void ravelin_clear_headers(void);
/** Null for the library's own. */
void ravelin_set_user_agent(const char* user_agent);
/** Bytes per second for all downloads together; 0 for no limit. A new limit holds for all that have
 * one as soon as another request begins; those that began without one keep none. */
void ravelin_set_rate_limit(int64_t bytes_per_second);
/** How long a server may be silent, in milliseconds; 0 for the library's own 60 seconds. */
void ravelin_set_idle_timeout(int64_t milliseconds);

/* Safeguards; each is off unless asked for. */

/** A final status that brings no content (204, 205 and all but 2xx) is an error and not a body. */
void ravelin_set_reject_http_errors(bool reject);
/** A request for a range must be answered with exactly that range. */
void ravelin_set_require_exact_ranges(bool require);
/** All answers of one download must be of the same version of the content. */
void ravelin_set_reject_changed_content(bool reject);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
