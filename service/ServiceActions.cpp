#include "app/AppDelegate.h"

#include "app/ServiceButton.h"
#include "app/StatusLabel.h"
#include "platform/Background.h"
#include "platform/Bundle.h"
#include "platform/Error.h"
#include "platform/Files.h"
#include "platform/Paths.h"
#include "service/ServiceAction.h"

#include <QDir>
#include <QFileInfo>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>

void AppDelegate::enableService()
{
    if (enableButton->active())
        manageService(QStringLiteral("disable"));
    else if (!entries.isEmpty())
        manageService(QStringLiteral("enable"));
}

void AppDelegate::stopService()
{
    manageService(QStringLiteral("stop"));
}

void AppDelegate::removeService()
{
    if (busy)
        return;
    if (dialog(QStringLiteral("Remove Veldspar"), QStringLiteral("Your system may ask for an administrator password"),
               QStringLiteral("Are you sure?"), true, nullptr))
        manageService(QStringLiteral("remove"));
}

void AppDelegate::manageService(const QString &action)
{
    if (busy)
        return;
    busy = true;
    enableButton->setEnabled(false);
    setStatus(QStringLiteral("Updating background service\u2026"));

    const QString script = resourcePath(QStringLiteral("ManageService.command"));
    runInBackground(this, [script, action] { return runServiceAction(script, action); },
                    [this](const ServiceActionResult &result) { finishServiceAction(result); });
}

void AppDelegate::finishServiceAction(const ServiceActionResult &result)
{
    busy = false;
    refreshService();
    if (result.ok && result.action == QStringLiteral("remove")) {
        finishUninstall();
        return;
    }
    setStatus(serviceActionStatus(result.action, result.ok));
    if (result.ok) {
        status->setToolTip(QString());
        return;
    }
    status->setToolTip(result.output);
    // Only the latest failure is kept; a log that cannot be written is not worth a second error.
    try {
        const QString folder = QFileInfo(configURL).path();
        QDir().mkpath(folder);
        writeFileAtomically(folder + QStringLiteral("/service-action.log"), result.output.toUtf8());
    } catch (const Error &) {
    }
}

void AppDelegate::offerServiceRefresh()
{
    if (!installedServiceIsOutdated(resourcePath(QStringLiteral("Veldspar"))))
        return;
    QMessageBox question(QMessageBox::Question, QString(), QStringLiteral("Update the background service?"),
                         QMessageBox::NoButton, window.get());
    question.setInformativeText(QStringLiteral("The app contains a newer service. Updating restarts discovery "
                                               "briefly and keeps your radio configuration."));
    QPushButton *update = question.addButton(QStringLiteral("Update Service"), QMessageBox::AcceptRole);
    question.addButton(QStringLiteral("Later"), QMessageBox::RejectRole);
    question.setDefaultButton(update);
    question.exec();
    if (question.clickedButton() == update)
        manageService(QStringLiteral("enable"));
}
