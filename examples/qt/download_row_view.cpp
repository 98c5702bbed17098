// How a row looks; what it does is in download_row.cpp.

#include "download_row.h"

#include <QEvent>
#include <QGridLayout>
#include <QLabel>
#include <QPainter>
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

// What the palette has no colours for.
struct Colours {
  QColor text, error;                                            // of the words
  const char *empty, *paused, *running, *complete, *failed_part; // of the bar
};
Colours colours_for(const QPalette& palette) {
  const bool is_dark = palette.color(QPalette::Base).lightness() < 128;
  return is_dark
             ? Colours{0xA9AFB7, 0xFF8F85, "#43484f", "#78818b", "#4c97e0", "#4bab70", "#cf5a52"}
             : Colours{0x60656C, 0xB02020, "#e3e6ea", "#9aa3ad", "#2f7fd1", "#3c9a5f", "#c04040"};
}

// The style's media icons are black shapes, which a dark window hides.
QIcon in_colour(const QIcon& shape, const QColor& colour, const QToolButton& button) {
  auto picture = shape.pixmap(button.iconSize(), button.devicePixelRatioF());
  QPainter painter(&picture);
  painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
  painter.fillRect(picture.rect(), colour);
  painter.end();
  return picture;
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
  is_error_ = is_error;
  show_colours();
}

void DownloadRow::changeEvent(QEvent* event) {
  QFrame::changeEvent(event);
  if (event->type() == QEvent::PaletteChange)
    show_colours();
}

void DownloadRow::show_colours() {
  auto words = palette();
  const auto colours = colours_for(words);
  words.setColor(QPalette::WindowText, is_error_ ? colours.error : colours.text);
  text_->setPalette(words);
  percent_->setPalette(words);
  show_bar();
  show_toggle();
}

void DownloadRow::show_bar() {
  const auto value = complete_ ? 1.0F : progress_.prog_value;
  const bool is_busy_bar = !value && is_running(); // the length is not known
  bar_->setRange(0, is_busy_bar ? 0 : 1000);
  bar_->setValue(static_cast<int>(1000 * value.value_or(0)));
  percent_->setText(value ? QString("%1 %").arg(static_cast<int>(100 * *value)) : QString());
  const auto colours = colours_for(palette());
  const auto* const received = complete_      ? colours.complete
                               : is_error_    ? colours.failed_part
                               : is_running() ? colours.running
                                              : colours.paused;
  const auto style = QString("QProgressBar { border: 0; border-radius: 4px; background: %1; }"
                             "QProgressBar::chunk { border-radius: 4px; background: %2; }")
                         .arg(colours.empty, received);
  if (bar_style_ != style) // setting it is slow
    bar_->setStyleSheet(style);
  bar_style_ = style;
}

void DownloadRow::show_toggle() {
  const auto icon = is_running() ? QStyle::SP_MediaPause : QStyle::SP_MediaPlay;
  toggle_->setIcon(
      in_colour(style()->standardIcon(icon), palette().color(QPalette::Text), *toggle_));
  toggle_->setToolTip(is_running() ? "Pause" : "Resume");
  toggle_->setVisible(!complete_);
}
