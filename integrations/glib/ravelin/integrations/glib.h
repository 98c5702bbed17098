#pragma once

#include <ravelin/main_queue.h>

#include <glib-unix.h>

namespace ravelin {

/// Runs the main queue inside a GLib or GTK main loop while this object exists.
///
/// Threads: use it on the thread that runs the loop, which must be the main thread.
/// Errors: an exception of queued work cannot pass through GLib and terminates the process.
class GlibAdapter {
public:
  /// Null is the default context.
  explicit GlibAdapter(GMainContext* context = nullptr)
      : source_(g_unix_fd_source_new(MainQueue::descriptor(), G_IO_IN)) {
    const GUnixFDSourceFunc drain = [](gint, GIOCondition, gpointer) noexcept -> gboolean {
      MainQueue::drain();
      return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(source_, G_SOURCE_FUNC(drain), nullptr, nullptr);
    g_source_set_can_recurse(source_, TRUE); // a status callback may run a dialog's loop
    g_source_attach(source_, context);
  }
  ~GlibAdapter() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }
  GlibAdapter(const GlibAdapter&) = delete;
  GlibAdapter& operator=(const GlibAdapter&) = delete;

private:
  GSource* source_;
};

} // namespace ravelin
