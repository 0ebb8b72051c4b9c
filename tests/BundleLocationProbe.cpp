// Prints the bundle location as the app derives it at start-up. Tests copy it into a bundle
// and start it through links, relative paths and PATH.
#include "platform/Bundle.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QByteArray location = QFile::encodeName(bundleLocation());
    std::fwrite(location.constData(), 1, size_t(location.size()), stdout);
    return 0;
}
