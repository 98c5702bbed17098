#pragma once

#include <QString>
#include <QUrl>
#include <cstdint>

/// The file name that a link suggests: never one that leads out of the directory.
QString name_from_link(const QUrl& link);

/// "12.3 MiB".
QString size_text(std::int64_t bytes);

/// "2.1 MiB/s, 1:05 left"; empty while the rate is not known.
QString rate_text(double bytes_per_second, std::int64_t bytes_left);
