#include "app/AppDelegate.h"

#include "config/Verification.h"
#include "platform/Background.h"
#include "platform/Error.h"

#include <optional>

struct AppDelegate::Verification
{
    std::optional<QByteArray> document; // the verified document, in the written form
    std::optional<Error> error;
};

void AppDelegate::save()
{
    if (busy)
        return;
    const QString snapshot = draft().text();
    busy = true;
    setStatus(QStringLiteral("Checking radio identities before saving\u2026"));

    runInBackground(
        this,
        [this, snapshot] {
            Verification result;
            try {
                result.document = verifiedDocument(snapshot, [this](const QString &address) { return discover(address); });
            } catch (const Error &error) {
                result.error = error;
            }
            return result;
        },
        [this, snapshot](const Verification &result) { finishSave(result, snapshot); });
}

void AppDelegate::finishSave(const Verification &result, const QString &snapshot)
{
    busy = false;
    // A draft replaced while the radios were probed is never overwritten, and an outdated
    // snapshot's failure is not worth reporting either.
    if (draft().text() != snapshot) {
        alert(QStringLiteral("The draft changed. Please Save again."));
        return;
    }
    if (result.document) {
        draft().setText(QString::fromUtf8(*result.document));
        refreshRadios();
        writeConfig();
        return;
    }
    reload();
    alert(QStringLiteral("Cannot save until radio details are resolved: ") + result.error->localizedDescription());
    setStatus(QStringLiteral("Not saved; existing configuration unchanged."));
}
