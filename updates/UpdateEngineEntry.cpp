#include "updates/LinkedUpdateEngine.h"

#include "updates/Updater.h"

extern "C" Q_DECL_EXPORT UpdateEngine *veldsparCreateUpdateEngine(UserDriver *driver, UpdaterDelegate *delegate,
                                                                  const QString &bundlePath)
{
    return new Updater(driver, delegate, nullptr, bundlePath);
}
