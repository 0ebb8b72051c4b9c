#include "app/AppDelegate.h"

#include "discovery/RadioAddition.h"
#include "platform/Background.h"

#include <QLineEdit>

void AppDelegate::addRadio()
{
    if (busy || refuseInexactDraft())
        return;
    QLineEdit field;
    field.setPlaceholderText(QStringLiteral("Radio IPv4 address"));
    // The placeholder goes once something is typed; a screen reader keeps the name.
    field.setAccessibleName(field.placeholderText());
    if (!dialog(QStringLiteral("Add Radio"),
                QStringLiteral("Connect your VPN and enter the radio\u2019s IP address. Its details will be read "
                               "automatically."),
                QString(), true, &field))
        return;

    // The probe judges the address; an empty or odd one fails there, with its own words.
    const QString address = field.text().trimmed();
    const QString snapshot = draft().text();
    busy = true;
    setStatus(QStringLiteral("Reading radio details from ") + address + QStringLiteral("\u2026"));

    runInBackground(
        this, [this, address] { return attempt([&] { return discover(address); }); },
        [this, address, snapshot](const Outcome<QJsonObject> &outcome) { finishAddRadio(address, snapshot, outcome); });
}

void AppDelegate::finishAddRadio(const QString &address, const QString &snapshot, const Outcome<QJsonObject> &outcome)
{
    busy = false;
    // The answer belongs to the draft the request started from; a replaced draft drops it.
    if (draft().text() != snapshot) {
        alert(QStringLiteral("The draft changed. Please discover again."));
        return;
    }
    try {
        if (outcome.error)
            throw *outcome.error;
        const std::optional<QString> added = draftWithNewRadio(snapshot, address, *outcome.value);
        if (!added) {
            alert(QStringLiteral("This radio is already in the configuration."));
            return;
        }
        draft().setText(*added);
        refreshRadios();
        save();
    } catch (const Error &error) {
        alert(error.localizedDescription());
        setStatus(QStringLiteral("Discovery failed; no entry was added."));
    }
}
