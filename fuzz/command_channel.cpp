// What a radio sends on its command port, as the command channel cuts it into lines and
// counts it against its budget: bytes arrive in pieces of any size at any time. Lines come out
// whole, in order, never longer than the limit; a longer one breaks the stream; and no second
// is let through with more bytes or lines than the budget allows.

#include "FuzzSupport.h"

#include "daemon/LineFramer.h"
#include "daemon/ReadBudget.h"

#include <QList>

#include <fuzzer/FuzzedDataProvider.h>

namespace {
bool isLineEnd(char c)
{
    return c == '\n' || c == '\r';
}

// The lines of everything sent so far, cut at once: the complete ones, and what is left.
struct Cut
{
    QList<QByteArray> lines;
    QByteArray rest;
};

Cut cutWhole(const QByteArray &stream)
{
    Cut cut;
    qsizetype start = 0;
    for (qsizetype i = 0; i < stream.size(); ++i) {
        if (isLineEnd(stream.at(i))) {
            cut.lines.append(stream.mid(start, i - start));
            start = i + 1;
        }
    }
    cut.rest = stream.mid(start);
    return cut;
}

void checkFraming(FuzzedDataProvider &input)
{
    const qsizetype longest = input.ConsumeIntegralInRange<qsizetype>(0, 300);
    LineFramer framer(longest);
    QByteArray sent;
    QList<QByteArray> taken;
    bool broken = false;
    while (input.remaining_bytes() > 0 && !broken) {
        const std::string piece = input.ConsumeRandomLengthString(600);
        const QByteArray bytes(piece.data(), qsizetype(piece.size()));
        sent += bytes;
        framer.append(bytes);
        for (;;) {
            const LineFramer::Next next = framer.take();
            if (next.status == LineFramer::Status::NeedMore) {
                expectThat(framer.pending() <= longest, "what waits for its line end fits in a line", [&] {
                    return QString(QStringLiteral("%1 bytes pending, limit %2").arg(framer.pending()).arg(longest));
                });
                break;
            }
            if (next.status == LineFramer::Status::TooLong) {
                broken = true;
                break;
            }
            expectThat(next.line.size() <= longest, "no line is longer than the limit", [&] {
                return QString(QStringLiteral("%1 bytes, limit %2").arg(next.line.size()).arg(longest));
            });
            expect(!next.line.contains('\n') && !next.line.contains('\r'), "a line holds no line end");
            taken.append(next.line);
        }
    }

    // The same stream cut in one go gives the same lines, and breaks exactly at the first line
    // that is too long, whether its end has come or not.
    const Cut whole = cutWhole(sent);
    qsizetype firstTooLong = -1;
    for (qsizetype i = 0; i < whole.lines.size() && firstTooLong < 0; ++i)
        if (whole.lines.at(i).size() > longest)
            firstTooLong = i;
    const bool restTooLong = whole.rest.size() > longest;
    const bool shouldBreak = firstTooLong >= 0 || restTooLong;
    expectThat(broken == shouldBreak, "the stream breaks exactly when a line is too long",
               [&] { return QString(QStringLiteral("broken %1, expected %2").arg(broken).arg(shouldBreak)); });
    const QList<QByteArray> expected = firstTooLong >= 0 ? whole.lines.mid(0, firstTooLong) : whole.lines;
    expectThat(taken == expected, "lines come out whole and in order, however the bytes arrive", [&] {
        return QString(QStringLiteral("%1 lines taken, %2 expected").arg(taken.size()).arg(expected.size()));
    });
    if (broken) {
        framer.append(QByteArrayLiteral("V1.0\n"));
        expect(framer.take().status == LineFramer::Status::TooLong, "a broken stream stays broken");
    } else {
        expect(framer.pending() == whole.rest.size(), "what is pending is the unfinished line");
    }
}

void checkBudget(FuzzedDataProvider &input)
{
    const qsizetype mostBytes = input.ConsumeIntegralInRange<qsizetype>(0, 5000);
    const int mostLines = input.ConsumeIntegralInRange<int>(0, 50);
    ReadBudget budget(mostBytes, mostLines);
    struct Read
    {
        qint64 atMs;
        qsizetype bytes;
        int lines;
    };
    QList<Read> reads; // the last one refused, when refused is set
    bool refused = false;
    qint64 now = 0;
    while (input.remaining_bytes() > 0) {
        now += input.ConsumeIntegralInRange<qint64>(0, 1500);
        const Read read{now, input.ConsumeIntegralInRange<qsizetype>(0, 3000),
                        input.ConsumeIntegralInRange<int>(0, 40)};
        reads.append(read);
        if (!budget.admit(read.atMs, read.bytes, read.lines)) {
            refused = true; // the channel fails the peer at the first read over the budget
            break;
        }
    }
    // Windows of a second, each opened by the first read a second or more after the last
    // opened: none of them holds more than the budget.
    qsizetype index = 0;
    qint64 windowStart = 0;
    bool overInLastWindow = false;
    while (index < reads.size()) {
        if (reads.at(index).atMs - windowStart >= 1000)
            windowStart = reads.at(index).atMs;
        qsizetype bytes = 0;
        qint64 lines = 0;
        for (; index < reads.size() && reads.at(index).atMs - windowStart < 1000; ++index) {
            bytes += reads.at(index).bytes;
            lines += reads.at(index).lines;
        }
        const bool over = bytes > mostBytes || lines > mostLines;
        if (index < reads.size() || !refused)
            expectThat(!over, "no second lets through more than the budget", [&] {
                return QString(QStringLiteral("%1 bytes and %2 lines from %3 ms; budget %4 bytes, %5 lines")
                                   .arg(bytes)
                                   .arg(lines)
                                   .arg(windowStart)
                                   .arg(mostBytes)
                                   .arg(mostLines));
            });
        overInLastWindow = over;
    }
    // The read refused is the one that took its second over the budget, not an earlier one.
    if (refused)
        expect(overInLastWindow, "only a read over the budget is refused");
    // A fresh budget admits a first read exactly when it fits.
    if (!reads.isEmpty()) {
        const Read &first = reads.first();
        expect(ReadBudget(mostBytes, mostLines).admit(first.atMs, first.bytes, first.lines)
                   == (first.bytes <= mostBytes && first.lines <= mostLines),
               "a fresh budget admits a first read exactly when it fits");
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool())
        checkFraming(input);
    else
        checkBudget(input);
    return 0;
}
