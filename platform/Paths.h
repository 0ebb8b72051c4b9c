#pragma once

#include <QString>

// ~/.local/share/Veldspar: config.json, service-action.log and the installed service.
QString supportFolder();
// The service's configuration file in the support folder.
QString configFilePath();
