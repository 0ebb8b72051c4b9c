#pragma once

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThreadPool>

#include <utility>

// The application's own pool for blocking work. Its thread limit is high on purpose: on a
// two-core machine a probe that never ends must not starve status checks or service actions.
QThreadPool &backgroundPool();

// Runs work() on the background pool and hands its result, by value, to done() on the main
// thread. done() is dropped when the receiver has been destroyed meanwhile.
template <typename Work, typename Done>
void runInBackground(QObject *receiver, Work work, Done done)
{
    QPointer<QObject> guard(receiver);
    backgroundPool().start([guard, work = std::move(work), done = std::move(done)]() mutable {
        auto result = work();
        QMetaObject::invokeMethod(
            qApp,
            [guard, done = std::move(done), result = std::move(result)]() mutable {
                if (guard)
                    done(std::move(result));
            },
            Qt::QueuedConnection);
    });
}
