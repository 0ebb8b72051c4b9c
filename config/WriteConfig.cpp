#include "app/AppDelegate.h"

#include "platform/Bundle.h"
#include "platform/Error.h"
#include "platform/Process.h"

#include <QDir>
#include <QFile>
#include <QUuid>

namespace {
QString temporaryConfigPath()
{
    return QDir::tempPath() + QStringLiteral("/Veldspar-")
           + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".json");
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size() || !file.flush())
        throw Error::fromFile(file, path);
}
} // namespace

// Hands the draft to the service executable's import mode, which validates it, backs up the
// previous file and replaces it. Waits on the main thread: the import prints a line at most.
void AppDelegate::writeConfig()
{
    const QString temporaryPath = temporaryConfigPath();
    try {
        writeFile(temporaryPath, draft().text().toUtf8());
        const ProcessResult result =
            runProcess(resourcePath(QStringLiteral("Veldspar")),
                       {QStringLiteral("--config"), configURL, QStringLiteral("--import"), temporaryPath});
        if (result.succeeded()) {
            setStatus(QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically."));
        } else {
            reload();
            alert(result.text());
        }
    } catch (const Error &error) {
        reload();
        alert(QStringLiteral("Save failed: ") + error.description());
    }
    QFile::remove(temporaryPath);
}
