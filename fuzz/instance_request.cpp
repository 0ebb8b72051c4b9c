// What one start of the app says to the copy already running, and the copy's answer: one short
// line each, read as it arrives in pieces of any size, the way both ends read it. Never more
// than the line's limit is taken, the line is complete exactly when its end came or the limit
// is reached, and what is read is the first line of what was sent.

#include "FuzzSupport.h"

#include "platform/ShortLine.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {
// What both ends allow for a line (the request "show\n" and the answer "shown\n").
constexpr qsizetype longestLine = 64;

QByteArray firstLine(const QByteArray &sent)
{
    const QByteArray window = sent.left(longestLine);
    const qsizetype end = window.indexOf('\n');
    return end < 0 ? window : window.left(end + 1);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    ShortLine line(longestLine);
    QByteArray sent;
    qsizetype taken = 0;
    while (input.remaining_bytes() > 0 && !line.complete()) {
        // A receive asks for at most what fits; the peer may have sent more than that.
        const std::string piece = input.ConsumeRandomLengthString(2 * longestLine);
        sent += QByteArray(piece.data(), qsizetype(piece.size()));
        const qsizetype room = line.room();
        expectThat(room > 0 && taken + room <= longestLine, "an incomplete line has room, within the limit",
                   [&] { return QString(QStringLiteral("room %1 after %2 bytes").arg(room).arg(taken)); });
        const qsizetype got = qMin(qsizetype(piece.size()), room);
        if (got == 0)
            continue; // a receive that got nothing is a wait, not the end
        taken += got;
        const bool complete = line.add(piece.data(), got);
        expect(complete == line.complete(), "adding says whether the line is complete");
    }
    // The peer closed: whatever came is the line.
    const QByteArray expected = firstLine(sent);
    const bool shouldBeComplete = expected.endsWith('\n') || expected.size() == longestLine;
    expectThat(line.complete() == shouldBeComplete, "a line is complete exactly when its end came or it is full",
               [&] { return QString(QString::fromLatin1(sent.left(longestLine).toHex())); });
    expectThat(line.line() == expected, "the line read is the first line sent, cut at the limit", [&] {
        return QString(QString::fromLatin1(line.line().toHex()) + QStringLiteral(" vs ")
                       + QString::fromLatin1(expected.toHex()));
    });
    expectThat(taken <= longestLine, "never more than the limit is read",
               [&] { return QString(QString::number(taken)); });
    if (line.complete())
        expect(line.room() == 0, "a complete line takes nothing more");
    // Only the request itself asks the running copy to come forward.
    const bool asksToShow = line.line() == QByteArrayLiteral("show\n");
    expectThat(asksToShow == sent.startsWith(QByteArrayLiteral("show\n")), "only \"show\" and its line end ask to show",
               [&] { return QString(QString::fromLatin1(sent.left(16).toHex())); });
    return 0;
}
