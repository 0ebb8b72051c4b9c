#pragma once

#include <QString>

// Where every start of this user's app meets the running copy, whatever its environment says:
// the user's runtime folder /run/user/<uid>, which only the system can make, else a folder of
// the app's own, /tmp/org.kestrum.Veldspar.configure-<uid>, made here with mode 0700. A folder is
// used only when it is a real folder (no link) of this user that nobody else may enter: another
// account could have made the one in /tmp first. One that fails is named on standard error and
// passed over. Empty when neither can be used. Tests put root before both paths.
QString instanceFolder(const QString &root = QStringLiteral("/"));
