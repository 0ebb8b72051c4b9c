#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QStringList>

#include <optional>

// A connection that held this long was a good one: its radio's trouble, if any, is over.
inline constexpr int stableConnectionMs = 10000;

// One spell of trouble of a radio. Outside FailureReport: clang cannot default-construct a
// nested class with member initialisers inside std::optional of the enclosing class.
struct FailureSpell
{
    QElapsedTimer since;
    int attempts = 0;
    QStringList reasons; // those logged, so that a reason that comes back is not news
    bool quiet = false;  // its answers are logged only once a connection holds
};

// What the log says about one radio's trouble: a line when it starts, when it has a reason not
// seen before in the same spell, and when it ends, with the number of failed attempts and how
// long it lasted; nothing at each retry. A radio that drops again soon after answering starts
// a quiet spell: its short-lived answers are not news until a connection holds for
// stableConnectionMs.
class FailureReport
{
public:
    // The radio answered its handshake and is announced every beatMs. True when that was logged.
    bool answered(const QString &label, int beatMs);
    // Its connection has now held for stableConnectionMs. True when that was logged.
    bool held(const QString &label, int beatMs);
    // An attempt failed, or the connection was lost; announced: it was announced until now,
    // for heldMs.
    void failed(const QString &label, const QString &why, bool announced, qint64 heldMs);

private:
    QString spellText() const;
    void end(const QString &line);

    std::optional<FailureSpell> m_spell;
};
