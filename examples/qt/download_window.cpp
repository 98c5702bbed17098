#include "download_window.h"

#include "download_row.h"
#include "questions.h"
#include "texts.h"

#include <QCloseEvent>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <algorithm>
#include <filesystem>

using namespace ravelin;

void DownloadWindow::add(const QString& link) {
  const auto url = QUrl::fromUserInput(link.trimmed());
  if (url.scheme() != "http" && url.scheme() != "https") {
    say("That is no link of http or https.");
    return;
  }
  say({});
  link_->clear();
  const auto text = QString::fromUtf8(url.toEncoded());
  const auto name = name_from_link(url);
  const auto file = QDir(remembered_.directory).filePath(name);
  if (QFileInfo(file).isDir())
    say(name + " is a directory.");
  else if (!row_of(file) && !QFile::exists(file))
    begin(text, file, OnConflict::resume);
  else
    ask_about_conflict(this, name,
                       [=, this](OnConflict on_conflict) { begin(text, file, on_conflict); });
}

void DownloadWindow::begin(const QString& link, const QString& file, OnConflict on_conflict) {
  if (on_conflict == OnConflict::stop) {
    say(QFileInfo(file).fileName() + " was left as it is.");
    return;
  }
  auto* row = on_conflict == OnConflict::keep_both ? nullptr : row_of(file);
  const auto* const other =
      on_conflict == OnConflict::keep_both ? nullptr : row_with_record_of(file);
  if (other) {
    say(other->name() + " uses the same resume record: finish or remove it first.");
    return;
  }
  if (row && row->is_running() && on_conflict == OnConflict::resume)
    return;
  QDir().mkpath(QFileInfo(file).path()); // where it cannot be made, the download says so
  if (!row)
    row = append({link, file});
  row->start(link, on_conflict);
}

DownloadRow* DownloadWindow::row_of(const QString& file) const {
  const auto found =
      std::ranges::find_if(rows_, [&](auto* row) { return row->entry().file == file; });
  return found == rows_.end() ? nullptr : *found;
}

/// Another unfinished download whose name differs in the extension alone.
DownloadRow* DownloadWindow::row_with_record_of(const QString& file) const {
  const auto record = [](const QString& name) {
    const std::filesystem::path path(QFile::encodeName(name).toStdString());
    return path.parent_path() / path.stem();
  };
  const auto found = std::ranges::find_if(rows_, [&](auto* row) {
    const auto& other = row->entry().file;
    return other != file && !row->is_complete() && record(other) == record(file);
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

void DownloadWindow::forget(DownloadRow* row) {
  std::erase(rows_, row);
  row->deleteLater(); // it is the one that calls
  on_changed();
}

void DownloadWindow::choose_directory() {
  const auto chosen =
      QFileDialog::getExistingDirectory(this, "Where new files go", remembered_.directory);
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
  auto now = remembered_;
  now.entries.clear();
  for (const auto* const row : rows_)
    now.entries.push_back(row->entry());
  now.save(settings_file_);
}

/// What has come is on disk at any moment; waiting for the last events only makes it exact.
void DownloadWindow::closeEvent(QCloseEvent* event) {
  closing_ = is_any_running();
  for (auto* const row : rows_)
    row->pause();
  event->setAccepted(!is_any_running());
}
