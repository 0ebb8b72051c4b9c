#pragma once

#include <functional>

class QWidget;

// Runs the action on the turn of the event loop that follows the window's first frame, so that
// work which can wait does not hold the window back. A window that is never exposed gets the
// action after a few seconds all the same.
void afterFirstFrame(QWidget *window, std::function<void()> action);
