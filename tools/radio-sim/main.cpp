// radio-sim: a stand-in radio for tests and benchmarks.
//   radio-sim [--listen ADDRESS] [--port N] [--count N] [--serial S] [--model M] [--name N]
//             [--callsign C] [--version V] [--mac MAC] [--no-software-ver]
//             [--max-slices N] [--max-panadapters N] [--wan 0|1] [--license-major N]
//             [--gui-client PROGRAM,STATION[,HANDLE[,JOIN_MS[,LEAVE_MS]]]]...
//             [--fault silent|close|error|garbage|slow|no-serial|long-line|flood-newlines|flood-status|flood-garbage]
//             [--delay-ms N] [--crlf]
// Defaults: 127.0.0.1, port 0 (any free one), 1 radio, FLEX-6600, 1121-1104-6700-2912,
// RemoteShack, W1AW, 3.3.32.8203, 00:1C:2D:05:1A:2B, 4 slices, 4 panadapters, no wan line,
// no licence, no GUI client, --delay-ms 1000 (only with --fault slow).
// --count N runs N radios in one process, on ports P, P+1, … from --port P (each a free one
// with --port 0); with more than one, radio i (from 0) has serial S-000i, name Ni and a MAC of
// its own.
// Each GUI client takes one slice and one panadapter. --gui-client may be repeated; one joins
// JOIN_MS after start (0: present from the start) and leaves at LEAVE_MS (never if omitted);
// without HANDLE (such as 0x7022E1CF) it gets one of its own. Every radio has the same clients.
// Standard input takes lines "join PROGRAM STATION", "join-handle 0xHHHHHHHH PROGRAM STATION"
// and "leave 0xHHHHHHHH" (the station may hold spaces).
// Prints "listening on ADDRESS:PORT" per radio once they all listen, then "connection N from
// ADDRESS", "command TEXT", "gui client 0xHHHHHHHH joined" and "... left" as they come.
#include "GuiClients.h"
#include "Simulator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QMap>

#include <cstdio>
#include <memory>
#include <sys/resource.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
int fail(const QString &message)
{
    std::fprintf(stderr, "radio-sim: %s\n", qPrintable(message));
    return 2;
}

std::optional<int> number(const QString &text, int lowest)
{
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value < lowest)
        return std::nullopt;
    return value;
}

// 00:1C:2D:05:1A:2B or 00-1C-2D-05-1A-2B as a number.
std::optional<quint64> parseMac(QString text)
{
    text.remove(u':').remove(u'-');
    bool ok = false;
    const quint64 value = text.toULongLong(&ok, 16);
    if (!ok || text.size() != 12)
        return std::nullopt;
    return value;
}

QString macText(quint64 value)
{
    QStringList bytes;
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes << u"%1"_s.arg((value >> shift) & 0xFF, 2, 16, QChar(u'0')).toUpper();
    return bytes.join(u':');
}

