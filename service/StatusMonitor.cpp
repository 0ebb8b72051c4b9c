#include "app/AppDelegate.h"

#include "app/Colors.h"
#include "app/ServiceButton.h"
#include "service/ServiceStatus.h"
#include "service/UnitChanges.h"

#include <QLabel>

void AppDelegate::refreshService()
{
    // A check still under way is never joined by another: the tick is dropped, not queued.
    if (checkingService)
        return;
    checkingService = true;
    startServiceCheck(this, [this](const ServiceStatus &result) { applyServiceStatus(result); });
}

// Green and orange are the app's own; the grey is the desktop's secondary text, taken by role so
// that it follows a change of colour scheme. Every 3 s the answer is mostly the same, so a
// palette is only made for a new colour.
void AppDelegate::showStateTone(StateTone tone)
{
    if (tone == StateTone::Secondary) {
        serviceState->setForegroundRole(QPalette::PlaceholderText);
        return;
    }
    const QColor colour = tone == StateTone::Success ? successColor() : warningColor();
    serviceState->setForegroundRole(QPalette::WindowText);
    if (serviceState->palette().color(QPalette::WindowText) != colour) {
        QPalette palette = serviceState->palette();
        palette.setColor(QPalette::WindowText, colour);
        serviceState->setPalette(palette);
    }
}

void AppDelegate::applyServiceStatus(const ServiceStatus &result)
{
    // The button repaints at every assignment; the same answer every 3 s is not a change.
    if (enableButton->active() != result.running)
        enableButton->setActive(result.running);
    enableButton->setText(result.running ? QStringLiteral("Enabled") : QStringLiteral("Enable"));
    enableButton->setEnabled(!busy && (result.running || !entries.isEmpty()));
    checkingService = false;
    serviceState->setText(result.stateText);
    serviceStartup->setText(result.startupText);

    showStateTone(stateTone(result));
    unitChanges->watch(result.unitObjects);
    // The tick also notices a service that died without taking its state file away.
    checkLiveStateOwner();
}
