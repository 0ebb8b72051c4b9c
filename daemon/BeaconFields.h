#pragma once

#include "daemon/Beacon.h"
#include "daemon/Configuration.h"
#include "daemon/RadioState.h"

#include <QList>
#include <QString>

// The radio's beacon as the radio itself would send it now: every key of a real radio's
// beacon, in its order, with the radio's live values. The configuration only fills in the
// model suffix that a radio's "info" leaves out ("FLEX-6600M" for "FLEX-6600") and what the
// radio did not say at all. ip is the IPv4 address the radio was reached at; port its command
// port.
QList<BeaconField> beaconFields(const RadioState &state, const ConfiguredRadio &configured, const QString &ip, quint16 port);

// The serial the beacon carries: the radio's own chassis serial, else the configured one
// unless it is the placeholder; empty when neither is known.
QString announcedSerial(const RadioState &state, const ConfiguredRadio &configured);
