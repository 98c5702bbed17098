#pragma once

#include <ravelin/integrations/desktop.h>

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

#include <unistd.h>

namespace ravelin {

/// The desktop as reached through GDBus; internal. Callbacks run in the thread-default context.
struct GlibDesktop {
  using Connection = std::shared_ptr<GDBusConnection>;     ///< null without a bus
  using Held = std::function<void(std::shared_ptr<void>)>; ///< called with null if refused

  /// Calls `done` on the main thread. The connection is the one that the process shares; it no
  /// longer ends the process when the bus goes away.
  static void connect(DesktopBus bus, std::function<void(Connection)> done) {
    using Done = std::function<void(Connection)>;
    const auto on_ready = [](GObject*, GAsyncResult* result, gpointer data) noexcept {
      const std::unique_ptr<Done> owned(static_cast<Done*>(data));
      auto* const connection = g_bus_get_finish(result, nullptr);
      if (!connection)
        return (*owned)(nullptr);
      g_dbus_connection_set_exit_on_close(connection, FALSE);
      (*owned)(Connection(connection, g_object_unref));
    };
    g_bus_get(bus == DesktopBus::session ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM, nullptr,
              on_ready, new Done(std::move(done)));
  }

  /// Calls `done` after a time.
  static void after(std::chrono::milliseconds time, std::function<void()> done) {
    using Done = std::function<void()>;
    auto* const source = g_timeout_source_new(static_cast<guint>(time.count()));
    const GSourceFunc call = [](gpointer data) noexcept -> gboolean {
      (*static_cast<Done*>(data))();
      return G_SOURCE_REMOVE;
    };
    g_source_set_callback(source, call, new Done(std::move(done)),
                          [](gpointer data) { delete static_cast<Done*>(data); });
    g_source_attach(source, g_main_context_get_thread_default());
    g_source_unref(source);
  }

  /// See `LauncherProgress`.
  static void send_progress(GDBusConnection& bus, const std::string& uri,
                            const OverallProgress& now) {
    GVariantDict properties;
    g_variant_dict_init(&properties, nullptr);
    g_variant_dict_insert(&properties, "progress", "d", now.progress.value_or(0));
    g_variant_dict_insert(&properties, "progress-visible", "b", now.progress.has_value());
    g_variant_dict_insert(&properties, "count", "x", gint64{now.running});
    g_variant_dict_insert(&properties, "count-visible", "b", now.running > 0);
    g_dbus_connection_emit_signal(
        &bus, nullptr, "/com/canonical/unity/launcherentry/0", "com.canonical.Unity.LauncherEntry",
        "Update", g_variant_new("(s@a{sv})", uri.c_str(), g_variant_dict_end(&properties)),
        nullptr);
    keep_until_sent(bus);
  }

  /// Asks for an inhibition, which lasts as long as the descriptor of the answer is open.
  static void ask_logind(GDBusConnection& bus, const std::string& who, const std::string& why,
                         Held done) {
    const auto on_reply = [](GObject* source, GAsyncResult* result, gpointer data) noexcept {
      const std::unique_ptr<Held> owned(static_cast<Held*>(data));
      GUnixFDList* list = nullptr;
      auto* const reply = g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(source),
                                                                          &list, result, nullptr);
      if (!reply)
        return (*owned)(nullptr);
      gint32 index = 0;
      g_variant_get(reply, "(h)", &index);
      const int descriptor = list ? g_unix_fd_list_get(list, index, nullptr) : -1;
      g_clear_object(&list);
      g_variant_unref(reply);
      (*owned)(descriptor < 0 ? nullptr : std::make_shared<Descriptor>(descriptor));
    };
    g_dbus_connection_call_with_unix_fd_list(
        &bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
        "Inhibit", g_variant_new("(ssss)", "sleep", who.c_str(), why.c_str(), "block"),
        G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, on_reply,
        new Held(std::move(done)));
  }

  /// Asks for an inhibition, which lasts until the request of the answer is closed.
  static void ask_portal(GDBusConnection& bus, const std::string& why, Held done) {
    const auto on_reply = [](GObject* source, GAsyncResult* result, gpointer data) noexcept {
      const std::unique_ptr<Held> owned(static_cast<Held*>(data));
      auto* const bus_of_reply = G_DBUS_CONNECTION(source);
      auto* const reply = g_dbus_connection_call_finish(bus_of_reply, result, nullptr);
      if (!reply)
        return (*owned)(nullptr);
      const gchar* path = nullptr;
      g_variant_get(reply, "(&o)", &path);
      auto request = std::make_shared<Request>(bus_of_reply, path);
      g_variant_unref(reply);
      (*owned)(std::move(request));
    };
    GVariantDict options;
    g_variant_dict_init(&options, nullptr);
    g_variant_dict_insert(&options, "reason", "s", why.c_str());
    constexpr guint32 suspend = 4;
    g_dbus_connection_call(&bus, "org.freedesktop.portal.Desktop",
                           "/org/freedesktop/portal/desktop", "org.freedesktop.portal.Inhibit",
                           "Inhibit",
                           g_variant_new("(su@a{sv})", "", suspend, g_variant_dict_end(&options)),
                           G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, on_reply,
                           new Held(std::move(done)));
  }

private:
  // The last reference to a connection drops what waits to be sent; the flush holds one.
  static void keep_until_sent(GDBusConnection& bus) {
    g_dbus_connection_flush(&bus, nullptr, nullptr, nullptr);
  }

  struct Descriptor {
    explicit Descriptor(int number) : fd(number) {}
    ~Descriptor() { close(fd); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
  };

  struct Request {
    Request(GDBusConnection* connection, const gchar* name)
        : bus(static_cast<GDBusConnection*>(g_object_ref(connection)), g_object_unref), path(name) {
    }
    ~Request() {
      g_dbus_connection_call(bus.get(), "org.freedesktop.portal.Desktop", path.c_str(),
                             "org.freedesktop.portal.Request", "Close", nullptr, nullptr,
                             G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
      keep_until_sent(*bus);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    Connection bus;
    std::string path;
  };
};

/// See `LauncherProgress`. Needs gio-unix-2.0. The thread's default context must be the one that
/// runs. The signal that hides everything on destruction is sent by a thread of GLib's; a process
/// that ends at once may leave before, which hides everything too.
using GlibLauncherProgress = LauncherProgress<GlibDesktop>;
/// See `SleepInhibitor`. Needs gio-unix-2.0. The thread's default context must be the one that
/// runs.
using GlibSleepInhibitor = SleepInhibitor<GlibDesktop>;

} // namespace ravelin
