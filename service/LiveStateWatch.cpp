#include "app/AppDelegate.h"

#include "app/RadioPresentation.h"
#include "app/RadioTable.h"
#include "platform/Files.h"
#include "platform/Paths.h"
#include "platform/Process.h"

#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QLabel>
#include <QListView>
#include <QTimeZone>

void AppDelegate::watchLiveState()
{
    liveStatePath = liveStateFilePath();
    liveStateWatcher = new QFileSystemWatcher(this);
    // The service replaces the file by a rename: the folder sees it come and go, the file
    // watch sees it change.
    connect(liveStateWatcher, &QFileSystemWatcher::fileChanged, this, &AppDelegate::readLiveState);
    connect(liveStateWatcher, &QFileSystemWatcher::directoryChanged, this, &AppDelegate::readLiveState);
    readLiveState();
}

// Watches what exists now; a folder or file that appears later is taken up at the next look
// (a change in the folder, or the status monitor's tick). Says whether it watches more now.
bool AppDelegate::armLiveStateWatch()
{
    if (!liveStateWatcher)
        return false; // start-up has not got this far
    const QStringList watched = liveStateWatcher->files() + liveStateWatcher->directories();
    bool added = false;
    for (const QString &path : {QFileInfo(liveStatePath).path(), liveStatePath})
        if (!watched.contains(path) && QFileInfo::exists(path))
            added = liveStateWatcher->addPath(path) || added;
    return added;
}

void AppDelegate::readLiveState()
{
    armLiveStateWatch();
    if (!pathExists(liveStatePath)) {
        setLiveState(std::nullopt); // no service, or one that stopped cleanly
        return;
    }
    // A file that cannot be read, is too large or is not whole is not the service's word:
    // what is on screen stays as it is.
    const std::optional<QByteArray> bytes = readSmallFile(liveStatePath, largestLiveState);
    if (!bytes)
        return;
    std::optional<ServiceLiveState> read = parseLiveState(*bytes);
    if (!read)
        return;
    // A file left by a service that did not stop cleanly says nothing of now.
    setLiveState(processExists(read->pid) ? std::move(read) : std::nullopt);
}

void AppDelegate::checkLiveStateOwner()
{
    // A folder made by a service that started after the app was not watched, and the file in
    // it changes only when something does: read what is there as soon as it is seen.
    if (armLiveStateWatch())
        readLiveState();
    else if (liveState && !processExists(liveState->pid))
        setLiveState(std::nullopt);
}

void AppDelegate::setLiveState(std::optional<ServiceLiveState> state)
{
    liveState = std::move(state);
    findAnnouncements();
    static_cast<RadioListModel *>(table->model())->announcementsChanged();
    updateDetails();
}

void AppDelegate::findAnnouncements()
{
    const LiveRadioIndex index(liveState);
    const QTimeZone here = QTimeZone::systemTimeZone();
    announcements.clear();
    announcements.reserve(entries.size());
    for (const RadioEntry &entry : std::as_const(entries))
        announcements.append(announcementFor(entry, index, here));
}
