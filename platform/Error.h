#pragma once

#include <QString>
#include <QVariantMap>

class QFileDevice;
class QProcess;
struct QJsonParseError;

// An error value with a domain text, an integer code and a user-information map.
// Operations throw it and catch it at their end, where it is shown.
class Error
{
public:
    Error(QString domain, int code, QVariantMap userInfo = {});

    // The error whose domain is the user-facing message itself, code 1, nothing else.
    static Error withMessage(const QString &message);
    // Qt's own failures, named after the facility that reported them.
    static Error fromProcess(const QProcess &process, const QString &program);
    static Error fromFile(const QFileDevice &file, const QString &path);
    static Error fromJson(const QJsonParseError &parseError);

    const QString &domain() const { return m_domain; }
    int code() const { return m_code; }
    const QVariantMap &userInfo() const { return m_userInfo; }

    // The short message: the description entry, or a generic sentence naming domain and code.
    QString localizedDescription() const;
    // The full form: Error Domain=… Code=… "…" UserInfo={…}.
    QString description() const;

    static const QString descriptionKey; // "NSLocalizedDescription"

private:
    QString m_domain;
    int m_code;
    QVariantMap m_userInfo;
};
