#include "updates/Fetch.h"

#include <QEventLoop>
#include <QFile>
#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

namespace {
// What a reply may hold before the body is written out; beyond it the data waits in the
// socket, so that a fast server and a slow disk never pile a download up in memory.
constexpr qint64 replyBufferBytes = 1 << 20;

std::optional<FetchTimeouts> &timeoutsForTesting()
{
    static std::optional<FetchTimeouts> timeouts;
    return timeouts;
}

QString secondsText(std::chrono::milliseconds duration)
{
    if (duration == std::chrono::seconds(1))
        return QStringLiteral("1 second");
    return QStringLiteral("%1 seconds").arg(double(duration.count()) / 1000.0);
}
} // namespace

FetchTimeouts fetchTimeouts()
{
    return timeoutsForTesting().value_or(FetchTimeouts());
}

void setFetchTimeoutsForTesting(std::optional<FetchTimeouts> timeouts)
{
    timeoutsForTesting() = timeouts;
}

std::optional<QString> insecureUrlReason(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    if (scheme == u"https")
        return std::nullopt;
    if (scheme == u"http") {
        const QString host = url.host().toLower();
        if (host == u"localhost" || QHostAddress(host).isLoopback())
            return std::nullopt;
        return QStringLiteral("is plain http; updates are only fetched over https");
    }
    return QStringLiteral("is not an https link");
}

// Lives on the fetch's own thread, with its own network access manager.
class FetchJob : public QObject
{
    Q_OBJECT

public:
    explicit FetchJob(FetchRequest request) : m_request(std::move(request)) {}

    void run()
    {
        if (const auto reason = insecureUrlReason(m_request.url)) {
            fail(UpdateErrorCode::InsecureLink, QStringLiteral("Veldspar refuses to download %1: %2 %3.")
                                                    .arg(m_request.what, m_request.url.toDisplayString(), *reason));
            return;
        }
        if (!m_request.destination.isEmpty()) {
            m_file.setFileName(m_request.destination);
            if (!m_file.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
                fail(m_request.failureCode, QStringLiteral("Veldspar cannot save %1 at %2: %3.")
                                                .arg(m_request.what, m_request.destination, m_file.errorString()));
                return;
            }
        }
        m_manager = new QNetworkAccessManager(this);
        m_manager->setRedirectPolicy(QNetworkRequest::UserVerifiedRedirectPolicy);
        QNetworkRequest request(m_request.url);
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
        request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
        request.setRawHeader("Cache-Control", "no-cache");
        request.setHeader(QNetworkRequest::UserAgentHeader, QByteArrayLiteral("Veldspar-Updater"));
        request.setMaximumRedirectsAllowed(10);
        m_watchdog = new QTimer(this);
        m_watchdog->setSingleShot(true);
        connect(m_watchdog, &QTimer::timeout, this, &FetchJob::timedOut);
        waitFor(Awaited::Connection);
        m_reply = m_manager->get(request);
        m_reply->setReadBufferSize(replyBufferBytes);
        connect(m_reply, &QNetworkReply::socketStartedConnecting, this, [this] { waitFor(Awaited::Connection); });
        connect(m_reply, &QNetworkReply::requestSent, this, [this] { waitFor(Awaited::Answer); });
        connect(m_reply, &QNetworkReply::metaDataChanged, this, [this] { waitFor(Awaited::Answer); });
        connect(m_reply, &QNetworkReply::redirected, this, [this](const QUrl &target) {
            if (const auto reason = insecureUrlReason(target))
                fail(UpdateErrorCode::InsecureLink,
                     QStringLiteral("Veldspar refuses to download %1: the server redirects to %2, which %3.")
                         .arg(m_request.what, target.toDisplayString(), *reason));
            else
                Q_EMIT m_reply->redirectAllowed();
        });
        connect(m_reply, &QNetworkReply::metaDataChanged, this, &FetchJob::checkAnnouncedLength);
        connect(m_reply, &QNetworkReply::readyRead, this, &FetchJob::consume);
        connect(m_reply, &QNetworkReply::finished, this, &FetchJob::complete);
    }

