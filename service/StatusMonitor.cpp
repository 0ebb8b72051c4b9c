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

    QColor tone;
    switch (stateTone(result)) {
    case StateTone::Success: tone = successColor(); break;
    case StateTone::Warning: tone = warningColor(); break;
    case StateTone::Secondary: tone = serviceState->palette().color(QPalette::PlaceholderText); break;
    }
    // Every 3 s the answer is mostly the same; a palette is only made for a new colour.
    if (serviceState->palette().color(QPalette::WindowText) != tone) {
        QPalette palette = serviceState->palette();
        palette.setColor(QPalette::WindowText, tone);
        serviceState->setPalette(palette);
    }
    unitChanges->watch(result.unitObjects);
    // The tick also notices a service that died without taking its state file away.
    checkLiveStateOwner();
}
