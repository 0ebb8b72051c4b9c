#include "daemon/FailureReport.h"

#include "daemon/Log.h"

using namespace Qt::StringLiterals;

namespace {
// Reasons with details of their own (a network error's text) cannot make a spell log without end.
constexpr qsizetype mostReasons = 16;

QString spanText(qint64 ms)
{
    const qint64 seconds = ms / 1000;
    if (seconds < 2)
        return u"1 second"_s;
    if (seconds < 120)
        return u"%1 seconds"_s.arg(seconds);
    if (seconds < 120 * 60)
        return u"%1 minutes"_s.arg(seconds / 60);
    return u"%1 hours"_s.arg(seconds / 3600);
}
} // namespace

QString FailureReport::spellText() const
{
    return (m_spell->attempts == 1 ? u"1 failed attempt"_s : u"%1 failed attempts"_s.arg(m_spell->attempts))
           + u" over "_s + spanText(m_spell->since.elapsed());
}

void FailureReport::end(const QString &line)
{
    logLine(line);
    m_spell.reset();
}

bool FailureReport::answered(const QString &label, int beatMs)
{
    if (!m_spell)
        logLine(u"%1 answers; announcing it every %2 ms."_s.arg(label, QString::number(beatMs)));
    else if (!m_spell->quiet)
        end(u"%1 answers again after %2; announcing it every %3 ms."_s.arg(label, spellText(), QString::number(beatMs)));
    else
        return false;
    return true;
}

bool FailureReport::held(const QString &label, int beatMs)
{
    if (!m_spell)
        return false;
    end(u"%1 has held its connection for %2 seconds, after %3; announcing it every %4 ms."_s.arg(
        label, QString::number(stableConnectionMs / 1000), spellText(), QString::number(beatMs)));
    return true;
}

void FailureReport::failed(const QString &label, const QString &why, bool announced, qint64 heldMs)
{
    if (m_spell) {
        ++m_spell->attempts;
        if (m_spell->reasons.contains(why) || m_spell->reasons.size() >= mostReasons)
            return;
        m_spell->reasons << why;
        return logLine(u"%1 still does not answer, now (%2), after %3."_s.arg(label, why, spellText()));
    }
    m_spell.emplace();
    m_spell->since.start();
    m_spell->attempts = 1;
    m_spell->reasons << why;
    if (!announced)
        return logLine(u"%1 does not answer (%2); it is not announced until it does."_s.arg(label, why));
    m_spell->quiet = heldMs < stableConnectionMs;
    logLine(u"%1: it stopped answering (%2); no longer announced."_s.arg(label, why)
            + (m_spell->quiet ? u" It answered for less than %1 seconds: its drops are counted, not logged, until a "
                                u"connection holds that long."_s.arg(stableConnectionMs / 1000)
                              : QString()));
}
