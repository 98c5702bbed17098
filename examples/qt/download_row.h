#pragma once

#include "download_list.h"
#include "rate_meter.h"

#include <ravelin/ravelin_operation.h>

#include <QFrame>
#include <functional>
#include <memory>

class QLabel;
class QProgressBar;
class QToolButton;

/// One download: a row of the window and the operation behind it.
///
/// Threads: main thread. Ownership: the window's; a row that goes stops its download.
class DownloadRow final : public QFrame {
public:
  /// Shows where the file stands on disk; asks nothing of a server.
  DownloadRow(Entry entry, QWidget* parent);
  ~DownloadRow() override;

  void start(const QString& link, ravelin::OnConflict on_conflict);
  void pause();
  /// Stops the download, deletes what is unfinished, and is told by `on_removed`.
  void remove(bool also_complete_file);

  const Entry& entry() const { return entry_; }
  QString name() const;
  bool is_running() const { return operation_ != nullptr; }
  bool is_complete() const { return complete_; }

  // To be set by the window. The row may be deleted by `on_removed` only.
  std::function<void()> on_changed = [] {}; // another link or file, or the end of a run
  std::function<void()> on_remove_clicked = [] {};
  std::function<void()> on_removed = [] {};

protected:
  void timerEvent(QTimerEvent* event) override;

private:
  void build();
  void look_at_file();
  void on_status(const ravelin::Status& status);
  void end_run(const QString& words);
  void show_bar(bool bad);
  void show_words(const QString& words, bool bad = false);
  void show_toggle();
  void toggle();

  Entry entry_;
  std::shared_ptr<ravelin::RavelinOperation> operation_; // of the run under way, if any
  int run_ = 0;                                          // tells the events of different runs apart
  ravelin::Progress progress_{0.0F, 0, false};
  RateMeter meter_;
  int timer_ = 0;
  bool complete_ = false;
  bool removing_ = false;

  QLabel* name_ = nullptr;
  QLabel* percent_ = nullptr;
  QLabel* words_ = nullptr;
  QProgressBar* bar_ = nullptr;
  QToolButton* toggle_ = nullptr;
  const char* colour_ = nullptr; // of the bar
};
