#include "updates/UpdateErrors.h"

const QString updateErrorDomain = QStringLiteral("org.kestrum.Veldspar.updates");

Error updateError(UpdateErrorCode code, const QString &message)
{
    return Error(updateErrorDomain, int(code), {{Error::descriptionKey, message}});
}
