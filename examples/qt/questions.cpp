#include "questions.h"

#include <QMessageBox>
#include <QPushButton>
#include <utility>

using ravelin::OnConflict;

namespace {

QMessageBox* make_question(QWidget* window, const QString& title, const QString& text) {
  auto* const box = new QMessageBox(QMessageBox::Question, title, text, {}, window);
  box->setAttribute(Qt::WA_DeleteOnClose);
  return box;
}

} // namespace

void ask_about_conflict(QWidget* window, const QString& name,
                        std::function<void(OnConflict)> answer) {
  auto* const box = make_question(window, "The file already exists",
                                  QString("<b>%1</b> already exists.").arg(name.toHtmlEscaped()));
  box->setInformativeText("Resume continues an incomplete file and accepts a complete one.");
  const std::pair<QPushButton*, OnConflict> choices[] = {
      {box->addButton("Resume", QMessageBox::AcceptRole), OnConflict::resume},
      {box->addButton("Replace", QMessageBox::DestructiveRole), OnConflict::replace},
      {box->addButton("Keep both", QMessageBox::YesRole), OnConflict::keep_both},
      {box->addButton("Stop", QMessageBox::RejectRole), OnConflict::stop}};
  box->setDefaultButton(choices[0].first);
  QObject::connect(box, &QDialog::finished, window, [box, choices, answer] {
    auto chosen = OnConflict::stop;
    for (const auto& [button, policy] : choices)
      if (box->clickedButton() == button)
        chosen = policy;
    answer(chosen);
  });
  box->open();
}

void ask_about_removal(QWidget* window, const QString& name, std::function<void(Removal)> answer) {
  auto* const box =
      make_question(window, "Remove download",
                    QString("Also delete the file <b>%1</b>?").arg(name.toHtmlEscaped()));
  auto* const with_file = box->addButton("Delete it", QMessageBox::DestructiveRole);
  auto* const list_only = box->addButton("Keep it", QMessageBox::AcceptRole);
  box->addButton(QMessageBox::Cancel);
  QObject::connect(box, &QDialog::finished, window, [=] {
    if (box->clickedButton() == with_file)
      answer(Removal::with_file);
    else if (box->clickedButton() == list_only)
      answer(Removal::from_list_only);
  });
  box->open();
}
