// The service executable's command line, as systemd, the app or a user types it: any list of
// arguments gives a mode or a problem, and what was understood, written out again as
// arguments, is understood the same way. Each --broadcast or --discover text goes through the
// endpoint parser, checked on its own as well.

#include "FuzzSupport.h"

#include "daemon/Endpoint.h"
#include "daemon/Options.h"

#include <QStringList>

namespace {
QString describe(const QStringList &arguments)
{
    return QStringLiteral("[\"") + arguments.join(QStringLiteral("\", \"")) + QStringLiteral("\"]");
}

// The arguments that say exactly what the options hold; "--name=value" keeps a value that
// starts with a dash a value.
QStringList argumentsFor(const Options &options)
{
    QStringList arguments{QStringLiteral("Veldspar")};
    switch (options.mode) {
    case Options::Mode::Help:
        return arguments << QStringLiteral("--help");
    case Options::Mode::Discover:
        arguments << QStringLiteral("--discover=") + options.address;
        break;
    case Options::Mode::Import:
        arguments << QStringLiteral("--config=") + options.configPath
                  << QStringLiteral("--import=") + options.importFile;
        break;
    case Options::Mode::Service:
        arguments << QStringLiteral("--config=") + options.configPath;
        for (const Destination &destination : options.broadcast)
            arguments << QStringLiteral("--broadcast=") + destination.text();
        break;
    case Options::Mode::Invalid:
        break;
    }
    if (options.checkPeriodMs != 0)
        arguments << QStringLiteral("--check-period-ms=") + QString::number(options.checkPeriodMs);
    return arguments;
}

bool sameOptions(const Options &a, const Options &b)
{
    return a.mode == b.mode && a.address == b.address && a.configPath == b.configPath && a.importFile == b.importFile
           && a.broadcast == b.broadcast && a.checkPeriodMs == b.checkPeriodMs;
}

void checkEndpoint(const QString &text)
{
    const std::optional<Endpoint> endpoint = parseEndpoint(text);
    if (!endpoint)
        return;
    expectThat(!endpoint->host.isEmpty() && endpoint->port >= 1, "an endpoint has a host and a port from 1",
               [&] { return QString(text); });
    if (!text.contains(u':'))
        expectThat(endpoint->host == text && endpoint->port == radioPort, "a bare host keeps the radios' port",
                   [&] { return QString(text); });
    // Written out and read again, it is the same endpoint.
    if (!endpoint->host.contains(u':')) {
        const std::optional<Endpoint> again = parseEndpoint(endpoint->text());
        expectThat(again && again->host == endpoint->host && again->port == endpoint->port,
                   "an endpoint reads back from its own text",
                   [&] { return QString(text + QStringLiteral(" -> ") + endpoint->text()); });
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // One argument per NUL-separated part, as the kernel hands them over.
    QStringList arguments{QStringLiteral("Veldspar")};
    for (const QByteArray &part : fuzzBytes(data, size).split('\0'))
        arguments << QString::fromUtf8(part);
    if (size == 0)
        arguments.removeLast();

    for (qsizetype i = 1; i < arguments.size(); ++i)
        checkEndpoint(arguments.at(i));

    const Options options = parseOptions(arguments);
    const bool invalid = options.mode == Options::Mode::Invalid;
    expectThat(invalid == !options.problem.isEmpty(), "a command line is refused exactly when a problem is named",
               [&] { return QString(describe(arguments) + QStringLiteral(" -> ") + options.problem); });
    expect(!options.help.isEmpty(), "the help text is always there");
    expectThat(options.checkPeriodMs == 0
                   || (options.checkPeriodMs >= shortestCheckPeriodMs && options.checkPeriodMs <= longestCheckPeriodMs),
               "a check period is within its range", [&] { return QString(describe(arguments)); });
    for (const Destination &destination : options.broadcast)
        expectThat(destination.address.protocol() == QAbstractSocket::IPv4Protocol && destination.port >= 1,
                   "a broadcast destination is an IPv4 address and a port",
                   [&] { return QString(describe(arguments)); });
    if (options.mode == Options::Mode::Discover)
        expectThat(options.configPath.isEmpty() && options.importFile.isEmpty() && options.broadcast.isEmpty(),
                   "--discover is used alone", [&] { return QString(describe(arguments)); });
    if (options.mode == Options::Mode::Import)
        expectThat(options.broadcast.isEmpty(), "an import broadcasts nothing",
                   [&] { return QString(describe(arguments)); });
    if (invalid)
        return 0;

    const QStringList again = argumentsFor(options);
    const Options reread = parseOptions(again);
    expectThat(sameOptions(options, reread), "what was understood, written out, is understood the same way", [&] {
        return QString(describe(arguments) + QStringLiteral(" -> ") + describe(again) + QStringLiteral(" -> ")
                       + reread.problem);
    });
    return 0;
}
