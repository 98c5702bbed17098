#include "download_window.h"

#include "download_row.h"
#include "notification.h"
#include "questions.h"

#include <ravelin/ravelin_operation.h>
#include <ravelin/response.h>

#include <QCloseEvent>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QMimeData>
#include <QRegularExpression>
#include <QUrl>
#include <algorithm>
#include <utility>

using namespace ravelin;

namespace {

QStringList links_in(const QString& text) {
  static const QRegularExpression link("https?://\\S+", QRegularExpression::CaseInsensitiveOption);
  QStringList result;
  for (auto found = link.globalMatch(text); found.hasNext();)
    result += found.next().captured();
  return result;
}

/// A browser names the link of a dragged picture or page here, and in the text perhaps its title.
QString dragged_text(const QMimeData& data) {
  QString links;
  for (const auto& url : data.urls())
    links += QString::fromUtf8(url.toEncoded()) + "\n";
  return links.isEmpty() ? data.text() : links;
}

} // namespace

void DownloadWindow::add_typed() {
  const auto text = link_->text();
  if (links_in(text).size() > 1)
    add_all(text);
  else
    add(text); // with or without http://
}

void DownloadWindow::add_all(const QString& text) {
  const auto links = links_in(text);
  if (links.isEmpty())
    show_notice("There is no http or https link in it.");
  for (const auto& link : links)
    add(link);
}

void DownloadWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (!links_in(dragged_text(*event->mimeData())).isEmpty())
    event->acceptProposedAction();
}

void DownloadWindow::dropEvent(QDropEvent* event) {
  event->setDropAction(Qt::CopyAction); // a move would delete the text where it came from
  event->accept();
  add_all(dragged_text(*event->mimeData()));
}

void DownloadWindow::add(const QString& link) {
  const auto url = QUrl::fromUserInput(link.trimmed());
  if (url.scheme() != "http" && url.scheme() != "https") {
    show_notice("This is not an http or https link.");
    return;
  }
  show_notice({});
  link_->clear();
  const auto text = QString::fromUtf8(url.toEncoded());
  const auto suggested = suggested_name(URL(text.toStdString()));
  const auto name = QString::fromStdString(suggested.value_or("download"));
  const auto file = QDir(state_.directory).filePath(name);
  if (QFileInfo(file).isDir())
    show_notice(name + " is a directory.");
  else if (!row_of(file) && !QFile::exists(file))
    start(text, file, OnConflict::resume);
  else
    ask_about_conflict(this, name,
                       [=, this](OnConflict on_conflict) { start(text, file, on_conflict); });
}

void DownloadWindow::start(const QString& link, const QString& file, OnConflict on_conflict) {
  if (on_conflict == OnConflict::stop) {
    show_notice(QFileInfo(file).fileName() + " was left as it is.");
    return;
  }
  auto* row = on_conflict == OnConflict::keep_both ? nullptr : row_of(file);
  const auto* const other =
      on_conflict == OnConflict::keep_both ? nullptr : row_with_record_of(file);
  if (other) {
    show_notice(other->name() + " uses the same resume record; finish or remove it first.");
    return;
  }
  if (row && row->is_running() && on_conflict == OnConflict::resume)
    return;
  QDir().mkpath(QFileInfo(file).path()); // if that fails, the download fails
  if (!row)
    row = append({link, file});
  row->start(link, on_conflict);
}

DownloadRow* DownloadWindow::row_of(const QString& file) const {
  const auto found =
      std::ranges::find_if(rows_, [&](auto* row) { return row->entry().file == file; });
  return found == rows_.end() ? nullptr : *found;
}

/// Another unfinished download with the same resume record.
DownloadRow* DownloadWindow::row_with_record_of(const QString& file) const {
  const auto record_of = [](const QString& name) {
    return RavelinOperation::get_resume_file(file_url(name));
  };
  const auto found = std::ranges::find_if(rows_, [&](auto* row) {
    const auto& other = row->entry().file;
    return other != file && !row->is_complete() && record_of(other) == record_of(file);
  });
  return found == rows_.end() ? nullptr : *found;
}

void DownloadWindow::ask_to_remove(DownloadRow* row) {
  if (!row->is_complete()) {
    row->remove(false);
    return;
  }
  ask_about_removal(this, row->name(),
                    [row](Removal removal) { row->remove(removal == Removal::with_file); });
}

void DownloadWindow::delete_row(DownloadRow* row) {
  std::erase(rows_, row);
  row->deleteLater(); // the row is the caller
  on_changed();
}

void DownloadWindow::choose_directory() {
  const auto chosen =
      QFileDialog::getExistingDirectory(this, "Folder for new files", state_.directory);
  if (chosen.isEmpty())
    return;
  set_directory(chosen);
  save();
}

bool DownloadWindow::is_any_running() const {
  return std::ranges::any_of(rows_, [](auto* row) { return row->is_running(); });
}

void DownloadWindow::on_changed() {
  save();
  if (closing_ && !is_any_running())
    close();
}

void DownloadWindow::on_ended(const DownloadRow& row, bool has_failed, const QString& text) {
  ++(has_failed ? failed_count_ : complete_count_);
  last_name_ = row.name();
  last_text_ = text;
}

void DownloadWindow::tell_end() {
  const int complete = std::exchange(complete_count_, 0);
  const int failed = std::exchange(failed_count_, 0);
  if (complete + failed == 0 || isActiveWindow())
    return;
  if (complete + failed == 1)
    show_notification(last_name_, last_text_);
  else
    show_notification("Downloads have ended",
                      QString("%1 complete, %2 failed").arg(complete).arg(failed));
}

void DownloadWindow::save() const {
  auto state = state_;
  for (const auto* const row : rows_)
    state.entries.push_back(row->entry());
  state.save(settings_file_);
}

/// Closes once all downloads have stopped, so that their records count every byte.
void DownloadWindow::closeEvent(QCloseEvent* event) {
  closing_ = is_any_running();
  for (auto* const row : rows_)
    row->pause();
  event->setAccepted(!is_any_running());
}
