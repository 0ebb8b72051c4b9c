// The version comparator must be an ordering, or the updater's choice of the newest item
// depends on the feed's order: for the versions in the input (one per line, up to four),
// every pair is antisymmetric, every version equals itself, and every triple they form is
// transitive, with equal versions ordered alike against every other.

#include "FuzzSupport.h"

#include "updates/VersionComparator.h"

#include <QStringList>

namespace {
int sign(int value)
{
    return (value > 0) - (value < 0);
}

QString quoted(const QString &version)
{
    return u'"' + version + u'"';
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QStringList versions = QString::fromUtf8(fuzzBytes(data, size)).split(u'\n').mid(0, 4);
    const qsizetype n = versions.size();
    // Every pair compared once; the properties are then checked on that table.
    int order[4][4];
    for (qsizetype a = 0; a < n; ++a)
        for (qsizetype b = 0; b < n; ++b)
            order[a][b] = sign(compareVersions(versions.at(a), versions.at(b)));
    for (qsizetype a = 0; a < n; ++a) {
        expect(order[a][a] == 0, "a version equals itself", quoted(versions.at(a)));
        for (qsizetype b = 0; b < n; ++b) {
            expect(order[a][b] == -order[b][a], "antisymmetry: a < b exactly when b > a",
                   quoted(versions.at(a)) + u' ' + quoted(versions.at(b)));
            for (qsizetype c = 0; c < n; ++c) {
                const auto triple = [&] {
                    return quoted(versions.at(a)) + u' ' + quoted(versions.at(b)) + u' ' + quoted(versions.at(c));
                };
                if (order[a][b] <= 0 && order[b][c] <= 0)
                    expect(order[a][c] <= 0 && (order[a][c] < 0 || (order[a][b] == 0 && order[b][c] == 0)),
                           "transitivity: a <= b <= c gives a <= c, equal only when all are equal", triple());
                if (order[a][b] == 0)
                    expect(order[a][c] == order[b][c], "equal versions order alike against a third", triple());
            }
        }
    }
    return 0;
}
