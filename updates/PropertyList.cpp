#include "updates/PropertyList.h"

#include "updates/UpdateErrors.h"

#include <QDateTime>
#include <QVariantList>
#include <QXmlStreamReader>

namespace {
struct Invalid
{
    QString reason;
};

// Containers are read recursively: the depth is capped so that a hostile file cannot use
// up the stack. Real property lists nest a handful of levels.
constexpr int deepestNesting = 100;

QVariant readValue(QXmlStreamReader &reader, int depth);

// depth: how many containers enclose this one, itself included.
QVariantMap readDictionary(QXmlStreamReader &reader, int depth)
{
    QVariantMap dictionary;
    while (reader.readNextStartElement()) {
        if (reader.name() != u"key")
            throw Invalid{QStringLiteral("expected <key> in <dict>, found <%1>").arg(reader.name())};
        const QString key = reader.readElementText();
        if (!reader.readNextStartElement())
            throw Invalid{QStringLiteral("the key \u201c%1\u201d has no value").arg(key)};
        dictionary.insert(key, readValue(reader, depth));
    }
    return dictionary;
}

// depth: how many containers enclose this value.
QVariant readValue(QXmlStreamReader &reader, int depth)
{
    const QString type = reader.name().toString();
    if ((type == u"dict" || type == u"array") && depth >= deepestNesting)
        throw Invalid{QStringLiteral("its values are nested more than %1 levels deep").arg(deepestNesting)};
    if (type == u"dict")
        return readDictionary(reader, depth + 1);
    if (type == u"array") {
        QVariantList list;
        while (reader.readNextStartElement())
            list.append(readValue(reader, depth + 1));
        return list;
    }
    if (type == u"true" || type == u"false") {
        reader.skipCurrentElement();
        return type == u"true";
    }
    const QString text = reader.readElementText();
    if (type == u"string")
        return text;
    bool ok = false;
    if (type == u"integer") {
        const qlonglong value = text.trimmed().toLongLong(&ok);
        if (!ok)
            throw Invalid{QStringLiteral("\u201c%1\u201d is not an integer").arg(text)};
        return value;
    }
    if (type == u"real") {
        const double value = text.trimmed().toDouble(&ok);
        if (!ok)
            throw Invalid{QStringLiteral("\u201c%1\u201d is not a real number").arg(text)};
        return value;
    }
    if (type == u"date") {
        const QDateTime value = QDateTime::fromString(text.trimmed(), Qt::ISODate);
        if (!value.isValid())
            throw Invalid{QStringLiteral("\u201c%1\u201d is not a date").arg(text)};
        return value;
    }
    if (type == u"data")
        return QByteArray::fromBase64(text.toLatin1());
    throw Invalid{QStringLiteral("unknown value type <%1>").arg(type)};
}
} // namespace

QVariantMap readPropertyList(const QByteArray &xml, const QString &source)
{
    QXmlStreamReader reader(xml);
    QVariantMap result;
    try {
        if (!reader.readNextStartElement() || reader.name() != u"plist")
            throw Invalid{QStringLiteral("it is not a property list")};
        if (!reader.readNextStartElement() || reader.name() != u"dict")
            throw Invalid{QStringLiteral("its top level is not a dictionary")};
        result = readDictionary(reader, 1);
        while (!reader.atEnd() && !reader.hasError())
            reader.readNext();
    } catch (const Invalid &invalid) {
        if (!reader.hasError())
            throw updateError(UpdateErrorCode::InvalidConfiguration,
                              QStringLiteral("%1 is not valid: %2.").arg(source, invalid.reason));
    }
    if (reader.hasError())
        throw updateError(UpdateErrorCode::InvalidConfiguration,
                          QStringLiteral("%1 is not valid XML: %2 (line %3, column %4).")
                              .arg(source, reader.errorString())
                              .arg(reader.lineNumber())
                              .arg(reader.columnNumber()));
    return result;
}
