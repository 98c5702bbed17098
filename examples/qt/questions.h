#pragma once

#include <ravelin/status.h>

#include <QString>
#include <functional>

class QWidget;

// The dialogs of the window. They return at once and call `answer` when a button is clicked.

/// Asks what to do about an existing file. Closing the dialog means `stop`.
void ask_about_conflict(QWidget* window, const QString& name,
                        std::function<void(ravelin::OnConflict)> answer);

enum class Removal { with_file, from_list_only };

/// Asks whether to delete a finished file as well. Closing the dialog cancels.
void ask_about_removal(QWidget* window, const QString& name, std::function<void(Removal)> answer);
