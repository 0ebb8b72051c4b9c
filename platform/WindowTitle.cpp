#include "platform/WindowTitle.h"

#include <QGuiApplication>
#include <QString>
#include <QWidget>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {
struct FreeReply
{
    void operator()(void *reply) const { std::free(reply); }
};

xcb_connection_t *x11Connection()
{
    if (QGuiApplication::platformName() != QStringLiteral("xcb"))
        return nullptr;
    auto *x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->connection() : nullptr;
}

xcb_atom_t atomNamed(xcb_connection_t *connection, const char *name)
{
    const xcb_intern_atom_cookie_t cookie = xcb_intern_atom(connection, 0, uint16_t(std::strlen(name)), name);
    const std::unique_ptr<xcb_intern_atom_reply_t, FreeReply> reply(xcb_intern_atom_reply(connection, cookie, nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}
} // namespace

void showNoWindowTitle(QWidget *window)
{
    window->setWindowTitle(QString());
    xcb_connection_t *connection = x11Connection();
    if (!connection)
        return;
    const auto id = xcb_window_t(window->winId()); // creates the native window if need be
    const xcb_atom_t netName = atomNamed(connection, "_NET_WM_NAME");
    const xcb_atom_t utf8 = atomNamed(connection, "UTF8_STRING");
    if (netName != XCB_ATOM_NONE && utf8 != XCB_ATOM_NONE)
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, netName, utf8, 8, 0, "");
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 0, "");
    xcb_flush(connection);
}

QString windowSystemTitle(QWidget *window)
{
    xcb_connection_t *connection = x11Connection();
    if (!connection)
        return {};
    const xcb_atom_t netName = atomNamed(connection, "_NET_WM_NAME");
    const xcb_atom_t utf8 = atomNamed(connection, "UTF8_STRING");
    // A title is short; 4 KiB of it is plenty and bounds the read.
    const xcb_get_property_cookie_t cookie =
        xcb_get_property(connection, 0, xcb_window_t(window->winId()), netName, utf8, 0, 1024);
    const std::unique_ptr<xcb_get_property_reply_t, FreeReply> reply(
        xcb_get_property_reply(connection, cookie, nullptr));
    if (!reply)
        return {};
    const int length = xcb_get_property_value_length(reply.get());
    return QString::fromUtf8(static_cast<const char *>(xcb_get_property_value(reply.get())), length);
}
