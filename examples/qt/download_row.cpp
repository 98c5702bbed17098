#include "download_row.h"

#include "texts.h"

#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QToolButton>
#include <utility>

using namespace ravelin;

URL file_url(const QString& file) {
  return URL::file(QFile::encodeName(file).toStdString());
}

DownloadRow::DownloadRow(Entry entry, std::shared_ptr<RunningDownloads> running, QWidget* parent)
    : QFrame(parent), entry_(std::move(entry)), running_(std::move(running)) {
  build();
  check_file();
}

DownloadRow::~DownloadRow() {
  ++run_; // ignore further events
  if (operation_)
    operation_->cancel();
}

QString DownloadRow::name() const {
  return QFileInfo(entry_.file).fileName();
}

void DownloadRow::check_file() {
  const auto state = RavelinOperation::get_file_state(file_url(entry_.file));
  progress_ = state.is_unfinished ? state.progress : Progress();
  complete_ = state.exists && !state.is_unfinished;
  if (complete_)
    show_text("Done, " + describe_size(QFileInfo(entry_.file).size()));
  else
    show_text(state.is_unfinished ? describe_bytes(progress_) + ", paused" : "Not started");
}

void DownloadRow::start(const QString& link, OnConflict on_conflict) {
  entry_.link = link;
  complete_ = false;
  operation_ = std::make_shared<RavelinOperation>();
  if (timer_ == 0)
    timer_ = startTimer(200); // milliseconds; there are far more events than that
  show_text("Connecting");
  auto callback = [row = QPointer(this), run = ++run_](const Status& status) {
    if (status.holds<Status::files_are_created>())
      return; // sent on a background thread, where widgets must not be used
    if (row && row->run_ == run)
      row->on_status(status);
  };
  operation_->resume(URL(link.toStdString()), file_url(entry_.file), true, on_conflict,
                     running_->watch(std::move(callback)));
  on_changed();
}

void DownloadRow::on_status(const Status& status) {
  status.visit(match{
      [&](const Status::renamed& now) {
        entry_.file = QFile::decodeName(now.new_file_url.path().c_str());
        progress_ = Progress();
      },
      [&](const Status::pending&) { show_text("Waiting for a free slot"); },
      [&](const Status::connecting&) { show_text("Connecting"); },
      [](const Status::started&) {},
      [&](const Status::downloading& now) { progress_ = now.progress; },
      [&](const Status::cancelling&) { show_text("Stopping"); },
      [&](const Status::cancelled&) { end_run(End::paused); },
      [&](const Status::success&) { end_run(End::complete); },
      [&](const Status::error& e) {
        end_run(End::failed, QString::fromStdString(e.custom_error.text()).simplified());
      },
      [](const Status::files_are_created&) {},
  });
}

void DownloadRow::end_run(End end, const QString& error) {
  killTimer(std::exchange(timer_, 0));
  operation_.reset();
  if (removing_) {
    RavelinOperation::clear_files(file_url(entry_.file)); // in case it was completed meanwhile
    on_removed();
    return;
  }
  check_file();
  if (end == End::failed && !complete_)
    show_text(error, true);
  on_changed();
  on_ended(end, text_->text());
}

void DownloadRow::pause() {
  if (operation_)
    operation_->cancel();
}

void DownloadRow::remove(bool also_complete_file) {
  removing_ = true;
  if (operation_) {
    operation_->cancel_and_clear_files(); // the final event follows
    return;
  }
  if (!complete_ || also_complete_file)
    RavelinOperation::clear_files(file_url(entry_.file));
  on_removed();
}

void DownloadRow::toggle() {
  if (is_running())
    pause();
  else
    start(entry_.link, OnConflict::resume);
}

void DownloadRow::timerEvent(QTimerEvent*) {
  if (!operation_ || !operation_->state().holds<State::downloading>())
    return;
  const auto text = describe_bytes(progress_);
  const auto speed = describe_speed(operation_->speed());
  show_text(speed.isEmpty() ? text : text + ", " + speed);
}
