#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <functional>

// Asks the radio at an address who it is; throws Error when it cannot tell.
using Probe = std::function<QJsonObject(const QString &address)>;

// Checks a draft before it is written: every radio whose serial or version is not yet known
// is probed, one after another; a known serial must come back unchanged, and the identity
// fields are filled in from the answer. Returns the verified document in the written form;
// throws Error at the first failure.
QByteArray verifiedDocument(const QString &snapshot, const Probe &probe);

// Whether a radio entry must be probed before it can be saved.
bool needsDiscovery(const QJsonObject &radio);
