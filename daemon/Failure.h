#pragma once

#include <QString>

// A failure already worded for the radio operator; thrown where it happens and printed, as
// one line, where the mode ends.
struct Failure
{
    QString message;
};
