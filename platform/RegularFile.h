#pragma once

#include <QByteArray>
#include <QString>

// What reading a file gave: its bytes, or why there are none.
struct FileContents
{
    enum class Problem { None, Missing, Unreadable, NotRegular, TooLarge };
    Problem problem = Problem::None;
    QByteArray bytes;
    QString reason;  // the system's words for Missing and Unreadable
    QString message; // one sentence for the operator, naming the file; empty when read
};

// The one bounded reader of configurations, for the app (config.json at start-up) and the service
// executable alike. Reads the whole file at path when it is a regular file of at most limit bytes. Never waits
// on a FIFO or a device (the open does not block, and the opened descriptor must be a regular
// file), and never takes in more than limit + 1 bytes, whatever size the file reports.
FileContents readRegularFile(const QString &path, qint64 limit);
