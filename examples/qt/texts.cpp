#include "texts.h"

#include <QLocale>

QString describe_size(std::int64_t bytes) {
  return QLocale::c().formattedDataSize(bytes, 1);
}

QString describe_bytes(const ravelin::Progress& progress) {
  const auto received = describe_size(progress.received_bytes);
  if (!progress.content_length)
    return received;
  const auto length = describe_size(*progress.content_length);
  const bool is_same_unit = received.section(' ', 1) == length.section(' ', 1);
  return (is_same_unit ? received.section(' ', 0, 0) : received) + " of " + length;
}

QString describe_speed(const ravelin::RavelinOperation::Speed& speed) {
  if (speed.bytes_per_second < 1)
    return {};
  const auto text = describe_size(static_cast<std::int64_t>(speed.bytes_per_second)) + "/s";
  if (!speed.left || *speed.left > std::chrono::hours(99))
    return text;
  const auto seconds = speed.left->count();
  const auto two_digits = [](auto number) { return QString("%1").arg(number, 2, 10, QChar('0')); };
  return text + (seconds >= 3600
                     ? QString(", %1 h %2 min left").arg(seconds / 3600).arg(seconds / 60 % 60)
                     : QString(", %1:%2 left").arg(seconds / 60).arg(two_digits(seconds % 60)));
}
