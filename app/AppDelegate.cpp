#include "app/AppDelegate.h"

#include "app/StatusLabel.h"
#include "platform/Paths.h"

#include <QMainWindow>

AppDelegate::AppDelegate() : configURL(configFilePath())
{
}

AppDelegate::~AppDelegate() = default;

Draft &AppDelegate::draft() const
{
    if (!editor)
        qFatal("The draft holder is used before start-up created it");
    return *editor;
}

const QString &AppDelegate::draftText() const
{
    return draft().text();
}

void AppDelegate::setStatus(const QString &text)
{
    if (!status)
        qFatal("The status line is used before start-up created it");
    status->setText(text);
}
