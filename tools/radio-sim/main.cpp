// radio-sim: a stand-in radio for tests and benchmarks.
//   radio-sim [--listen ADDRESS] [--port N] [--serial S] [--model M] [--name N] [--callsign C]
//             [--version V] [--no-software-ver] [--fault silent|close|error|garbage|slow|no-serial]
//             [--delay-ms N] [--crlf]
// Prints "listening on ADDRESS:PORT" once it listens (port 0 picks a free one), then
// "connection N from ADDRESS" and "command TEXT" as they come.
#include "Simulator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QMap>

#include <cstdio>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption listen(u"listen"_s, u"Address to listen on."_s, u"ADDRESS"_s, u"127.0.0.1"_s);
    const QCommandLineOption port(u"port"_s, u"TCP port (0: any free one)."_s, u"N"_s, u"0"_s);
    const QCommandLineOption serial(u"serial"_s, u"chassis_serial."_s, u"S"_s);
    const QCommandLineOption model(u"model"_s, u"model."_s, u"M"_s);
    const QCommandLineOption name(u"name"_s, u"name (nickname)."_s, u"N"_s);
    const QCommandLineOption callsign(u"callsign"_s, u"callsign."_s, u"C"_s);
    const QCommandLineOption version(u"version"_s, u"Software version."_s, u"V"_s);
    const QCommandLineOption noSoftwareVer(u"no-software-ver"_s, u"Leave software_ver out of info."_s);
    const QCommandLineOption fault(u"fault"_s, u"How to misbehave."_s, u"KIND"_s);
    const QCommandLineOption delay(u"delay-ms"_s, u"Pause before each line with --fault slow."_s, u"N"_s, u"1000"_s);
    const QCommandLineOption crlf(u"crlf"_s, u"End lines with CR LF."_s);
    parser.addOptions({listen, port, serial, model, name, callsign, version, noSoftwareVer, fault, delay, crlf});
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

    const QMap<QString, Simulator::Fault> faults{
        {u"none"_s, Simulator::Fault::None},       {u"silent"_s, Simulator::Fault::Silent},
        {u"close"_s, Simulator::Fault::Close},     {u"error"_s, Simulator::Fault::Error},
        {u"garbage"_s, Simulator::Fault::Garbage}, {u"slow"_s, Simulator::Fault::Slow},
        {u"no-serial"_s, Simulator::Fault::NoSerial},
    };
    const QString kind = parser.value(fault).isEmpty() ? u"none"_s : parser.value(fault);
    if (!faults.contains(kind)) {
        std::fprintf(stderr, "radio-sim: unknown fault \"%s\"\n", qPrintable(kind));
        return 2;
    }

    Simulator simulator(identity, faults.value(kind), parser.value(delay).toInt(), parser.isSet(crlf));
    const QHostAddress address(parser.value(listen));
    if (!simulator.listen(address, quint16(parser.value(port).toUInt()))) {
        std::fprintf(stderr, "radio-sim: cannot listen on %s:%s\n", qPrintable(parser.value(listen)),
                     qPrintable(parser.value(port)));
        return 1;
    }
    std::printf("listening on %s:%u\n", qPrintable(address.toString()), unsigned(simulator.port()));
    std::fflush(stdout);
    return QCoreApplication::exec();
}
