// systemd's answer to ListUnitsByNames, as the app decodes it: a real D-Bus round trip over a
// private socket to a stand-in manager in this process, which answers whatever the input
// says (units of any names and states, the wrong types, errors). Each label asked about gets
// exactly one answer, that of the unit listed under its name when there is one, and an
// answer of another shape leaves every label unavailable.

#include "FuzzSupport.h"

#include "platform/UserManager.h"
#include "service/ServiceStatus.h"
#include "service/SystemdUnits.h"
#include "tests/fakes/ListedUnit.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <fuzzer/FuzzedDataProvider.h>

#include <functional>
#include <memory>
#include <type_traits>

namespace {
using Unit = ListedUnit<QString, QDBusObjectPath>;
using UnitWithTextPath = ListedUnit<QString, QString>;
using UnitWithNumbers = ListedUnit<int, QDBusObjectPath>;

// Answers the next call with the reply the input asked for.
class StandInManager : public QDBusVirtualObject
{
public:
    std::function<QDBusMessage(const QDBusMessage &)> answer;

    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        connection.send(answer(message));
        return true;
    }
};

struct World
{
    std::unique_ptr<QDBusServer> server;
    StandInManager manager;
    QList<QDBusConnection> peers; // the manager's ends of the connections
    QDBusConnection client{QString()};
};

World *world = nullptr;

// Text as systemd sends it: UTF-8 without NUL.
QString textFrom(FuzzedDataProvider &input, std::size_t longest)
{
    const std::string bytes = input.ConsumeRandomLengthString(longest);
    return QString::fromUtf8(bytes.data(), qsizetype(bytes.size())).remove(QChar(0));
}

QString stateFrom(FuzzedDataProvider &input)
{
    static const QStringList known = {
        QStringLiteral("loaded"),       QStringLiteral("not-found"),
        QStringLiteral("masked"),       QStringLiteral("error"),
        QStringLiteral("active"),       QStringLiteral("inactive"),
        QStringLiteral("failed"),       QStringLiteral("activating"),
        QStringLiteral("deactivating"), QStringLiteral("reloading"),
        QStringLiteral("refreshing"),   QStringLiteral("maintenance"),
        QStringLiteral("running"),      QStringLiteral("dead"),
        QStringLiteral("exited"),       QString(),
    };
    if (input.ConsumeBool())
        return known.at(input.ConsumeIntegralInRange<qsizetype>(0, known.size() - 1));
    return textFrom(input, 24);
}

QString nameFrom(FuzzedDataProvider &input)
{
    if (input.ConsumeBool())
        return serviceLabels().at(input.ConsumeIntegralInRange<qsizetype>(0, serviceLabels().size() - 1));
    return textFrom(input, 40);
}

// An object path D-Bus accepts: elements of letters, digits and underscores.
QString objectPathFrom(FuzzedDataProvider &input)
{
    static const char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    const std::string bytes = input.ConsumeRandomLengthString(24);
    if (bytes.empty())
        return QStringLiteral("/");
    QString path = QStringLiteral("/org/freedesktop/systemd1/unit/");
    for (const char c : bytes)
        path += QLatin1Char(c == '/' ? '/' : allowed[static_cast<unsigned char>(c) % (sizeof(allowed) - 1)]);
    while (path.endsWith(u'/') || path.contains(QStringLiteral("//")))
        path = path.endsWith(u'/') ? path.chopped(1) : path.replace(QStringLiteral("//"), QStringLiteral("/_/"));
    return path;
}

template <typename State, typename Path> ListedUnit<State, Path> unitFrom(FuzzedDataProvider &input)
{
    ListedUnit<State, Path> unit;
    unit.name = nameFrom(input);
    unit.description = textFrom(input, 16);
    if constexpr (std::is_same_v<State, int>) {
        unit.load = input.ConsumeIntegral<int>();
        unit.active = input.ConsumeIntegral<int>();
        unit.sub = input.ConsumeIntegral<int>();
    } else {
        unit.load = stateFrom(input);
        unit.active = stateFrom(input);
        unit.sub = stateFrom(input);
    }
    unit.followed = textFrom(input, 8);
    unit.object = Path(objectPathFrom(input));
    unit.jobId = input.ConsumeIntegral<uint>();
    unit.jobType = textFrom(input, 8);
    return unit;
}

template <typename State, typename Path> QList<ListedUnit<State, Path>> unitsFrom(FuzzedDataProvider &input)
{
    QList<ListedUnit<State, Path>> units;
    const int count = input.ConsumeIntegralInRange<int>(0, 6);
    for (int i = 0; i < count; ++i)
        units << unitFrom<State, Path>(input);
    return units;
}

