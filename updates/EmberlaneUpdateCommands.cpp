#include "updates/EmberlaneUpdateCommands.h"

#include "updates/EmberlaneUpdates.h"

#include <QAction>

EmberlaneUpdateCommands::EmberlaneUpdateCommands(QObject *parent)
    : EmberlaneUpdateCommands(EmberlaneUpdates::shared(), parent)
{
}

EmberlaneUpdateCommands::EmberlaneUpdateCommands(EmberlaneUpdates &updates, QObject *parent)
    : QObject(parent), updates(updates), m_check(new QAction(tr("Check for Updates\u2026"), this)),
      m_automatic(new QAction(tr("Check for Updates Automatically"), this))
{
    m_check->setEnabled(updates.canCheck());
    connect(m_check, &QAction::triggered, &updates, &EmberlaneUpdates::check);
    connect(&updates, &EmberlaneUpdates::canCheckChanged, m_check, &QAction::setEnabled);

    m_automatic->setCheckable(true);
    m_automatic->setChecked(updates.automaticChecks());
    connect(m_automatic, &QAction::triggered, &updates, &EmberlaneUpdates::setAutomaticChecks);
    connect(&updates, &EmberlaneUpdates::automaticChecksChanged, m_automatic, &QAction::setChecked);
}
