// How a row looks; what it does is in download_row.cpp.

#include "download_row.h"

#include <QGridLayout>
#include <QLabel>
#include <QProgressBar>
#include <QStyle>
#include <QToolButton>

namespace {

QLabel* make_label(const char* name, QSizePolicy::Policy width) {
  auto* const label = new QLabel;
  label->setObjectName(name);
  label->setTextFormat(Qt::PlainText); // a link or a server chose it
  label->setSizePolicy(width, QSizePolicy::Preferred);
  label->setForegroundRole(QPalette::WindowText); // which `show_words` colours
  return label;
}

QString bar_style(const char* colour) {
  return QString("QProgressBar { border: 0; border-radius: 4px; background: #e3e6ea; }"
                 "QProgressBar::chunk { border-radius: 4px; background: %1; }")
      .arg(colour);
}

} // namespace

void DownloadRow::build() {
  setObjectName("row");
  name_ = make_label("name", QSizePolicy::Ignored); // cut, rather than the window grown
  percent_ = make_label("percent", QSizePolicy::Preferred);
  words_ = make_label("words", QSizePolicy::Ignored);
  auto font = name_->font();
  font.setBold(true);
  name_->setFont(font);
  bar_ = new QProgressBar;
  bar_->setObjectName("bar");
  bar_->setTextVisible(false);
  bar_->setFixedHeight(8);
  toggle_ = new QToolButton;
  toggle_->setObjectName("toggle");
  auto policy = toggle_->sizePolicy();
  policy.setRetainSizeWhenHidden(true); // bars of one length
  toggle_->setSizePolicy(policy);
  auto* const remove_button = new QToolButton;
  remove_button->setObjectName("remove");
  remove_button->setIcon(style()->standardIcon(QStyle::SP_TrashIcon));
  remove_button->setToolTip("Remove it, with its files");
  for (auto* const button : {toggle_, remove_button}) {
    button->setIconSize({20, 20});
    button->setAutoRaise(true);
  }
  connect(toggle_, &QToolButton::clicked, this, [this] { toggle(); });
  connect(remove_button, &QToolButton::clicked, this, [this] { on_remove_clicked(); });

  auto* const grid = new QGridLayout(this);
  grid->setVerticalSpacing(5);
  grid->addWidget(name_, 0, 0);
  grid->addWidget(percent_, 0, 1);
  grid->addWidget(bar_, 1, 0, 1, 2);
  grid->addWidget(words_, 2, 0, 1, 2);
  grid->addWidget(toggle_, 0, 2, 3, 1);
  grid->addWidget(remove_button, 0, 3, 3, 1);
  grid->setColumnStretch(0, 1);
}

void DownloadRow::show_words(const QString& words, bool bad) {
  name_->setText(name());
  name_->setToolTip(entry_.link);
  words_->setText(words);
  words_->setToolTip(words);
  auto colours = palette();
  colours.setColor(QPalette::WindowText, bad ? QColor(0xB0, 0x20, 0x20) : QColor(0x60, 0x65, 0x6C));
  words_->setPalette(colours);
  percent_->setPalette(colours);
  show_bar(bad);
  show_toggle();
}

void DownloadRow::show_bar(bool bad) {
  const auto share = complete_ ? 1.0F : progress_.prog_value;
  const bool endless = !share && is_running(); // the server does not tell the length
  bar_->setRange(0, endless ? 0 : 1000);
  bar_->setValue(static_cast<int>(1000 * share.value_or(0)));
  percent_->setText(share ? QString("%1 %").arg(static_cast<int>(100 * *share)) : QString());
  const auto* const colour = complete_      ? "#3c9a5f"
                             : bad          ? "#c04040"
                             : is_running() ? "#2f7fd1"
                                            : "#9aa3ad";
  if (colour_ != colour)
    bar_->setStyleSheet(bar_style(colour));
  colour_ = colour;
}

void DownloadRow::show_toggle() {
  const auto icon = is_running() ? QStyle::SP_MediaPause : QStyle::SP_MediaPlay;
  toggle_->setIcon(style()->standardIcon(icon));
  toggle_->setToolTip(is_running() ? "Pause" : "Continue");
  toggle_->setVisible(!complete_);
}
