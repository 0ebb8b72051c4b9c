#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

// The XML namespace of the update elements and attributes, whatever prefix a feed gives it.
extern const QString updateFeedNamespace; // "http://www.andymatuschak.org/xml-namespaces/sparkle"

enum class NotesFormat { Html, PlainText, Markdown };

struct Enclosure
{
    QUrl url;
    qint64 length = -1; // -1 when the feed gives none or no number
    QString type;
    QString os;                         // sparkle:os; empty when absent
    std::optional<QString> edSignature; // sparkle:edSignature, as written
};

struct AppcastItem
{
    int position = 0; // 1-based, in feed order
    QString title;
    QString version;        // sparkle:version of the enclosure, else of the item
    QString displayVersion; // sparkle:shortVersionString, else the version
    QUrl link;              // <link>: the product page
    QDateTime pubDate;      // invalid when absent or unreadable
    QString description;    // the release notes embedded in the feed
    NotesFormat descriptionFormat = NotesFormat::Html;
    QUrl releaseNotesLink;
    QUrl fullReleaseNotesLink;
    QString minimumSystemVersion;
    QString maximumSystemVersion;
    QString channel;
    QString os; // the enclosure's sparkle:os, else an item-level <sparkle:os>
    std::optional<Enclosure> enclosure;

    bool critical = false;
    QString criticalBelowVersion; // critical only for versions below it; empty: for all
    bool informational = false;
    QStringList informationalBelowVersions; // informational only below one of them; empty: for all
    std::optional<qint64> phasedRolloutInterval; // seconds

    bool isCriticalFor(const QString &currentVersion) const;
    bool isInformationalFor(const QString &currentVersion) const;
    // What users read: "1.1", or "1.1 (42)" when the version differs from the display form.
    QString versionLabel() const;
};

struct Appcast
{
    QUrl url;
    QString title;
    QList<AppcastItem> items;
};

// Parses an update feed: RSS 2.0 with the update namespace. Links are resolved against
// feedUrl (an empty feedUrl leaves relative links unresolvable). Throws Error when the text is
// not XML, not RSS, declares entities, or has any link that is not http or https.
Appcast parseAppcast(const QByteArray &xml, const QUrl &feedUrl);
