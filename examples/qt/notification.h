#pragma once

class QString;

/// Shows a notification of the desktop and returns at once. Does nothing without a session bus.
void show_notification(const QString& title, const QString& text);
