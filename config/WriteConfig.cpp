#include "app/AppDelegate.h"

#include "platform/Bundle.h"
#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/PrivateFolder.h"
#include "platform/Process.h"

#include <QFile>
#include <QUuid>

namespace {
// The draft may hold addresses and names of the user's radios: it goes to a folder of this
// user alone, never to the shared temporary folder.
QString draftFilePath()
{
    return privateFolder() + QStringLiteral("/Veldspar-")
           + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".json");
}
} // namespace

// Hands the draft to the service executable's import mode, which validates it, backs up the
// previous file and replaces it. Waits on the main thread: the import prints a line at most.
void AppDelegate::writeConfig()
{
    // Another copy of the app, or a hand edit, changed the file since this draft was read from
    // it; saving now would undo that change unseen.
    if (configChangedOnDisk()) {
        reload();
        setStatus(QStringLiteral("config.json was changed outside Veldspar; reloaded it instead of saving. Make "
                                 "your change again."));
        return;
    }
    QString draftPath;
    try {
        draftPath = draftFilePath();
        writeNewPrivateFile(draftPath, draft().text().toUtf8());
        const ProcessResult result =
            runProcess(resourcePath(QStringLiteral("Veldspar")),
                       {QStringLiteral("--config"), configURL, QStringLiteral("--import"), draftPath});
        if (result.succeeded()) {
            configOnDisk = draft().text();
            setStatus(QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically."));
        } else {
            reload();
            alert(result.text());
        }
    } catch (const Error &error) {
        reload();
        alert(QStringLiteral("Save failed: ") + error.description());
    }
    if (!draftPath.isEmpty())
        QFile::remove(draftPath);
}
