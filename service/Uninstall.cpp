#include "app/AppDelegate.h"

#include "app/StatusLabel.h"
#include "platform/Background.h"
#include "platform/Bundle.h"
#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/Outcome.h"
#include "platform/Paths.h"
#include "platform/Process.h"
#include "platform/SystemTools.h"
#include "platform/Trash.h"
#include "service/UninstallRules.h"
#include "service/UnitChanges.h"
#include "updates/BundleSwap.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QSettings>
#include <QTimer>

namespace {
const QString retryText =
    QStringLiteral("Service removed. App removal was cancelled or denied; click Uninstall to retry.");
}

void AppDelegate::finishUninstall()
{
    const QString app = bundleLocation();
    if (!isInstalledAppLocation(app)) {
        setStatus(QStringLiteral("Service removed. Cannot identify the installed app."));
        return;
    }
    busy = true; // held until the app quits, or a failure below opens it again
    removeAbandonedStagingFolders(app);
    if (serviceTimer)
        serviceTimer->stop();
    if (unitChanges)
        disconnect(unitChanges, nullptr, this, nullptr);
    setStatus(QStringLiteral("Removing Veldspar\u2026"));

    runInBackground(this, [app] { return moveToTrash(app); },
                    [this, app](bool moved) {
                        if (moved)
                            finishDataRemoval();
                        else
                            removeInstalledAppWithAuthorization(app);
                    });
}

// The app's folder is not the user's to move (installed system-wide, say): pkexec asks for an
// administrator and moves it into the user's Trash, never overwriting anything there. The
// prompt may stay up for a long while, so pkexec waits on the worker pool, not in the window.
void AppDelegate::removeInstalledAppWithAuthorization(const QString &appLocation)
{
    if (!makeTrashFolders()) {
        busy = false;
        setStatus(QStringLiteral("Service removed. Could not move the app to Trash."));
        status->setToolTip(QStringLiteral("Cannot create the Trash folder %1").arg(trashFolder()));
        return;
    }
    const QString name = trashedAppName();
    const QString destination = trashFilesFolder() + u'/' + name;
    const QString program = pkexecProgram();

    runInBackground(
        this,
        [program, appLocation, destination] {
            return attempt([&] { return runProcess(program, privilegedMoveArguments(appLocation, destination)); });
        },
        [this, appLocation, name](const Outcome<ProcessResult> &move) {
            // When pkexec could not be started, whether the app is gone decides, as below.
            if (move.value && !move.value->succeeded()) {
                busy = false;
                setStatus(retryText);
                const QString said = move.value->text().trimmed();
                const QString ended = QStringLiteral("pkexec ended with status %1").arg(move.value->exitCode);
                status->setToolTip(said.isEmpty() ? ended : said);
                return;
            }
            if (pathExists(appLocation)) {
                busy = false;
                setStatus(retryText);
                status->setToolTip(QString());
                return;
            }
            // The Trash lists an item by its record; without one the moved app would be a stray file.
            try {
                writeFileAtomically(trashInfoPath(name), trashInfo(appLocation, QDateTime::currentDateTime()));
            } catch (const Error &) {
            }
            finishDataRemoval();
        });
}

void AppDelegate::finishDataRemoval()
{
    for (const QString &identifier : settingsIdentifiers()) {
        QSettings store(settingsFilePath(identifier), QSettings::IniFormat);
        store.clear();
        store.sync();
    }
    const QStringList failures = removeUninstallData(QDir::homePath());
    if (!failures.isEmpty()) {
        busy = false;
        setStatus(QStringLiteral("App and service removed; some data could not be deleted. See details."));
        dialog(QStringLiteral("Some application data could not be removed"), failures.join(u'\n'), QString(), false,
               nullptr);
    }
    QCoreApplication::quit();
}
