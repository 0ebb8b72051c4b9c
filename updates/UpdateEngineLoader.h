#pragma once

#include "updates/UpdateEngine.h"

// Where the update engine comes from. By default the engine library in the bundle's "lib"
// folder, loaded on the first call; a program that links the engine sets its entry instead.
void setUpdateEngineFactory(UpdateEngineFactory factory);

// The factory, loading the library when needed. Throws Error when it cannot be loaded.
UpdateEngineFactory updateEngineFactory();

// <bundle>/lib/libveldspar-updates.so
QString updateEngineLibraryPath();
