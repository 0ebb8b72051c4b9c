#pragma once

#include "platform/Process.h"

#include <QJsonObject>
#include <QString>

// Reads what the service executable printed for "--discover": the last non-empty line must
// be one JSON object. Throws the JSON parser's error for a last line that is not JSON, and
// an error carrying the whole output as its message for every other failure.
QJsonObject radioFromProbeOutput(const ProcessResult &result);

// Runs the service executable in its one-shot discovery mode and reads its answer.
// Blocks until the executable ends; throws Error on any failure. The executable is ended when
// the app ends, by a quit or a crash.
QJsonObject probeRadio(const QString &serviceExecutable, const QString &address);
