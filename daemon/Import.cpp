#include "daemon/Import.h"

#include "daemon/AtomicFile.h"
#include "daemon/Backups.h"
#include "daemon/Configuration.h"
#include "daemon/Failure.h"
#include "daemon/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {
// Far beyond any real configuration; keeps a file picked by mistake from being read whole.
constexpr qint64 largestConfiguration = 16 * 1024 * 1024;

QByteArray readImported(const QString &file)
{
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly))
        throw Failure{u"Cannot read %1: %2."_s.arg(QDir::toNativeSeparators(file), input.errorString())};
    if (input.size() > largestConfiguration)
        throw Failure{u"%1 is too large to be a configuration."_s.arg(QDir::toNativeSeparators(file))};
    const QByteArray bytes = input.readAll();
    if (input.error() != QFileDevice::NoError)
        throw Failure{u"Cannot read %1: %2."_s.arg(QDir::toNativeSeparators(file), input.errorString())};
    return bytes;
}
} // namespace

int runImport(const QString &configPath, const QString &file)
{
    try {
        const QByteArray bytes = readImported(file);
        const auto checked = readConfiguration(bytes);
        if (const QString *problem = std::get_if<QString>(&checked))
            throw Failure{*problem};
        const QString backup = backUp(configPath);
        writeFileAtomically(configPath, bytes);
        if (backup.isEmpty())
            printLine(u"Saved %1."_s.arg(QDir::toNativeSeparators(configPath)));
        else
            printLine(u"Saved %1; the previous configuration is in %2."_s.arg(
                QDir::toNativeSeparators(configPath), QDir::toNativeSeparators(backup)));
        return 0;
    } catch (const Failure &failure) {
        logLine(failure.message);
        return 1;
    }
}
