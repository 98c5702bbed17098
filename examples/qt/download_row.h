#pragma once

#include "download_list.h"

#include <ravelin/integrations/desktop.h>
#include <ravelin/ravelin_operation.h>

#include <QFrame>
#include <functional>
#include <memory>

class QLabel;
class QProgressBar;
class QToolButton;

/// One download: a row of the window and the operation behind it.
///
/// Threads: main thread. Ownership: the window's; destroying a row stops its download.
class DownloadRow final : public QFrame {
public:
  /// Shows the state of the file; sends no request. Its runs are added to `running`.
  DownloadRow(Entry entry, std::shared_ptr<ravelin::RunningDownloads> running, QWidget* parent);
  ~DownloadRow() override;

  void start(const QString& link, ravelin::OnConflict on_conflict);
  void pause();
  /// Stops the download, deletes an unfinished file, and then calls `on_removed`.
  void remove(bool also_complete_file);

  const Entry& entry() const { return entry_; }
  QString name() const;
  bool is_running() const { return operation_ != nullptr; }
  bool is_complete() const { return complete_; }

  enum class End { complete, paused, failed };

  // Set by the window. Only `on_removed` may delete the row.
  std::function<void()> on_changed = [] {}; // the link or file has changed, or a run has ended
  std::function<void(End, const QString& text)> on_ended = [](auto, auto&) {}; // after on_changed
  std::function<void()> on_remove_clicked = [] {};
  std::function<void()> on_removed = [] {};

protected:
  void timerEvent(QTimerEvent* event) override;
  void changeEvent(QEvent* event) override;

private:
  void build();
  void check_file();
  void on_status(const ravelin::Status& status);
  void end_run(End end, const QString& error = {});
  void show_colours();
  void show_bar();
  void show_text(const QString& text, bool is_error = false);
  void show_toggle();
  void toggle();

  Entry entry_;
  const std::shared_ptr<ravelin::RunningDownloads> running_; // of all rows
  std::shared_ptr<ravelin::RavelinOperation> operation_;     // of the current run, if any
  int run_ = 0;                                              // events of earlier runs are ignored
  ravelin::Progress progress_;
  int timer_ = 0;
  bool complete_ = false;
  bool removing_ = false;
  bool is_error_ = false; // what the text says

  QLabel* name_ = nullptr;
  QLabel* percent_ = nullptr;
  QLabel* text_ = nullptr;
  QProgressBar* bar_ = nullptr;
  QToolButton* toggle_ = nullptr;
  QString bar_style_;
};

ravelin::URL file_url(const QString& file);