    void abort()
    {
        if (m_over)
            return;
        m_over = true;
        stopWaiting();
        if (m_reply)
            m_reply->abort();
        discardFile();
    }

Q_SIGNALS:
    void progressed(qint64 received, qint64 expected);
    void done(const QByteArray &body, qint64 received, const QString &contentType, const QUrl &finalUrl);
    void failed(int code, const QString &message);

private:
    enum class Awaited { Connection, Answer };

    // (Re)starts the time-out for what the fetch now waits for: any sign of life restarts it.
    void waitFor(Awaited awaited)
    {
        if (m_over)
            return;
        m_awaited = awaited;
        m_watchdog->start(awaited == Awaited::Connection ? m_request.timeouts.connect : m_request.timeouts.idle);
    }

    void stopWaiting()
    {
        if (m_watchdog)
            m_watchdog->stop();
    }

    void timedOut()
    {
        if (m_awaited == Awaited::Connection)
            fail(m_request.failureCode,
                 notDownloaded(QStringLiteral("no connection to the server within %1").arg(secondsText(m_request.timeouts.connect))));
        else
            fail(m_request.failureCode,
                 notDownloaded(QStringLiteral("the server sent nothing for %1").arg(secondsText(m_request.timeouts.idle))));
    }

    // "<What> could not be downloaded from <URL>: <reason>.", with how far it came when the
    // length is known.
    QString notDownloaded(const QString &reason) const
    {
        QString message = QStringLiteral("%1 could not be downloaded from %2: %3")
                              .arg(capitalized(m_request.what), m_request.url.toDisplayString(), reason);
        if (m_request.expectedLength >= 0)
            message += QStringLiteral(" (received %1 of %2 bytes)").arg(m_received).arg(m_request.expectedLength);
        return message + u'.';
    }

    int status() const { return m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(); }

    void checkAnnouncedLength()
    {
        if (m_over || status() < 200 || status() >= 300 || m_request.expectedLength < 0)
            return;
        bool known = false;
        const qint64 announced = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        if (known && announced != m_request.expectedLength)
            fail(UpdateErrorCode::LengthMismatch,
                 QStringLiteral("The feed states that %1 is %2 bytes long, but the server sends %3 bytes.")
                     .arg(m_request.what)
                     .arg(m_request.expectedLength)
                     .arg(announced));
    }

    void consume()
    {
        if (m_over)
            return;
        const QByteArray chunk = m_reply->readAll();
        if (!chunk.isEmpty())
            waitFor(Awaited::Answer);
        m_received += chunk.size();
        if (m_received > m_request.limit) {
            if (m_request.expectedLength >= 0)
                fail(UpdateErrorCode::LengthMismatch,
                     QStringLiteral("The feed states that %1 is %2 bytes long, but the server sends more.")
                         .arg(m_request.what)
                         .arg(m_request.expectedLength));
            else
                fail(m_request.failureCode,
                     QStringLiteral("%1 is larger than the %2 bytes Veldspar accepts.").arg(capitalized(m_request.what)).arg(m_request.limit));
            return;
        }
        if (m_file.isOpen()) {
            if (m_file.write(chunk) != chunk.size()) {
                fail(m_request.failureCode, QStringLiteral("Veldspar cannot save %1 at %2: %3.")
                                                .arg(m_request.what, m_request.destination, m_file.errorString()));
                return;
            }
        } else {
            m_body += chunk;
        }
        // Reported per chunk: QNetworkReply's own progress signal is rate-limited and may
        // stay silent while a slow server sends nothing more.
        if (!chunk.isEmpty())
            Q_EMIT progressed(m_received, expectedTotal());
    }

    qint64 expectedTotal() const
    {
        if (m_request.expectedLength >= 0)
            return m_request.expectedLength;
        bool known = false;
        const qint64 announced = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        return known ? announced : -1;
    }

