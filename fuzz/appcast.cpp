// The update feed as the updater reads it. Whatever the feed says, every link the updater
// may follow is http or https, and each item answers the questions the updater asks.

#include "FuzzSupport.h"

#include "platform/Error.h"
#include "updates/Appcast.h"

namespace {
void expectWebLink(const QUrl &url)
{
    if (url.isEmpty())
        return;
    const QString scheme = url.scheme();
    expect(scheme == u"http" || scheme == u"https", "every link of a feed is http or https", url.toString());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Appcast appcast;
    try {
        appcast = parseAppcast(fuzzBytes(data, size), QUrl(QStringLiteral("https://veldspar.example/updates/appcast.xml")));
    } catch (const Error &) {
        return 0;
    }
    for (qsizetype i = 0; i < appcast.items.size(); ++i) {
        const AppcastItem &item = appcast.items.at(i);
        expect(item.position == i + 1, "items are numbered in feed order");
        expectWebLink(item.link);
        expectWebLink(item.releaseNotesLink);
        expectWebLink(item.fullReleaseNotesLink);
        if (item.enclosure)
            expectWebLink(item.enclosure->url);
        item.isCriticalFor(QStringLiteral("1.0"));
        item.isInformationalFor(QStringLiteral("1.0"));
        item.versionLabel();
    }
    return 0;
}
