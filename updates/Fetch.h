#pragma once

#include "platform/Error.h"
#include "updates/UpdateErrors.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QThread>
#include <QUrl>

#include <chrono>
#include <optional>

// Why the updater will not fetch from this URL ("is plain http; …", to follow the URL in a
// sentence), or nothing: only https is accepted, and plain http for loopback hosts
// (127.0.0.0/8, ::1, localhost), which is what tests serve from.
std::optional<QString> insecureUrlReason(const QUrl &url);

// How long a fetch waits for a server before it gives up: for the connection (and the request
// to be sent over it), and then for every next byte of the answer.
struct FetchTimeouts
{
    std::chrono::milliseconds connect{30000};
    std::chrono::milliseconds idle{30000};
};

// The time-outs fetches take, and a way for tests to shorten them; nothing restores the real
// ones. A fetch keeps the time-outs it was requested with.
FetchTimeouts fetchTimeouts();
void setFetchTimeoutsForTesting(std::optional<FetchTimeouts> timeouts);

struct FetchRequest
{
    QUrl url;
    QString what;             // names the download in messages: "the update feed"
    QString destination;      // a new file to write, readable by its owner only; empty: keep the body in memory
    qint64 limit = 16 << 20;  // more bytes than this fail the fetch
    qint64 expectedLength = -1; // when known: a server announcing another length is refused
    UpdateErrorCode failureCode = UpdateErrorCode::DownloadFailed;
    FetchTimeouts timeouts = fetchTimeouts();
};

struct FetchResult
{
    std::optional<Error> error;
    QByteArray body; // when no destination was given
    qint64 received = 0;
    QString contentType;
    QUrl finalUrl; // after redirects
};

class FetchJob;

// One HTTP GET on a thread of its own, so that a slow server never blocks the interface.
// Caches are bypassed; redirects are followed only to acceptable URLs. A server that takes
// longer than the time-outs to connect, or to send the next byte, fails the fetch. Signals arrive on the
// thread that created the Fetch. Destroying it cancels the transfer.
class Fetch : public QObject
{
    Q_OBJECT

public:
    explicit Fetch(FetchRequest request, QObject *parent = nullptr);
    ~Fetch() override;

    void start();
    // Stops the transfer; finished() is not emitted afterwards.
    void cancel();
    const FetchRequest &request() const { return m_request; }

Q_SIGNALS:
    void progress(qint64 received, qint64 expected);
    void finished(const FetchResult &result);

private:
    void stopThread();
    FetchRequest m_request;
    QThread m_thread;
    FetchJob *m_job = nullptr;
    bool m_cancelled = false;
};

// Runs a fetch to its end in a local event loop: for command-line tools only.
FetchResult fetchAndWait(const FetchRequest &request);
