#include "app/AppDelegate.h"

#include "config/ExactValues.h"
#include "config/Verification.h"
#include "platform/Background.h"
#include "platform/Outcome.h"

void AppDelegate::save()
{
    if (busy || refuseInexactDraft())
        return;
    const QString snapshot = draft().text();
    busy = true;
    setStatus(QStringLiteral("Checking radio identities before saving\u2026"));

    runInBackground(
        this,
        [this, snapshot] {
            return attempt([&] {
                return verifiedDocument(snapshot, [this](const QString &address) { return discover(address); });
            });
        },
        [this, snapshot](const Outcome<QByteArray> &result) { finishSave(result, snapshot); });
}

void AppDelegate::finishSave(const Outcome<QByteArray> &result, const QString &snapshot)
{
    busy = false;
    // A draft replaced while the radios were probed is never overwritten, and an outdated
    // snapshot's failure is not worth reporting either.
    if (draft().text() != snapshot) {
        alert(QStringLiteral("The draft changed. Please Save again."));
        return;
    }
    if (result.value) {
        draft().setText(QString::fromUtf8(*result.value));
        refreshRadios();
        writeConfig();
        return;
    }
    reload();
    alert(QStringLiteral("Cannot save until radio details are resolved: ") + result.error->localizedDescription());
    setStatus(QStringLiteral("Not saved; existing configuration unchanged."));
}

bool AppDelegate::refuseInexactDraft()
{
    // Saving reads and writes the whole document again, which would change such a value.
    const std::optional<InexactValue> inexact = firstInexactValue(draft().text());
    if (!inexact)
        return false;
    reload();
    alert(inexactValueMessage(*inexact));
    setStatus(QStringLiteral("Not saved; existing configuration unchanged."));
    return true;
}
