// The service's state file, read the way the app reads it, and shown for a radio of it. Also
// the service's own writer fed with texts from the input: what the service writes, the app
// reads back as written.

#include "FuzzSupport.h"

#include "app/Announcement.h"
#include "daemon/LiveState.h"
#include "platform/RadioTexts.h"
#include "service/LiveState.h"

#include <QJsonObject>
#include <QTimeZone>

namespace {
void readAndShow(const QByteArray &bytes)
{
    const std::optional<ServiceLiveState> state = parseLiveState(bytes);
    if (!state)
        return;
    expect(state->pid > 0, "an accepted state names a process");
    const LiveRadioIndex index(state);
    for (const LiveRadio &radio : state->radios) {
        const RadioEntry entry{{QStringLiteral("serialNumber"), radio.serialNumber},
                               {QStringLiteral("ipAddress"), radio.ipAddress},
                               {QStringLiteral("enabled"), true}};
        const Announcement shown = announcementFor(entry, index, QTimeZone::utc());
        expect(!shown.line.isEmpty(), "every radio gets a line");
        expect(shown.kind != Announcement::Kind::Excluded && shown.kind != Announcement::Kind::ServiceStopped,
               "an enabled radio of a running service is never grey");
    }
}

// Texts for the writer, taken from the input whole: up to six, split at NUL bytes. Whatever
// their length, the service writes a file that the app reads with this radio in it.
void writeThenRead(const QByteArray &bytes)
{
    QList<QByteArray> parts = bytes.split('\0');
    while (parts.size() < 6)
        parts.append(QByteArray());
    const auto text = [&parts](int i) { return QString::fromUtf8(parts.at(i)); };
    RadioLiveState radio;
    radio.serialNumber = text(0);
    radio.ipAddress = text(1);
    radio.name = text(2);
    radio.phase = RadioLiveState::Phase(quint8(bytes.isEmpty() ? 0 : bytes.at(0)) % 4);
    radio.reason = text(3);
    radio.since = QDateTime::fromMSecsSinceEpoch(1'790'000'000'000 + bytes.size(), QTimeZone::utc());
    radio.status = text(4);
    radio.licensedClients = 2;
    radio.guiClients = {{text(5), text(2)}};
    const QByteArray document = liveStateDocument({radio}, 4242, radio.since);
    const std::optional<ServiceLiveState> read = parseLiveState(document);
    expect(read.has_value(), "the app reads what the service writes", QString::fromUtf8(document));
    expect(read->radios.size() == 1, "the app shows the radio, however long its texts", QString::fromUtf8(document));
    expect(read->radios.first().serialNumber == cutTo(radio.serialNumber, longestSerialNumber)
               && read->radios.first().ipAddress == cutTo(radio.ipAddress, longestRadioAddress)
               && int(read->radios.first().phase) == int(radio.phase) && read->radios.first().since == radio.since,
           "the app reads the radio as the service wrote it", QString::fromUtf8(document));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    readAndShow(bytes);
    writeThenRead(bytes);
    return 0;
}