    void complete()
    {
        if (m_over)
            return;
        consume();
        if (m_over)
            return;
        stopWaiting();
        if (m_reply->error() != QNetworkReply::NoError) {
            fail(m_request.failureCode, notDownloaded(m_reply->errorString()));
            return;
        }
        if (status() < 200 || status() >= 300) {
            fail(m_request.failureCode, QStringLiteral("%1 could not be downloaded from %2: the server answered %3 %4.")
                                            .arg(capitalized(m_request.what), m_request.url.toDisplayString())
                                            .arg(status())
                                            .arg(m_reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString()));
            return;
        }
        if (m_file.isOpen() && !m_file.flush()) {
            fail(m_request.failureCode, QStringLiteral("Veldspar cannot save %1 at %2: %3.")
                                            .arg(m_request.what, m_request.destination, m_file.errorString()));
            return;
        }
        m_file.close();
        m_over = true;
        Q_EMIT done(m_body, m_received, m_reply->header(QNetworkRequest::ContentTypeHeader).toString(), m_reply->url());
    }

    void fail(UpdateErrorCode code, const QString &message)
    {
        if (m_over)
            return;
        m_over = true;
        stopWaiting();
        if (m_reply) {
            m_reply->disconnect(this);
            m_reply->abort();
        }
        discardFile();
        Q_EMIT failed(int(code), message);
    }

    void discardFile()
    {
        if (m_file.isOpen()) {
            m_file.close();
            m_file.remove();
        }
    }

    static QString capitalized(QString text)
    {
        if (!text.isEmpty())
            text[0] = text.at(0).toUpper();
        return text;
    }

    FetchRequest m_request;
    QNetworkAccessManager *m_manager = nullptr;
    QNetworkReply *m_reply = nullptr;
    QTimer *m_watchdog = nullptr;
    Awaited m_awaited = Awaited::Connection;
    QFile m_file;
    QByteArray m_body;
    qint64 m_received = 0;
    bool m_over = false;
};

Fetch::Fetch(FetchRequest request, QObject *parent) : QObject(parent), m_request(std::move(request))
{
    m_thread.setObjectName(QStringLiteral("Veldspar update download"));
}

Fetch::~Fetch()
{
    stopThread();
}

void Fetch::start()
{
    if (m_job)
        return;
    m_job = new FetchJob(m_request);
    m_job->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_job, &QObject::deleteLater);
    connect(m_job, &FetchJob::progressed, this, [this](qint64 received, qint64 expected) {
        if (!m_cancelled)
            Q_EMIT progress(received, expected);
    });
    connect(m_job, &FetchJob::done, this,
            [this](const QByteArray &body, qint64 received, const QString &contentType, const QUrl &finalUrl) {
                if (m_cancelled)
                    return;
                FetchResult result;
                result.body = body;
                result.received = received;
                result.contentType = contentType;
                result.finalUrl = finalUrl;
                Q_EMIT finished(result);
            });
    connect(m_job, &FetchJob::failed, this, [this](int code, const QString &message) {
        if (m_cancelled)
            return;
        FetchResult result;
        result.error = updateError(UpdateErrorCode(code), message);
        Q_EMIT finished(result);
    });
    m_thread.start();
    QMetaObject::invokeMethod(m_job, &FetchJob::run, Qt::QueuedConnection);
}

void Fetch::cancel()
{
    m_cancelled = true;
    if (m_job)
        QMetaObject::invokeMethod(m_job, &FetchJob::abort, Qt::QueuedConnection);
}

void Fetch::stopThread()
{
    if (!m_thread.isRunning())
        return;
    // Abort first, so that a partly written file is removed before the job goes.
    QMetaObject::invokeMethod(m_job, &FetchJob::abort, Qt::BlockingQueuedConnection);
    m_thread.quit();
    m_thread.wait();
}

FetchResult fetchAndWait(const FetchRequest &request)
{
    FetchResult result;
    QEventLoop loop;
    Fetch fetch(request);
    QObject::connect(&fetch, &Fetch::finished, &loop, [&](const FetchResult &outcome) {
        result = outcome;
        loop.quit();
    });
    fetch.start();
    loop.exec();
    return result;
}

#include "Fetch.moc"
