#pragma once

#include <QByteArray>
#include <QString>

// A new version of the file at path, written and synced to a hidden temporary file in the same
// folder (".<name>.XXXXXX") but not yet in place. commit() renames it over path, so a reader
// sees either the old or the whole new file, and syncs the folder so the new one survives a
// power cut; until then path is untouched, and a PendingFile dropped uncommitted removes its
// temporary file. The new file is readable by the user alone (0600), whatever the umask and
// whatever the mode of the file it replaces. The constructor creates the folder when it is
// missing. Both throw Failure.
class PendingFile
{
public:
    PendingFile(const QString &path, const QByteArray &bytes);
    ~PendingFile();
    PendingFile(const PendingFile &) = delete;
    PendingFile &operator=(const PendingFile &) = delete;

    void commit();

private:
    QString m_path;
    QByteArray m_target;
    QByteArray m_temporary;
    bool m_committed = false;
};

// Both steps of PendingFile at once. (Named apart from platform/'s writeFileAtomically, which
// throws Error: programs that link both must tell them apart.)
void replaceFileAtomically(const QString &path, const QByteArray &bytes);

// Removes, from folder, the temporary files that a PendingFile killed before it finished
// leaves behind: hidden regular files ".<name>.XXXXXX" whose <name> matches finalName, a
// regular expression without anchors. Only safe while no other writer of those files is at work.
void removeLeftoverTemporaries(const QString &folder, const QString &finalName);
