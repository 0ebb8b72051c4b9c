#pragma once

#include "updates/UpdateEngine.h"

// The engine's entry point, for programs that link the engine instead of loading it (tests
// and tools): pass it to setUpdateEngineFactory. The app itself must not refer to it, or the
// engine's libraries would load with the app.
extern "C" UpdateEngine *veldsparCreateUpdateEngine(UserDriver *driver, UpdaterDelegate *delegate,
                                                    const QString &bundlePath);
