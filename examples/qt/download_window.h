#pragma once

#include "download_list.h"

#include <ravelin/integrations/qt_desktop.h>
#include <ravelin/status.h>

#include <QWidget>
#include <vector>

class DownloadRow;
class QLabel;
class QLineEdit;
class QSpinBox;
class QToolButton;
class QVBoxLayout;

/// A list of downloads, which is saved and restored at the next start. Links can be dropped and
/// pasted on it. While downloads run, the dock shows their progress and the computer stays awake; a
/// notification tells their end if another window is active.
///
/// Threads: main thread. Closing the window stops its downloads first.
class DownloadWindow final : public QWidget {
public:
  explicit DownloadWindow(const QString& settings_file);

  /// Downloads `link` to the chosen directory. Asks what to do if the file exists.
  void add(const QString& link);
  /// Adds each http and https link in `text`.
  void add_all(const QString& text);
  void set_directory(const QString& directory);

protected:
  void closeEvent(QCloseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

private:
  QWidget* build_entry_line();
  QWidget* build_settings_line();
  QWidget* build_list();
  void add_typed();
  void start(const QString& link, const QString& file, ravelin::OnConflict on_conflict);
  DownloadRow* append(const Entry& entry);
  DownloadRow* row_of(const QString& file) const;
  DownloadRow* row_with_record_of(const QString& file) const;
  void ask_to_remove(DownloadRow* row);
  void delete_row(DownloadRow* row);
  void choose_directory();
  void set_limit(int limit);
  void show_notice(const QString& text);
  void save() const;
  void on_changed();
  void on_ended(const DownloadRow& row, bool has_failed, const QString& text);
  void tell_end();
  bool is_any_running() const;

  const QString settings_file_;
  SavedState state_; // without entries, which are in the rows
  std::vector<DownloadRow*> rows_;
  bool closing_ = false;
  int complete_count_ = 0; // not told yet
  int failed_count_ = 0;
  QString last_name_, last_text_; // of those

  const std::shared_ptr<ravelin::RunningDownloads> running_;
  const ravelin::QtLauncherProgress launcher_;
  const ravelin::QtSleepInhibitor sleep_inhibitor_;

  QLineEdit* link_ = nullptr;
  QSpinBox* limit_ = nullptr;
  QToolButton* directory_ = nullptr;
  QVBoxLayout* list_ = nullptr;
  QLabel* notice_ = nullptr;
};
