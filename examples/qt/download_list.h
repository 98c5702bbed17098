#pragma once

#include <QString>
#include <vector>

/// A saved download. Its progress is in its resume record.
struct Entry {
  QString link;
  QString file;
};

/// The saved state of the window.
struct SavedState {
  std::vector<Entry> entries;
  QString directory; // for new files
  int limit = 3;     // of simultaneous downloads

  static SavedState load(const QString& settings_file);
  void save(const QString& settings_file) const;
};
