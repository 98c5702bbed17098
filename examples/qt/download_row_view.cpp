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
  label->setTextFormat(Qt::PlainText); // texts from links and servers may contain markup
  label->setSizePolicy(width, QSizePolicy::Preferred);
  label->setForegroundRole(QPalette::WindowText); // see `show_text`
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
  name_ = make_label("name", QSizePolicy::Ignored); // a long name must not widen the window
  percent_ = make_label("percent", QSizePolicy::Preferred);
  text_ = make_label("words", QSizePolicy::Ignored);
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
  policy.setRetainSizeWhenHidden(true); // so that all bars have the same length
  toggle_->setSizePolicy(policy);
  auto* const remove_button = new QToolButton;
  remove_button->setObjectName("remove");
  remove_button->setIcon(style()->standardIcon(QStyle::SP_TrashIcon));
  remove_button->setToolTip("Remove, and delete the unfinished file");
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
  grid->addWidget(text_, 2, 0, 1, 2);
  grid->addWidget(toggle_, 0, 2, 3, 1);
  grid->addWidget(remove_button, 0, 3, 3, 1);
  grid->setColumnStretch(0, 1);
}

void DownloadRow::show_text(const QString& text, bool is_error) {
  name_->setText(name());
  name_->setToolTip(entry_.link);
  text_->setText(text);
  text_->setToolTip(text);
  auto colours = palette();
  colours.setColor(QPalette::WindowText,
                   is_error ? QColor(0xB0, 0x20, 0x20) : QColor(0x60, 0x65, 0x6C));
  text_->setPalette(colours);
  percent_->setPalette(colours);
  show_bar(is_error);
  show_toggle();
}

void DownloadRow::show_bar(bool is_error) {
  const auto value = complete_ ? 1.0F : progress_.prog_value;
  const bool is_busy_bar = !value && is_running(); // the length is not known
  bar_->setRange(0, is_busy_bar ? 0 : 1000);
  bar_->setValue(static_cast<int>(1000 * value.value_or(0)));
  percent_->setText(value ? QString("%1 %").arg(static_cast<int>(100 * *value)) : QString());
  const auto* const colour = complete_      ? "#3c9a5f"
                             : is_error     ? "#c04040"
                             : is_running() ? "#2f7fd1"
                                            : "#9aa3ad";
  if (colour_ != colour)
    bar_->setStyleSheet(bar_style(colour));
  colour_ = colour;
}

void DownloadRow::show_toggle() {
  const auto icon = is_running() ? QStyle::SP_MediaPause : QStyle::SP_MediaPlay;
  toggle_->setIcon(style()->standardIcon(icon));
  toggle_->setToolTip(is_running() ? "Pause" : "Resume");
  toggle_->setVisible(!complete_);
}
