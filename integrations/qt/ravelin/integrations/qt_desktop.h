#pragma once

#include <ravelin/integrations/desktop.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QString>
#include <QThreadPool>
#include <QTimer>
#include <QVariantMap>

namespace ravelin {

/// The desktop as reached through QtDBus; internal. Callbacks run in Qt's event loop.
struct QtDesktop {
  using Connection = std::optional<QDBusConnection>;       ///< none without a bus
  using Held = std::function<void(std::shared_ptr<void>)>; ///< called with null if refused

  /// Calls `done` on the main thread. Connecting blocks, so a thread of Qt's pool does it; the
  /// application object waits for that when it is destroyed.
  static void connect(DesktopBus bus, std::function<void(Connection)> done) {
    QThreadPool::globalInstance()->start([bus, done = std::move(done)] {
      const auto connection =
          bus == DesktopBus::session ? QDBusConnection::sessionBus() : QDBusConnection::systemBus();
      QMetaObject::invokeMethod(
          QCoreApplication::instance(),
          [done, connection] {
            done(connection.isConnected() ? Connection(connection) : std::nullopt);
          },
          Qt::QueuedConnection);
    });
  }

  /// Calls `done` after a time.
  static void after(std::chrono::milliseconds time, std::function<void()> done) {
    QTimer::singleShot(time, QCoreApplication::instance(), std::move(done));
  }

  /// See `LauncherProgress`.
  static void send_progress(const QDBusConnection& bus, const std::string& uri,
                            const OverallProgress& now) {
    auto signal = QDBusMessage::createSignal(QStringLiteral("/com/canonical/unity/launcherentry/0"),
                                             QStringLiteral("com.canonical.Unity.LauncherEntry"),
                                             QStringLiteral("Update"));
    signal << QString::fromStdString(uri)
           << QVariantMap{{QStringLiteral("progress"), now.progress.value_or(0)},
                          {QStringLiteral("progress-visible"), now.progress.has_value()},
                          {QStringLiteral("count"), qlonglong{now.running}},
                          {QStringLiteral("count-visible"), now.running > 0}};
    bus.send(signal);
  }

  /// Asks for an inhibition, which lasts as long as the descriptor of the answer is open.
  static void ask_logind(const QDBusConnection& bus, const std::string& who, const std::string& why,
                         Held done) {
    auto call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QString::fromStdString(who) << QString::fromStdString(why)
         << QStringLiteral("block");
    await<QDBusUnixFileDescriptor>(bus.asyncCall(call), [done = std::move(done)](const auto* fd) {
      done(fd ? std::make_shared<QDBusUnixFileDescriptor>(*fd) : nullptr);
    });
  }

  /// Asks for an inhibition, which lasts until the request of the answer is closed.
  static void ask_portal(const QDBusConnection& bus, const std::string& why, Held done) {
    auto call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.portal.Desktop"),
                                               QStringLiteral("/org/freedesktop/portal/desktop"),
                                               QStringLiteral("org.freedesktop.portal.Inhibit"),
                                               QStringLiteral("Inhibit"));
    constexpr uint suspend = 4;
    call << QString() << suspend
         << QVariantMap{{QStringLiteral("reason"), QString::fromStdString(why)}};
    await<QDBusObjectPath>(bus.asyncCall(call), [bus, done = std::move(done)](const auto* path) {
      done(path ? std::make_shared<Request>(bus, path->path()) : nullptr);
    });
  }

private:
  struct Request {
    Request(QDBusConnection connection, QString name)
        : bus(std::move(connection)), path(std::move(name)) {}
    ~Request() {
      bus.send(QDBusMessage::createMethodCall(
          QStringLiteral("org.freedesktop.portal.Desktop"), path,
          QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Close")));
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    QDBusConnection bus;
    QString path;
  };

  // Calls `done` with the result, or with null after an error.
  template <class Result, class Done> static void await(const QDBusPendingCall& call, Done done) {
    auto* const watcher = new QDBusPendingCallWatcher(call, QCoreApplication::instance());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, done] {
      watcher->deleteLater();
      const QDBusPendingReply<Result> reply = *watcher;
      const Result result = reply.isValid() ? reply.value() : Result();
      done(reply.isValid() ? &result : nullptr);
    });
  }
};

/// See `LauncherProgress`. Link with Qt6::DBus. Create it after the application object and destroy
/// it before.
using QtLauncherProgress = LauncherProgress<QtDesktop>;
/// See `SleepInhibitor`. Link with Qt6::DBus. Create it after the application object and destroy it
/// before.
using QtSleepInhibitor = SleepInhibitor<QtDesktop>;

} // namespace ravelin
