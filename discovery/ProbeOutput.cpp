#include "discovery/ProbeOutput.h"

#include "platform/Error.h"
#include "platform/Json.h"

namespace {
Error outputError(const QString &output)
{
    return Error(output, 1, {{Error::descriptionKey, output}});
}
} // namespace

QJsonObject radioFromProbeOutput(const ProcessResult &result)
{
    const QString text = result.text();
    if (!result.succeeded())
        throw outputError(text);

    // Only a lone line feed separates lines: "\r\n" leaves the "\r" on the line.
    const QStringList lines = text.split(u'\n', Qt::SkipEmptyParts);
    if (lines.isEmpty())
        throw outputError(text);

    const QJsonDocument answer = readJson(lines.last().toUtf8());
    if (!answer.isObject())
        throw outputError(text);
    return answer.object();
}

QJsonObject probeRadio(const QString &serviceExecutable, const QString &address)
{
    // A probe of an address where nothing answers may run on after the app is gone; its answer
    // would go unread, so it ends with the app.
    return radioFromProbeOutput(
        runProcess(serviceExecutable, {QStringLiteral("--discover"), address}, ChildLifetime::EndsWithApp));
}
