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

namespace {

URL file_url(const QString& file) {
  return URL::file(QFile::encodeName(file).toStdString());
}

} // namespace

DownloadRow::DownloadRow(Entry entry, QWidget* parent) : QFrame(parent), entry_(std::move(entry)) {
  build();
  look_at_file();
}

DownloadRow::~DownloadRow() {
  ++run_; // nothing more is to be shown
  if (operation_)
    operation_->cancel();
}

QString DownloadRow::name() const {
  return QFileInfo(entry_.file).fileName();
}

/// By the resume record; a file without one is complete.
void DownloadRow::look_at_file() {
  progress_ = RavelinOperation::get_progress(file_url(entry_.file));
  const bool has_record = progress_.content_length || !progress_.prog_value;
  complete_ = !has_record && QFileInfo::exists(entry_.file);
  if (complete_)
    show_words("Done, " + size_text(QFileInfo(entry_.file).size()));
  else
    show_words(has_record ? "Paused" : "Not begun");
}

void DownloadRow::start(const QString& link, OnConflict on_conflict) {
  entry_.link = link;
  complete_ = false;
  operation_ = std::make_shared<RavelinOperation>();
  meter_.restart(progress_.received_bytes);
  if (timer_ == 0)
    timer_ = startTimer(200); // events come with every chunk: far more often than one can look
  show_words("Connecting");
  const auto callback = [row = QPointer(this), run = ++run_](const Status& status) {
    if (status.holds<Status::files_are_created>())
      return; // the one event that comes on another thread, where no widget may be touched
    if (row && row->run_ == run)
      row->on_status(status);
  };
  operation_->resume(URL(link.toStdString()), file_url(entry_.file), true, on_conflict, callback);
  on_changed();
}

void DownloadRow::on_status(const Status& status) {
  status.visit(match{
      [&](const Status::renamed& now) {
        entry_.file = QFile::decodeName(now.new_file_url.path().c_str());
        progress_ = {0.0F, 0, false};
      },
      [&](const Status::pending&) { show_words("Waiting for its turn"); },
      [&](const Status::connecting&) { show_words("Connecting"); },
      [&](const Status::started&) { meter_.restart(progress_.received_bytes); },
      [&](const Status::downloading& now) { progress_ = now.progress; },
      [&](const Status::cancelling&) { show_words("Stopping"); },
      [&](const Status::cancelled&) { end_run("Paused"); },
      [&](const Status::success&) { end_run({}); },
      [&](const Status::error& e) { end_run(QString::fromStdString(e.custom_error.text())); },
      [](const Status::files_are_created&) {},
  });
}

void DownloadRow::end_run(const QString& words) {
  killTimer(std::exchange(timer_, 0));
  operation_.reset();
  if (removing_) {
    RavelinOperation::clear_files(file_url(entry_.file)); // it may have been complete by then
    on_removed();
    return;
  }
  look_at_file();
  if (!words.isEmpty() && !complete_)
    show_words(words.simplified(), words != "Paused");
  on_changed();
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
  meter_.count(progress_.received_bytes);
  const auto state = operation_ ? operation_->state() : State{State::none{}};
  if (!state.holds<State::downloading>())
    return;
  const auto length = progress_.content_length;
  auto words = size_text(progress_.received_bytes);
  if (length)
    words += " of " + size_text(*length);
  const auto rate = rate_text(meter_.rate(), length ? *length - progress_.received_bytes : -1);
  show_words(rate.isEmpty() ? words : words + ", " + rate);
}
