#pragma once

#include <QString>
#include <vector>

/// What is remembered of a download. How far it has come is the library's to know.
struct Entry {
  QString link;
  QString file;
};

/// What is remembered from one start of the window to the next.
struct Remembered {
  std::vector<Entry> entries;
  QString directory; // where new files go
  int limit = 3;     // downloads at once

  static Remembered load(const QString& settings_file);
  void save(const QString& settings_file) const;
};
