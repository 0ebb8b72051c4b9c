#include "app/AfterFirstFrame.h"

#include <QEvent>
#include <QPointer>
#include <QTimer>
#include <QWidget>
#include <QWindow>

namespace {
// A window hidden or minimised at start is not waited for longer than this.
constexpr int longestWaitMs = 3000;

class FirstFrameWatch : public QObject
{
public:
    FirstFrameWatch(QWindow *window, std::function<void()> action) : QObject(window), m_action(std::move(action))
    {
        window->installEventFilter(this);
        QTimer::singleShot(longestWaitMs, this, &FirstFrameWatch::fire);
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        // The expose event paints the first frame once this filter lets it through; the action
        // waits for the next turn of the loop.
        if (event->type() == QEvent::Expose && static_cast<QWindow *>(watched)->isExposed())
            QTimer::singleShot(0, this, &FirstFrameWatch::fire);
        return false;
    }

private:
    void fire()
    {
        if (!m_action)
            return;
        std::exchange(m_action, nullptr)();
        deleteLater();
    }

    std::function<void()> m_action;
};
} // namespace

void afterFirstFrame(QWidget *window, std::function<void()> action)
{
    QWindow *handle = window->windowHandle();
    if (!handle || handle->isExposed()) {
        QTimer::singleShot(0, window, std::move(action));
        return;
    }
    new FirstFrameWatch(handle, std::move(action));
}
