#include "updates/UpdateEngineLoader.h"

#include "platform/Bundle.h"
#include "platform/Error.h"
#include "updates/EmberlaneUpdates.h"

#include <QLibrary>

namespace {
UpdateEngineFactory chosenFactory = nullptr;

Error cannotLoad(const QLibrary &library)
{
    return Error(EmberlaneUpdates::errorDomain, 2,
                 {{Error::descriptionKey, QStringLiteral("The update engine cannot be loaded: ") + library.errorString()}});
}
} // namespace

void setUpdateEngineFactory(UpdateEngineFactory factory)
{
    chosenFactory = factory;
}

QString updateEngineLibraryPath()
{
    return bundleLocation() + QStringLiteral("/lib/libveldspar-updates.so");
}

UpdateEngineFactory updateEngineFactory()
{
    if (chosenFactory)
        return chosenFactory;
    // Every symbol is bound at load, so a library that does not fit this app fails here and
    // not in the middle of an update.
    QLibrary library(updateEngineLibraryPath());
    library.setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!library.load())
        throw cannotLoad(library);
    // The library stays loaded for the life of the process: the engine it made lives as long.
    chosenFactory = reinterpret_cast<UpdateEngineFactory>(library.resolve(VELDSPAR_UPDATE_ENGINE_ENTRY));
    if (!chosenFactory)
        throw cannotLoad(library);
    return chosenFactory;
}
