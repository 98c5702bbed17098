// Plays logind, the desktop portal and a dock, and prints a line for what each is told.

#include <cstdio>
#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <glib-unix.h>
#include <memory>
#include <string>

#include <unistd.h>

using Owned = std::unique_ptr<GDBusMessage, void (*)(gpointer)>;

void say(const std::string& text) {
  std::puts(text.c_str());
  std::fflush(stdout);
}

// The lock lasts until the other end of a pipe is closed.
void answer_with_lock(GDBusMessage* reply) {
  int ends[2];
  g_unix_open_pipe(ends, FD_CLOEXEC, nullptr);
  auto* const list = g_unix_fd_list_new_from_array(&ends[1], 1);
  g_dbus_message_set_unix_fd_list(reply, list);
  g_object_unref(list);
  g_dbus_message_set_body(reply, g_variant_new("(h)", 0));
  const GUnixFDSourceFunc on_close = [](gint fd, GIOCondition, gpointer) -> gboolean {
    close(fd);
    say("released");
    return G_SOURCE_REMOVE;
  };
  g_unix_fd_add(ends[0], G_IO_HUP, on_close, nullptr);
}

GDBusMessage* filter(GDBusConnection* bus, GDBusMessage* message, gboolean incoming, gpointer) {
  const std::string interface = incoming && g_dbus_message_get_interface(message)
                                    ? g_dbus_message_get_interface(message)
                                    : "";
  Owned reply(nullptr, g_object_unref);
  auto* const body = g_dbus_message_get_body(message);
  if (interface == "org.freedesktop.login1.Manager") {
    const gchar *what, *who, *why, *mode;
    g_variant_get(body, "(&s&s&s&s)", &what, &who, &why, &mode);
    const bool refuses = std::string(who) == "stranger";
    reply.reset(refuses ? g_dbus_message_new_method_error(message, "org.example.No", "no")
                        : g_dbus_message_new_method_reply(message));
    say(std::string(refuses ? "refused " : "inhibit ") + what + "," + who + "," + why + "," + mode);
    if (!refuses)
      answer_with_lock(reply.get());
  } else if (interface == "org.freedesktop.portal.Inhibit") {
    const gchar *window, *reason = "";
    guint32 flags = 0;
    GVariant* options = nullptr;
    g_variant_get(body, "(&su@a{sv})", &window, &flags, &options);
    g_variant_lookup(options, "reason", "&s", &reason);
    say("portal " + std::to_string(flags) + "," + reason);
    g_variant_unref(options);
    reply.reset(g_dbus_message_new_method_reply(message));
    g_dbus_message_set_body(reply.get(), g_variant_new("(o)", "/request/7"));
  } else if (interface == "org.freedesktop.portal.Request") {
    say(std::string("close ") + g_dbus_message_get_path(message));
    reply.reset(g_dbus_message_new_method_reply(message));
  } else {
    return message;
  }
  g_dbus_connection_send_message(bus, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                 nullptr);
  g_object_unref(message);
  return nullptr;
}

void on_update(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* arguments, gpointer) {
  const gchar* uri = "";
  GVariant* properties = nullptr;
  g_variant_get(arguments, "(&s@a{sv})", &uri, &properties);
  gdouble progress = -1;
  gint64 count = -1;
  gboolean progress_visible = -1, count_visible = -1; // stay so if missing or of another type
  g_variant_lookup(properties, "progress", "d", &progress);
  g_variant_lookup(properties, "progress-visible", "b", &progress_visible);
  g_variant_lookup(properties, "count", "x", &count);
  g_variant_lookup(properties, "count-visible", "b", &count_visible);
  g_variant_unref(properties);
  char text[200];
  std::snprintf(text, sizeof text, "%s %.3f,%d %d,%d", uri, progress, progress_visible,
                static_cast<int>(count), count_visible);
  say(text);
}

int main() {
  auto* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  g_dbus_connection_add_filter(bus, filter, nullptr, nullptr);
  g_dbus_connection_signal_subscribe(bus, nullptr, "com.canonical.Unity.LauncherEntry", "Update",
                                     nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, on_update, nullptr,
                                     nullptr);
  for (const auto* const name : {"org.freedesktop.login1", "org.freedesktop.portal.Desktop"})
    g_variant_unref(g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name, 0), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  say("ready");
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
