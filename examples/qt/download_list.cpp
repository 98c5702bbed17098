#include "download_list.h"

#include <QSettings>
#include <QStandardPaths>

SavedState SavedState::load(const QString& settings_file) {
  QSettings settings(settings_file, QSettings::IniFormat);
  SavedState result;
  const auto default_directory = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
  result.directory = settings.value("directory", default_directory).toString();
  result.limit = settings.value("limit", result.limit).toInt();
  const int count = settings.beginReadArray("downloads");
  for (int i = 0; i < count; ++i) {
    settings.setArrayIndex(i);
    result.entries.push_back(
        {settings.value("link").toString(), settings.value("file").toString()});
  }
  return result;
}

void SavedState::save(const QString& settings_file) const {
  QSettings settings(settings_file, QSettings::IniFormat);
  settings.clear();
  settings.setValue("directory", directory);
  settings.setValue("limit", limit);
  settings.beginWriteArray("downloads", static_cast<int>(entries.size()));
  int index = 0;
  for (const auto& entry : entries) {
    settings.setArrayIndex(index++);
    settings.setValue("link", entry.link);
    settings.setValue("file", entry.file);
  }
} // the destructor writes the file
