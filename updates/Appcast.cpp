#include "updates/Appcast.h"

#include "updates/UpdateErrors.h"
#include "updates/VersionComparator.h"

#include <QXmlStreamReader>

const QString updateFeedNamespace = QStringLiteral("http://www.andymatuschak.org/xml-namespaces/sparkle");

bool AppcastItem::isCriticalFor(const QString &currentVersion) const
{
    return critical && (criticalBelowVersion.isEmpty() || compareVersions(currentVersion, criticalBelowVersion) < 0);
}

bool AppcastItem::isInformationalFor(const QString &currentVersion) const
{
    if (!informational)
        return false;
    if (informationalBelowVersions.isEmpty())
        return true;
    for (const QString &below : informationalBelowVersions)
        if (compareVersions(currentVersion, below) < 0)
            return true;
    return false;
}

namespace {
struct Invalid
{
    QString reason;
};

class FeedReader
{
public:
    FeedReader(const QByteArray &xml, const QUrl &feedUrl) : m_reader(xml), m_feedUrl(feedUrl) {}

    Appcast read()
    {
        Appcast appcast;
        appcast.url = m_feedUrl;
        readProlog();
        if (m_reader.name() != u"rss" || !m_reader.namespaceUri().isEmpty())
            throw Invalid{QStringLiteral("it is not an RSS feed (its root element is <%1>)").arg(m_reader.qualifiedName())};
        while (nextChild()) {
            if (m_reader.name() == u"channel" && m_reader.namespaceUri().isEmpty())
                readChannel(appcast);
            else
                m_reader.skipCurrentElement();
        }
        checkReader();
        while (!m_reader.atEnd()) {
            m_reader.readNext();
            checkReader();
        }
        return appcast;
    }

    const QXmlStreamReader &reader() const { return m_reader; }

private:
    // Up to the root element. Entities are never loaded: a feed that declares any is refused.
    void readProlog()
    {
        while (!m_reader.atEnd()) {
            m_reader.readNext();
            checkReader();
            if (m_reader.tokenType() == QXmlStreamReader::DTD
                && (!m_reader.entityDeclarations().isEmpty() || !m_reader.notationDeclarations().isEmpty()))
                throw Invalid{QStringLiteral("it declares XML entities, which are never loaded")};
            if (m_reader.tokenType() == QXmlStreamReader::StartElement)
                return;
        }
        checkReader();
        throw Invalid{QStringLiteral("it has no root element")};
    }

    // Like readNextStartElement, but refuses entity references instead of skipping them.
    bool nextChild()
    {
        while (!m_reader.atEnd()) {
            m_reader.readNext();
            checkReader();
            switch (m_reader.tokenType()) {
            case QXmlStreamReader::StartElement:
                return true;
            case QXmlStreamReader::EndElement:
                return false;
            case QXmlStreamReader::EntityReference:
                throw Invalid{QStringLiteral("it refers to the entity \u201c%1\u201d, which is never loaded")
                                  .arg(m_reader.name())};
            default:
                break;
            }
        }
        checkReader();
        return false;
    }

    // The element's text, child elements' text included; entity references are refused.
    QString text()
    {
        QString result;
        int depth = 1;
        while (depth > 0 && !m_reader.atEnd()) {
            m_reader.readNext();
            checkReader();
            switch (m_reader.tokenType()) {
            case QXmlStreamReader::StartElement:
                ++depth;
                break;
            case QXmlStreamReader::EndElement:
                --depth;
                break;
            case QXmlStreamReader::Characters:
                result += m_reader.text();
                break;
            case QXmlStreamReader::EntityReference:
                throw Invalid{QStringLiteral("it refers to the entity \u201c%1\u201d, which is never loaded")
                                  .arg(m_reader.name())};
            default:
                break;
            }
        }
        checkReader();
        return result;
    }

    void checkReader() const
    {
        if (m_reader.hasError())
            throw Invalid{}; // reported with the reader's own words by parseAppcast
    }

    bool isUpdateElement(QStringView name) const
    {
        return m_reader.name() == name && m_reader.namespaceUri() == updateFeedNamespace;
    }

    bool isPlainElement(QStringView name) const
    {
        return m_reader.name() == name && m_reader.namespaceUri().isEmpty();
    }

    QString updateAttribute(const QXmlStreamAttributes &attributes, const QString &name) const
    {
        return attributes.value(updateFeedNamespace, name).toString().trimmed();
    }

