#include "daemon/Options.h"

#include "daemon/Endpoint.h"

#include <QCommandLineParser>
#include <QHostAddress>

#include <algorithm>
#include <optional>

using namespace Qt::StringLiterals;

namespace {
// Plain decimal digits only, read wide enough that no value wraps before it is compared.
std::optional<int> numberWithin(const QString &text, int lowest, int highest)
{
    const bool digitsOnly = !text.isEmpty() && text.size() <= 10
                            && std::all_of(text.begin(), text.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
    const qint64 value = digitsOnly ? text.toLongLong() : -1;
    if (value < lowest || value > highest)
        return std::nullopt;
    return int(value);
}
} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Veldspar makes remote FlexRadio radios discoverable on the local network.\n\n"
        u"  Veldspar --discover ADDRESS[:PORT]       print the radio at ADDRESS as one JSON line\n"
        u"  Veldspar --config PATH --import FILE     check FILE, back up PATH, replace PATH with FILE\n"
        u"  Veldspar --config PATH [--broadcast ADDRESS[:PORT]]...\n"
        u"                                           announce the enabled radios of PATH"_s);
    const QCommandLineOption discover(u"discover"_s, u"Identify the radio at ADDRESS (port 4992 unless given)."_s,
                                      u"ADDRESS"_s);
    const QCommandLineOption config(u"config"_s, u"The configuration file."_s, u"PATH"_s);
    const QCommandLineOption import(u"import"_s, u"Replace the configuration with FILE."_s, u"FILE"_s);
    const QCommandLineOption broadcast(u"broadcast"_s,
                                       u"Send beacons to ADDRESS (port 4992 unless given) instead of on every "
                                       u"local network. Repeatable."_s,
                                       u"ADDRESS"_s);
    QCommandLineOption checkPeriod(u"check-period-ms"_s, u"How often each radio must answer on its held connection."_s, u"MS"_s);
    checkPeriod.setFlags(QCommandLineOption::HiddenFromHelp);
    const QCommandLineOption help(u"help"_s, u"Show this help."_s);
    parser.addOptions({discover, config, import, broadcast, checkPeriod, help});

    Options options;
    options.help = parser.helpText();
    const auto invalid = [&](const QString &problem) {
        options.mode = Options::Mode::Invalid;
        options.problem = problem;
        return options;
    };
    if (!parser.parse(arguments))
        return invalid(parser.errorText());
    if (parser.isSet(help)) {
        options.mode = Options::Mode::Help;
        return options;
    }
    if (!parser.positionalArguments().isEmpty())
        return invalid(u"Unexpected argument \"%1\"."_s.arg(parser.positionalArguments().first()));
    for (const QCommandLineOption &single : {discover, config, import, checkPeriod})
        if (parser.values(single).size() > 1)
            return invalid(u"--%1 is given more than once."_s.arg(single.names().first()));

    for (const QString &text : parser.values(broadcast)) {
        const std::optional<Endpoint> endpoint = parseEndpoint(text);
        const QHostAddress address(endpoint ? endpoint->host : QString());
        if (!endpoint || address.protocol() != QAbstractSocket::IPv4Protocol)
            return invalid(u"--broadcast needs an IPv4 address, optionally with \":PORT\" (PORT from 1 to 65535); "
                           u"\"%1\" is not one."_s.arg(text));
        options.broadcast.append({address, endpoint->port});
    }
    if (parser.isSet(checkPeriod)) {
        const std::optional<int> period = numberWithin(parser.value(checkPeriod), shortestCheckPeriodMs, longestCheckPeriodMs);
        if (!period)
            return invalid(u"--check-period-ms needs a whole number of milliseconds from %1 to %2; \"%3\" is not one."_s.arg(
                QString::number(shortestCheckPeriodMs), QString::number(longestCheckPeriodMs), parser.value(checkPeriod)));
        options.checkPeriodMs = *period;
    }

    if (parser.isSet(discover)) {
        if (parser.isSet(config) || parser.isSet(import) || parser.isSet(broadcast))
            return invalid(u"--discover is used alone."_s);
        options.mode = Options::Mode::Discover;
        options.address = parser.value(discover);
        return options;
    }
    if (!parser.isSet(config))
        return invalid(u"Give --discover ADDRESS, or --config PATH."_s);
    options.configPath = parser.value(config);
    if (parser.isSet(import)) {
        if (parser.isSet(broadcast))
            return invalid(u"--broadcast belongs to the service, not to --import."_s);
        options.mode = Options::Mode::Import;
        options.importFile = parser.value(import);
        return options;
    }
    options.mode = Options::Mode::Service;
    return options;
}
