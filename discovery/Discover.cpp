#include "app/AppDelegate.h"

#include "discovery/ProbeOutput.h"
#include "platform/Bundle.h"

// Runs on background threads: it reads no field of the controller.
QJsonObject AppDelegate::discover(const QString &address) const
{
    return probeRadio(resourcePath(QStringLiteral("Veldspar")), address);
}