    bool hasUpdateAttribute(const QXmlStreamAttributes &attributes, const QString &name) const
    {
        return attributes.hasAttribute(updateFeedNamespace, name);
    }

    QUrl link(const QString &written, const QString &itemName)
    {
        const QString trimmed = written.trimmed();
        QUrl url(trimmed);
        if (!url.isValid())
            throw Invalid{QStringLiteral("item %1 has a link that is not a valid URL: %2").arg(itemName, trimmed)};
        if (url.isRelative()) {
            if (m_feedUrl.isEmpty())
                throw Invalid{QStringLiteral("item %1 has the relative link \u201c%2\u201d and there is no feed URL "
                                             "to resolve it against")
                                  .arg(itemName, trimmed)};
            url = m_feedUrl.resolved(url);
        }
        const QString scheme = url.scheme().toLower();
        if (scheme != u"http" && scheme != u"https")
            throw Invalid{QStringLiteral("item %1 links to %2; only http and https links are allowed")
                              .arg(itemName, url.toDisplayString())};
        return url;
    }

    void readChannel(Appcast &appcast)
    {
        while (nextChild()) {
            if (isPlainElement(u"title")) {
                appcast.title = text().trimmed();
            } else if (isPlainElement(u"item")) {
                AppcastItem item;
                item.position = int(appcast.items.size()) + 1;
                readItem(item);
                appcast.items.append(item);
            } else {
                m_reader.skipCurrentElement();
                checkReader();
            }
        }
    }

    struct RawLinks
    {
        QString link;
        QString releaseNotes;
        bool releaseNotesLocalized = true;
        QString fullReleaseNotes;
        QList<std::pair<QXmlStreamAttributes, bool>> enclosures; // attributes, had a url
    };

