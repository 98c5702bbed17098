#pragma once

#include "download_list.h"

#include <ravelin/status.h>

#include <QWidget>
#include <vector>

class DownloadRow;
class QLabel;
class QLineEdit;
class QSpinBox;
class QToolButton;
class QVBoxLayout;

/// A list of downloads, which it finds again at its next start.
///
/// Threads: main thread. Closing it first stops its downloads in good order.
class DownloadWindow final : public QWidget {
public:
  explicit DownloadWindow(const QString& settings_file);

  /// Begins to download `link` into the directory chosen, and asks where its file is there already.
  void add(const QString& link);
  void set_directory(const QString& directory);

protected:
  void closeEvent(QCloseEvent* event) override;

private:
  QWidget* build_entry_line();
  QWidget* build_settings_line();
  QWidget* build_list();
  void begin(const QString& link, const QString& file, ravelin::OnConflict on_conflict);
  DownloadRow* append(const Entry& entry);
  DownloadRow* row_of(const QString& file) const;
  DownloadRow* row_with_record_of(const QString& file) const;
  void ask_to_remove(DownloadRow* row);
  void forget(DownloadRow* row);
  void choose_directory();
  void set_limit(int limit);
  void say(const QString& words);
  void save() const;
  void on_changed();
  bool is_any_running() const;

  const QString settings_file_;
  Remembered remembered_; // its entries only at the start; later the rows have them
  std::vector<DownloadRow*> rows_;
  bool closing_ = false;

  QLineEdit* link_ = nullptr;
  QSpinBox* limit_ = nullptr;
  QToolButton* directory_ = nullptr;
  QVBoxLayout* list_ = nullptr;
  QLabel* notice_ = nullptr;
};