void startWorld()
{
    static int argc = 1;
    static char name[] = "fuzz_systemd_replies";
    static char *argv[] = {name, nullptr};
    new QCoreApplication(argc, argv);
    qDBusRegisterMetaType<Unit>();
    qDBusRegisterMetaType<QList<Unit>>();
    qDBusRegisterMetaType<UnitWithTextPath>();
    qDBusRegisterMetaType<QList<UnitWithTextPath>>();
    qDBusRegisterMetaType<UnitWithNumbers>();
    qDBusRegisterMetaType<QList<UnitWithNumbers>>();

    world = new World;
    world->server = std::make_unique<QDBusServer>(QStringLiteral("unix:tmpdir=/tmp"));
    if (!world->server->isConnected())
        propertyBroken("the stand-in manager listens", world->server->lastError().message());
    world->server->setAnonymousAuthenticationAllowed(true);
    QObject::connect(world->server.get(), &QDBusServer::newConnection, [](const QDBusConnection &peer) {
        world->peers << peer;
        QDBusConnection(peer).registerVirtualObject(QStringLiteral("/org/freedesktop/systemd1"), &world->manager,
                                                    QDBusConnection::SubPath);
    });
    world->client = QDBusConnection::connectToPeer(world->server->address(), QStringLiteral("fuzz-user-manager"));
    const QDeadlineTimer deadline(10000);
    while (world->peers.isEmpty() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    if (!world->client.isConnected() || world->peers.isEmpty())
        propertyBroken("the app reaches the stand-in manager", world->client.lastError().message());
}

struct Expected
{
    bool listed = false; // whether the answer has the shape of a list of units
    QList<Unit> units;
};

QList<UnitAnswer> ask(const QStringList &labels)
{
    QList<UnitAnswer> answers;
    bool answered = false;
    QObject context;
    QEventLoop loop;
    askSystemdAboutUnitsLater(world->client, labels, &context, [&](const QList<UnitAnswer> &got) {
        answers = got;
        answered = true;
        loop.quit();
    });
    // The call's own time-out ends it; this only keeps a broken harness from waiting for ever.
    QTimer::singleShot(3 * userManagerCallTimeoutMs, &loop, &QEventLoop::quit);
    if (!answered)
        loop.exec();
    expect(answered, "every question gets its answer within the call's time-out");
    return answers;
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    startWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    Expected expected;
    const int shape = input.ConsumeIntegralInRange<int>(0, 5);
    switch (shape) {
    case 0:
    case 1:
        expected.listed = true;
        expected.units = unitsFrom<QString, QDBusObjectPath>(input);
        world->manager.answer = [units = expected.units](const QDBusMessage &call) {
            return call.createReply(QVariant::fromValue(units));
        };
        break;
    case 2: {
        const QList<UnitWithTextPath> units = unitsFrom<QString, QString>(input);
        world->manager.answer
            = [units](const QDBusMessage &call) { return call.createReply(QVariant::fromValue(units)); };
        break;
    }
    case 3: {
        const QList<UnitWithNumbers> units = unitsFrom<int, QDBusObjectPath>(input);
        world->manager.answer
            = [units](const QDBusMessage &call) { return call.createReply(QVariant::fromValue(units)); };
        break;
    }
    case 4: {
        // A list of units with something after it.
        const QList<Unit> units = unitsFrom<QString, QDBusObjectPath>(input);
        const QString extra = textFrom(input, 16);
        world->manager.answer = [units, extra](const QDBusMessage &call) {
            return call.createReply(QVariantList{QVariant::fromValue(units), extra});
        };
        break;
    }
    default: {
        static const QStringList errors = {
            QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
            QStringLiteral("org.freedesktop.systemd1.NoSuchUnit"),
            QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
        };
        const QString error = errors.at(input.ConsumeIntegralInRange<qsizetype>(0, errors.size() - 1));
        const QString text = textFrom(input, 40);
        world->manager.answer = [error, text](const QDBusMessage &call) { return call.createErrorReply(error, text); };
        break;
    }
    }

    const QStringList labels = serviceLabels();
    const QList<UnitAnswer> answers = ask(labels);
    expectThat(answers.size() == labels.size(), "every label gets one answer",
               [&] { return QString(QString::number(answers.size())); });
    for (qsizetype i = 0; i < labels.size(); ++i) {
        UnitAnswer wanted; // unavailable, unless the answer lists the unit
        for (const Unit &unit : std::as_const(expected.units)) {
            if (unit.name != labels.at(i))
                continue;
            const QVariantMap states = {{QStringLiteral("LoadState"), unit.load},
                                        {QStringLiteral("ActiveState"), unit.active},
                                        {QStringLiteral("SubState"), unit.sub}};
            wanted = UnitAnswer{unitStateFromProperties(states), unit.object.path()}; // the last listing counts
        }
        const UnitAnswer &got = answers.at(i);
        expectThat(got.state == wanted.state && got.object == wanted.object,
                   "each label gets the answer listed under its name, and only that", [&] {
                       return QString(QStringLiteral("%1: state %2, object %3; expected state %4, object %5 (shape %6)")
                                          .arg(labels.at(i))
                                          .arg(int(got.state))
                                          .arg(got.object)
                                          .arg(int(wanted.state))
                                          .arg(wanted.object)
                                          .arg(shape));
                   });
        if (got.state == UnitState::Running)
            expect(expected.listed, "only a list of units says a unit runs");
    }
    return 0;
}
