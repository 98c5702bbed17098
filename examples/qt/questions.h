#pragma once

#include <ravelin/status.h>

#include <QString>
#include <functional>

class QWidget;

// The window's dialogues. Each returns at once and calls `answer` when a button was chosen.

/// What is to become of a file that is there already. Leaving the dialogue means `stop`.
void ask_about_conflict(QWidget* window, const QString& name,
                        std::function<void(ravelin::OnConflict)> answer);

enum class Removal { with_file, from_list_only };

/// Whether a finished file is to be deleted, too. Leaving the dialogue answers nothing.
void ask_about_removal(QWidget* window, const QString& name, std::function<void(Removal)> answer);
