#include "app/AppDelegate.h"

#include "platform/Background.h"
#include "platform/Bundle.h"
#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/PrivateFolder.h"
#include "platform/Process.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QUuid>

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <unistd.h>

namespace {
// The draft may hold addresses and names of the user's radios: it goes to a folder of this
// user alone, never to the shared temporary folder.
QString draftFilePath()
{
    return privateFolder() + QStringLiteral("/Veldspar-")
           + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".json");
}

// Whether another import holds the lock on the folder of config.json right now.
bool isFolderLocked(const QString &folder)
{
    const int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool locked = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd); // lets go of the lock when it was taken
    return locked;
}

// Writes the draft to a file of its own and runs the import on it; background threads only.
ProcessResult importDraft(const QString &service, const QString &config, const QString &text,
                          const std::function<void()> &waiting)
{
    const QString draftPath = draftFilePath();
    try {
        writeNewPrivateFile(draftPath, text.toUtf8());
        if (isFolderLocked(QFileInfo(config).absolutePath()))
            waiting();
        const ProcessResult result =
            runProcess(service, {QStringLiteral("--config"), config, QStringLiteral("--import"), draftPath});
        QFile::remove(draftPath);
        return result;
    } catch (const Error &) {
        QFile::remove(draftPath);
        throw;
    }
}
} // namespace

// Hands the draft to the service executable's import mode, which validates it, backs up the
// previous file and replaces it. The import waits for any other import into the folder, so it
// runs in the background and the window says what it waits for.
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
    const QString text = draft().text();
    const QString service = resourcePath(QStringLiteral("Veldspar"));
    const QString config = configURL;
    busy = true;
    const QPointer<AppDelegate> self(this);
    const auto waiting = [self] {
        QMetaObject::invokeMethod(
            qApp,
            [self] {
                if (self)
                    self->setStatus(QStringLiteral("Waiting for another save of config.json to finish\u2026"));
            },
            Qt::QueuedConnection);
    };
    runInBackground(
        this, [text, service, config, waiting] { return attempt([&] { return importDraft(service, config, text, waiting); }); },
        [this, text](const Outcome<ProcessResult> &result) { finishWriteConfig(result, text); });
}

void AppDelegate::finishWriteConfig(const Outcome<ProcessResult> &result, const QString &written)
{
    busy = false;
    if (result.error) {
        reload();
        alert(QStringLiteral("Save failed: ") + result.error->description());
    } else if (result.value->succeeded()) {
        configOnDisk = written;
        if (draft().text() != written) // reloaded while the import ran
            reload();
        else
            refreshRadios();
        setStatus(QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically."));
    } else {
        reload();
        alert(result.value->text());
    }
}