    void readItem(AppcastItem &item)
    {
        RawLinks raw;
        QString itemVersion;
        QString itemShortVersion;
        QString itemOs;
        while (nextChild()) {
            const QXmlStreamAttributes attributes = m_reader.attributes();
            if (isPlainElement(u"title")) {
                item.title = text().trimmed();
            } else if (isPlainElement(u"link")) {
                raw.link = text();
            } else if (isPlainElement(u"description")) {
                const QString format = updateAttribute(attributes, QStringLiteral("format")).toLower();
                item.descriptionFormat = format == u"plain-text" ? NotesFormat::PlainText
                    : format == u"markdown"                      ? NotesFormat::Markdown
                                                                 : NotesFormat::Html;
                item.description = text().trimmed();
            } else if (isPlainElement(u"pubDate")) {
                const QString date = text().trimmed();
                item.pubDate = QDateTime::fromString(date, Qt::RFC2822Date);
            } else if (isPlainElement(u"enclosure")) {
                raw.enclosures.append({attributes, attributes.hasAttribute(QStringLiteral("url"))});
                m_reader.skipCurrentElement();
                checkReader();
            } else if (isUpdateElement(u"version")) {
                itemVersion = text().trimmed();
            } else if (isUpdateElement(u"shortVersionString")) {
                itemShortVersion = text().trimmed();
            } else if (isUpdateElement(u"releaseNotesLink")) {
                const bool localized = attributes.hasAttribute(QStringLiteral("http://www.w3.org/XML/1998/namespace"),
                                                               QStringLiteral("lang"));
                const QString value = text();
                // The link without a language is the default; otherwise the first one wins.
                if (raw.releaseNotes.isEmpty() || (raw.releaseNotesLocalized && !localized)) {
                    raw.releaseNotes = value;
                    raw.releaseNotesLocalized = localized;
                }
            } else if (isUpdateElement(u"fullReleaseNotesLink")) {
                raw.fullReleaseNotes = text();
            } else if (isUpdateElement(u"minimumSystemVersion")) {
                item.minimumSystemVersion = text().trimmed();
            } else if (isUpdateElement(u"maximumSystemVersion")) {
                item.maximumSystemVersion = text().trimmed();
            } else if (isUpdateElement(u"channel")) {
                item.channel = text().trimmed();
            } else if (isUpdateElement(u"os")) {
                itemOs = text().trimmed();
            } else if (isUpdateElement(u"criticalUpdate")) {
                item.critical = true;
                item.criticalBelowVersion = updateAttribute(attributes, QStringLiteral("version"));
                m_reader.skipCurrentElement();
                checkReader();
            } else if (isUpdateElement(u"informationalUpdate")) {
                item.informational = true;
                while (nextChild()) {
                    if (isUpdateElement(u"belowVersion"))
                        item.informationalBelowVersions.append(text().trimmed());
                    else {
                        m_reader.skipCurrentElement();
                        checkReader();
                    }
                }
            } else if (isUpdateElement(u"phasedRolloutInterval")) {
                bool ok = false;
                const qint64 seconds = text().trimmed().toLongLong(&ok);
                if (ok && seconds > 0)
                    item.phasedRolloutInterval = seconds;
            } else {
                m_reader.skipCurrentElement();
                checkReader();
            }
        }

        // Shared feeds may carry one enclosure per system: this one wants the Linux enclosure.
        const QXmlStreamAttributes *chosen = nullptr;
        for (const auto &[attributes, hasUrl] : raw.enclosures) {
            if (!hasUrl)
                continue;
            if (!chosen)
                chosen = &attributes;
            if (updateAttribute(attributes, QStringLiteral("os")) == u"linux") {
                chosen = &attributes;
                break;
            }
        }
        if (chosen) {
            itemVersion = updateAttribute(*chosen, QStringLiteral("version")).isEmpty()
                ? itemVersion
                : updateAttribute(*chosen, QStringLiteral("version"));
            if (!updateAttribute(*chosen, QStringLiteral("shortVersionString")).isEmpty())
                itemShortVersion = updateAttribute(*chosen, QStringLiteral("shortVersionString"));
        }
        item.version = itemVersion;
        item.displayVersion = itemShortVersion.isEmpty() ? itemVersion : itemShortVersion;

        const QString name = item.version.isEmpty() ? QStringLiteral("#%1").arg(item.position) : item.versionLabel();
        if (!raw.link.trimmed().isEmpty())
            item.link = link(raw.link, name);
        if (!raw.releaseNotes.trimmed().isEmpty())
            item.releaseNotesLink = link(raw.releaseNotes, name);
        if (!raw.fullReleaseNotes.trimmed().isEmpty())
            item.fullReleaseNotesLink = link(raw.fullReleaseNotes, name);
        // Every enclosure's link must be acceptable, not only the chosen one.
        for (const auto &[attributes, hasUrl] : raw.enclosures) {
            if (!hasUrl)
                continue;
            const QUrl url = link(attributes.value(QStringLiteral("url")).toString(), name);
            if (&attributes != chosen)
                continue;
            Enclosure enclosure;
            enclosure.url = url;
            bool ok = false;
            const qint64 length = attributes.value(QStringLiteral("length")).toString().trimmed().toLongLong(&ok);
            enclosure.length = ok && length >= 0 ? length : -1;
            enclosure.type = attributes.value(QStringLiteral("type")).toString().trimmed();
            enclosure.os = updateAttribute(attributes, QStringLiteral("os"));
            if (hasUpdateAttribute(attributes, QStringLiteral("edSignature")))
                enclosure.edSignature = updateAttribute(attributes, QStringLiteral("edSignature"));
            item.enclosure = enclosure;
        }
        item.os = item.enclosure && !item.enclosure->os.isEmpty() ? item.enclosure->os : itemOs;
    }

    QXmlStreamReader m_reader;
    QUrl m_feedUrl;
};
} // namespace

Appcast parseAppcast(const QByteArray &xml, const QUrl &feedUrl)
{
    FeedReader reader(xml, feedUrl);
    const QString where = feedUrl.isEmpty() ? QStringLiteral("The update feed")
                                            : QStringLiteral("The update feed at %1").arg(feedUrl.toDisplayString());
    try {
        return reader.read();
    } catch (const Invalid &invalid) {
        const QXmlStreamReader &xmlReader = reader.reader();
        if (xmlReader.hasError() && invalid.reason.isEmpty())
            throw updateError(UpdateErrorCode::InvalidFeed,
                              QStringLiteral("%1 is not valid XML: %2 (line %3, column %4).")
                                  .arg(where, xmlReader.errorString())
                                  .arg(xmlReader.lineNumber())
                                  .arg(xmlReader.columnNumber()));
        throw updateError(UpdateErrorCode::InvalidFeed, QStringLiteral("%1 is not valid: %2.").arg(where, invalid.reason));
    }
}
