#pragma once

// The state of one update session, shared by the updater's source files.

#include "updates/Appcast.h"
#include "updates/BundleSwap.h"
#include "updates/Fetch.h"
#include "updates/Updater.h"

#include <QMetaObject>
#include <QPointer>

#include <memory>

// A fetch may end the session from inside its own signal, so it is never deleted there.
struct DeleteFetchLater
{
    void operator()(Fetch *fetch) const
    {
        fetch->cancel();
        fetch->deleteLater();
    }
};
using FetchHandle = std::unique_ptr<Fetch, DeleteFetchLater>;

struct UpdateSession
{
    enum class Stage {
        Checking,       // fetching the feed
        Offered,        // "update found" waits for the user
        Downloading,
        Unpacking,      // verifying, unpacking and validating
        ReadyToInstall, // staged; "Ready to Install" is up, or the user said Later
        Postponed,      // the delegate holds the relaunch
        Installing,
    };

    UpdateSession(CheckKind kind, quint64 serial) : kind(kind), serial(serial) {}
    ~UpdateSession()
    {
        // Deleting fetches directly is safe here: the updater is going, not one of its slots.
        if (deleteFetchesNow) {
            delete feedFetch.release();
            delete notesFetch.release();
            delete download.release();
        }
    }

    CheckKind kind;
    quint64 serial;
    Stage stage = Stage::Checking;
    bool promptOpen = false;   // a window waits for the user's answer
    bool userEngaged = false;  // the user chose to install: failures are shown from now on
    bool askedToPostpone = false;
    bool deleteFetchesNow = false;
    std::optional<AppcastItem> item;
    FetchHandle feedFetch;
    FetchHandle notesFetch;
    FetchHandle download;
    std::shared_ptr<StagingFolder> staging;
    QString stagedBundle;
};

// A reply function for the user driver: queued to the updater, counted once, and dropped
// when another prompt has been shown since or the updater is gone.
template <typename... Args>
std::function<void(Args...)> Updater::replyTo(void (Updater::*handler)(Args...))
{
    QPointer<Updater> self(this);
    const quint64 serial = ++m_promptSerial;
    auto used = std::make_shared<bool>(false);
    return [self, serial, used, handler](Args... args) {
        if (*used || !self)
            return;
        *used = true;
        QMetaObject::invokeMethod(
            self.data(),
            [self, serial, handler, args...] {
                if (self && self->m_promptSerial == serial)
                    (self.data()->*handler)(args...);
            },
            Qt::QueuedConnection);
    };
}
