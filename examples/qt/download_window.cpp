#include "download_window.h"

#include "download_row.h"
#include "questions.h"

#include <ravelin/ravelin_operation.h>
#include <ravelin/response.h>

#include <QCloseEvent>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QUrl>
#include <algorithm>

using namespace ravelin;

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
