#include "texts.h"

#include <QLocale>
#include <cmath>

QString name_from_link(const QUrl& link) {
  auto name = link.fileName(QUrl::FullyDecoded);
  for (auto& c : name)
    if (c == '/' || c.category() == QChar::Other_Control)
      c = '_';
  while (name.toUtf8().size() > 200) // leaves room for the names beside it
    name.chop(1);
  return name.isEmpty() || name == "." || name == ".." ? "download" : name;
}

QString size_text(std::int64_t bytes) {
  return QLocale::c().formattedDataSize(bytes, 1);
}

QString rate_text(double bytes_per_second, std::int64_t bytes_left) {
  if (bytes_per_second < 1)
    return {};
  auto text = size_text(static_cast<std::int64_t>(bytes_per_second)) + "/s";
  const double seconds_left = std::ceil(static_cast<double>(bytes_left) / bytes_per_second);
  if (bytes_left < 0 || seconds_left > 99 * 3600)
    return text;
  const auto seconds = static_cast<int>(seconds_left);
  const auto two_digits = [](int number) { return QString("%1").arg(number, 2, 10, QChar('0')); };
  text += seconds >= 3600 ? QString(", %1 h %2 min left").arg(seconds / 3600).arg(seconds / 60 % 60)
                          : QString(", %1:%2 left").arg(seconds / 60).arg(two_digits(seconds % 60));
  return text;
}
