#include "notification.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QGuiApplication>
#include <QStringList>
#include <QVariantMap>

void show_notification(const QString& title, const QString& text) {
  auto call = QDBusMessage::createMethodCall("org.freedesktop.Notifications",
                                             "/org/freedesktop/Notifications",
                                             "org.freedesktop.Notifications", "Notify");
  constexpr uint replaced = 0;
  constexpr int time = -1; // as the desktop likes
  const auto id = QGuiApplication::desktopFileName();
  call << QGuiApplication::applicationDisplayName() << replaced << id << title
       << text.toHtmlEscaped() << QStringList() << QVariantMap{{"desktop-entry", id}} << time;
  QDBusConnection::sessionBus().asyncCall(call);
}
