// How the window looks; what it does is in download_window.cpp.

#include "download_row.h"
#include "download_window.h"

#include <ravelin/ravelin_operation.h>

#include <QClipboard>
#include <QDir>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QShortcut>
#include <QSpinBox>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>

DownloadWindow::DownloadWindow(const QString& settings_file)
    : settings_file_(settings_file), state_(SavedState::load(settings_file)),
      running_(std::make_shared<ravelin::RunningDownloads>()),
      launcher_(running_, QGuiApplication::desktopFileName().toStdString()),
      sleep_inhibitor_(running_, "Downloads", "Files are being downloaded") {
  setWindowTitle("Downloads");
  resize(640, 520);
  setAcceptDrops(true);
  auto* const paste = new QShortcut(QKeySequence::Paste, this); // unless the entry has the focus
  connect(paste, &QShortcut::activated, this,
          [this] { add_all(QGuiApplication::clipboard()->text()); });
  auto* const lines = new QVBoxLayout(this);
  lines->addWidget(build_entry_line());
  lines->addWidget(build_settings_line());
  lines->addWidget(build_list(), 1);
  notice_ = new QLabel;
  notice_->setObjectName("notice");
  notice_->setTextFormat(Qt::PlainText);
  lines->addWidget(notice_);
  show_notice({});
  set_limit(state_.limit);
  set_directory(state_.directory);
  for (const auto& entry : std::exchange(state_.entries, {}))
    append(entry);
}

QWidget* DownloadWindow::build_entry_line() {
  link_ = new QLineEdit;
  link_->setObjectName("link");
  link_->setPlaceholderText("Paste or drop links");
  link_->setClearButtonEnabled(true);
  link_->setAcceptDrops(false); // so that the window gets them
  auto* const button = new QPushButton("Download");
  button->setObjectName("add");
  connect(button, &QPushButton::clicked, this, [this] { add_typed(); });
  connect(link_, &QLineEdit::returnPressed, this, [this] { add_typed(); });
  auto* const widget = new QWidget;
  auto* const line = new QHBoxLayout(widget);
  line->setContentsMargins({});
  line->addWidget(link_, 1);
  line->addWidget(button);
  return widget;
}

QWidget* DownloadWindow::build_settings_line() {
  directory_ = new QToolButton;
  directory_->setIcon(style()->standardIcon(QStyle::SP_DirIcon));
  directory_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
  directory_->setAutoRaise(true);
  directory_->setToolTip("Folder for new files");
  connect(directory_, &QToolButton::clicked, this, [this] { choose_directory(); });
  limit_ = new QSpinBox;
  limit_->setObjectName("limit");
  limit_->setRange(1, 20);
  limit_->setValue(state_.limit);
  connect(limit_, &QSpinBox::valueChanged, this, [this](int limit) {
    set_limit(limit);
    save();
  });
  auto* const widget = new QWidget;
  auto* const line = new QHBoxLayout(widget);
  line->setContentsMargins({});
  line->addWidget(directory_);
  line->addStretch(1);
  line->addWidget(new QLabel("Simultaneous downloads"));
  line->addWidget(limit_);
  return widget;
}

QWidget* DownloadWindow::build_list() {
  auto* const inside = new QWidget;
  list_ = new QVBoxLayout(inside);
  list_->setContentsMargins({});
  list_->setSpacing(0);
  list_->addStretch(1);
  auto* const scroller = new QScrollArea;
  scroller->setWidget(inside);
  scroller->setWidgetResizable(true);
  inside->setBackgroundRole(QPalette::Base);
  scroller->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  return scroller;
}

DownloadRow* DownloadWindow::append(const Entry& entry) {
  auto* const row = new DownloadRow(entry, running_, this);
  row->on_changed = [this] { on_changed(); };
  row->on_ended = [this, row](DownloadRow::End end, const QString& text) {
    if (end != DownloadRow::End::paused)
      on_ended(*row, end == DownloadRow::End::failed, text);
    if (!is_any_running())
      tell_end();
  };
  row->on_remove_clicked = [this, row] { ask_to_remove(row); };
  row->on_removed = [this, row] { delete_row(row); };
  rows_.push_back(row);
  list_->insertWidget(list_->count() - 1, row); // before the stretch
  return row;
}

void DownloadWindow::set_limit(int limit) {
  state_.limit = limit;
  ravelin::RavelinOperation::set_max_simultaneous_download_count(limit);
}

void DownloadWindow::show_notice(const QString& text) {
  notice_->setText(text);
  notice_->setVisible(!text.isEmpty());
}

void DownloadWindow::set_directory(const QString& directory) {
  state_.directory = directory;
  directory_->setText(QDir::toNativeSeparators(directory));
}