// A thousand radios, each with its listener and a connection or two, outgrow the usual 1024.
void allowManyFiles()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption listen(u"listen"_s, u"Address to listen on."_s, u"ADDRESS"_s, u"127.0.0.1"_s);
    const QCommandLineOption port(u"port"_s, u"TCP port (0: any free one); with --count, the first."_s, u"N"_s, u"0"_s);
    const QCommandLineOption count(u"count"_s, u"How many radios to run."_s, u"N"_s, u"1"_s);
    const QCommandLineOption serial(u"serial"_s, u"chassis_serial."_s, u"S"_s);
    const QCommandLineOption model(u"model"_s, u"model."_s, u"M"_s);
    const QCommandLineOption name(u"name"_s, u"name (nickname)."_s, u"N"_s);
    const QCommandLineOption callsign(u"callsign"_s, u"callsign."_s, u"C"_s);
    const QCommandLineOption version(u"version"_s, u"Software version."_s, u"V"_s);
    const QCommandLineOption mac(u"mac"_s, u"mac in info."_s, u"MAC"_s);
    const QCommandLineOption noSoftwareVer(u"no-software-ver"_s, u"Leave software_ver out of info."_s);
    const QCommandLineOption maxSlices(u"max-slices"_s, u"Slices (num_slice)."_s, u"N"_s, u"4"_s);
    const QCommandLineOption maxPanadapters(u"max-panadapters"_s, u"Panadapters."_s, u"N"_s, u"4"_s);
    const QCommandLineOption wan(u"wan"_s, u"Send a wan status line: connected (1) or not (0)."_s, u"0|1"_s);
    const QCommandLineOption licenseMajor(u"license-major"_s, u"Answer sub license all."_s, u"N"_s);
    const QCommandLineOption guiClient(u"gui-client"_s, u"A GUI client (repeatable)."_s,
                                       u"PROGRAM,STATION[,HANDLE[,JOIN_MS[,LEAVE_MS]]]"_s);
    const QCommandLineOption fault(u"fault"_s, u"How to misbehave."_s, u"KIND"_s);
    const QCommandLineOption delay(u"delay-ms"_s, u"Pause before each line with --fault slow."_s, u"N"_s, u"1000"_s);
    const QCommandLineOption crlf(u"crlf"_s, u"End lines with CR LF."_s);
    parser.addOptions({listen, port, count, serial, model, name, callsign, version, mac, noSoftwareVer, maxSlices,
                       maxPanadapters, wan, licenseMajor, guiClient, fault, delay, crlf});
    parser.addHelpOption();
    parser.process(application);

    Simulator::Identity identity;
    if (parser.isSet(serial))
        identity.serial = parser.value(serial);
    if (parser.isSet(model))
        identity.model = parser.value(model);
    if (parser.isSet(name))
        identity.name = parser.value(name);
    if (parser.isSet(callsign))
        identity.callsign = parser.value(callsign);
    if (parser.isSet(version))
        identity.version = parser.value(version);
    identity.softwareVerInInfo = !parser.isSet(noSoftwareVer);
    const std::optional<quint64> firstMac = parseMac(parser.isSet(mac) ? parser.value(mac) : identity.mac);
    if (!firstMac)
        return fail(u"\"%1\" is not a MAC address"_s.arg(parser.value(mac)));

    const QMap<QString, Simulator::Fault> faults{
        {u"none"_s, Simulator::Fault::None},
        {u"silent"_s, Simulator::Fault::Silent},
        {u"close"_s, Simulator::Fault::Close},
        {u"error"_s, Simulator::Fault::Error},
        {u"garbage"_s, Simulator::Fault::Garbage},
        {u"slow"_s, Simulator::Fault::Slow},
        {u"no-serial"_s, Simulator::Fault::NoSerial},
        {u"long-line"_s, Simulator::Fault::LongLine},
        {u"flood-newlines"_s, Simulator::Fault::FloodNewlines},
        {u"flood-status"_s, Simulator::Fault::FloodStatus},
        {u"flood-garbage"_s, Simulator::Fault::FloodGarbage},
    };
    const QString kind = parser.value(fault).isEmpty() ? u"none"_s : parser.value(fault);
    if (!faults.contains(kind))
        return fail(u"unknown fault \"%1\""_s.arg(kind));

    Simulator::Settings settings;
    settings.fault = faults.value(kind);
    settings.delayMs = parser.value(delay).toInt();
    settings.crlf = parser.isSet(crlf);
    const std::optional<int> slices = number(parser.value(maxSlices), 0);
    const std::optional<int> panadapters = number(parser.value(maxPanadapters), 0);
    const std::optional<int> radios = number(parser.value(count), 1);
    if (!slices || !panadapters || !radios)
        return fail(u"--max-slices, --max-panadapters and --count take a number"_s);
    settings.maxSlices = *slices;
    if (parser.isSet(wan)) {
        if (parser.value(wan) != u"0"_s && parser.value(wan) != u"1"_s)
            return fail(u"--wan takes 0 or 1"_s);
        settings.wan = parser.value(wan) == u"1"_s;
    }
    if (parser.isSet(licenseMajor)) {
        settings.licenseMajor = number(parser.value(licenseMajor), 0);
        if (!settings.licenseMajor)
            return fail(u"--license-major takes a number"_s);
    }

    GuiClients guiClients(*slices, *panadapters);
    QList<GuiClients::Scripted> script;
    for (const QString &text : parser.values(guiClient)) {
        const std::optional<GuiClients::Scripted> scripted = GuiClients::parse(text);
        if (!scripted)
            return fail(u"\"%1\" is not PROGRAM,STATION[,HANDLE[,JOIN_MS[,LEAVE_MS]]]"_s.arg(text));
        script << *scripted;
    }
    if (!guiClients.assignHandles(script))
        return fail(u"two --gui-client have the same handle"_s);

    const QHostAddress address(parser.value(listen));
    const uint firstPort = parser.value(port).toUInt();
    if (firstPort != 0 && firstPort + uint(*radios) - 1 > 65535)
        return fail(u"not enough ports from %1 for %2 radios"_s.arg(firstPort).arg(*radios));
    allowManyFiles();
    std::vector<std::unique_ptr<Simulator>> simulators;
    simulators.reserve(size_t(*radios));
    for (int i = 0; i < *radios; ++i) {
        Simulator::Identity each = identity;
        if (*radios > 1) {
            each.serial = u"%1-%2"_s.arg(identity.serial).arg(i, 4, 10, QChar(u'0'));
            each.name = identity.name + QString::number(i);
            // Vary only the device half of the address, so every radio keeps the maker's prefix.
            each.mac = macText((*firstMac & ~0xFFFFFFull) | ((*firstMac + quint64(i)) & 0xFFFFFFull));
        } else {
            each.mac = macText(*firstMac);
        }
        auto simulator = std::make_unique<Simulator>(each, settings, guiClients);
        const quint16 radioPort = quint16(firstPort == 0 ? 0 : firstPort + uint(i));
        if (!simulator->listen(address, radioPort)) {
            std::fprintf(stderr, "radio-sim: cannot listen on %s:%u\n", qPrintable(parser.value(listen)),
                         unsigned(radioPort));
            return 1;
        }
        simulators.push_back(std::move(simulator));
    }
    for (const auto &simulator : simulators)
        std::printf("listening on %s:%u\n", qPrintable(address.toString()), unsigned(simulator->port()));
    std::fflush(stdout);

    guiClients.play(script);
    guiClients.readStandardInput();
    return QCoreApplication::exec();
}
