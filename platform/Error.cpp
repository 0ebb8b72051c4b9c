#include "platform/Error.h"

#include <QFileDevice>
#include <QJsonParseError>
#include <QProcess>
#include <QStringList>

const QString Error::descriptionKey = QStringLiteral("NSLocalizedDescription");

Error::Error(QString domain, int code, QVariantMap userInfo)
    : m_domain(std::move(domain)), m_code(code), m_userInfo(std::move(userInfo))
{
}

Error Error::withMessage(const QString &message)
{
    return Error(message, 1);
}

Error Error::fromProcess(const QProcess &process, const QString &program)
{
    return Error(QStringLiteral("QProcess"), int(process.error()),
                 {{descriptionKey, QStringLiteral("%1: %2").arg(program, process.errorString())}});
}

Error Error::fromFile(const QFileDevice &file, const QString &path)
{
    return Error(QStringLiteral("QFile"), int(file.error()),
                 {{descriptionKey, QStringLiteral("%1: %2").arg(path, file.errorString())}});
}

Error Error::fromJson(const QJsonParseError &parseError)
{
    return Error(QStringLiteral("QJsonParseError"), int(parseError.error),
                 {{descriptionKey, QStringLiteral("JSON text is not valid: %1 at offset %2.")
                                       .arg(parseError.errorString())
                                       .arg(parseError.offset)}});
}

QString Error::localizedDescription() const
{
    const auto found = m_userInfo.constFind(descriptionKey);
    if (found != m_userInfo.constEnd())
        return found->toString();
    return QStringLiteral("The operation couldn\u2019t be completed. (%1 error %2.)").arg(m_domain).arg(m_code);
}

QString Error::description() const
{
    QString text = QStringLiteral("Error Domain=%1 Code=%2 \"%3\"").arg(m_domain).arg(m_code).arg(localizedDescription());
    if (!m_userInfo.isEmpty()) {
        QStringList pairs;
        for (auto it = m_userInfo.constBegin(); it != m_userInfo.constEnd(); ++it)
            pairs << it.key() + u'=' + it.value().toString();
        text += QStringLiteral(" UserInfo={%1}").arg(pairs.join(QStringLiteral(", ")));
    }
    return text;
}
