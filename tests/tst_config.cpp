#include "TestSupport.h"
#include "Privileges.h"

#include "app/AppDelegate.h"
#include "app/ServiceButton.h"
#include "config/ConfigFile.h"
#include "config/ExactValues.h"
#include "config/Verification.h"
#include "platform/Error.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QMainWindow>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>
#include <memory>
#include <optional>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {
const QString checking = QStringLiteral("Checking radio identities before saving\u2026");
const QString saved = QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically.");
const QString loaded = QStringLiteral("Configuration loaded");
const QString noRadios = QStringLiteral("No radios configured");
const QString notSaved = QStringLiteral("Not saved; existing configuration unchanged.");
const QString cannotSave = QStringLiteral("Cannot save until radio details are resolved: ");
const QString addFirstTip = QStringLiteral("Add or import a radio before enabling the service.");
const QString placeholder = QStringLiteral("0000-0000-0000-0000");

// The document the app starts from when there is nothing usable on disk, as written.
const QByteArray emptyDocumentText = "{\n"
                                     "    \"broadcastIntervalMs\": 3000,\n"
                                     "    \"radios\": [\n"
                                     "    ]\n"
                                     "}\n";

// How an error made of a message alone reads in a dialog.
QString messageText(const QString &message)
{
    return QStringLiteral("The operation couldn\u2019t be completed. (") + message + QStringLiteral(" error 1.)");
}

QList<QStringList> importCalls(const TestWorld &world)
{
    QList<QStringList> result;
    for (const QStringList &call : world.calls())
        if (call.size() == 4 && call.at(0) == QStringLiteral("--config") && call.at(2) == QStringLiteral("--import"))
            result << call;
    return result;
}

QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

QJsonObject withKey(QJsonObject entry, const QString &key, const QJsonValue &value)
{
    entry.insert(key, value);
    return entry;
}

// The form every document the app produces has.
QByteArray written(const QJsonObject &document)
{
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}

// What the import saw of the draft: where it lay, and the modes of the file and its folder.
struct SeenDraft
{
    QString path;
    QString fileMode;
    QString folderMode;
};

// Puts an import in the bundle that notes where the draft is and who may read it, then
// accepts it as the real import does.
void recordDraftAtImport(const TestWorld &world)
{
    const QString script = world.root() + QStringLiteral("/recording-import");
    const QByteArray seen = QFile::encodeName(world.root() + QStringLiteral("/seen"));
    writeTestFile(script, "#!/bin/sh\n"
                          "printf '%s' \"$4\" > '" + seen + ".path'\n"
                          "stat -c '%a' \"$4\" \"$(dirname \"$4\")\" > '" + seen + ".modes'\n"
                          "mkdir -p \"$(dirname \"$2\")\" && cp \"$4\" \"$2\"\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    world.useServiceExecutable(script);
}

SeenDraft seenDraft(const TestWorld &world)
{
    const QString seen = world.root() + QStringLiteral("/seen");
    const QStringList modes = QString::fromUtf8(readTestFile(seen + QStringLiteral(".modes"))).split(u'\n');
    return {QString::fromUtf8(readTestFile(seen + QStringLiteral(".path"))), modes.value(0), modes.value(1)};
}

QRegularExpression draftIn(const QString &folder)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(
        QRegularExpression::escape(folder)
        + QStringLiteral("/Veldspar-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.json")));
}
// Something other than a configuration in config.json's place: "fifo", "zero" (a link to
// /dev/zero) or "huge" (a 3 GB sparse file).
void putInPlaceOfConfig(const TestWorld &world, const QString &kind)
{
    const QString config = world.configPath();
    QVERIFY(QDir().mkpath(QFileInfo(config).path()));
    const QByteArray path = QFile::encodeName(config);
    if (kind == QStringLiteral("fifo"))
        QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    else if (kind == QStringLiteral("zero"))
        QCOMPARE(::symlink("/dev/zero", path.constData()), 0);
    else {
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.resize(qint64(3) << 30));
    }
}

// While alive, a reader blocked on the FIFO at path (waiting for a writer) is let go after
// waitMs, so that a test of an app that waits there ends; released() tells whether it had to.
class FifoRelease
{
public:
    FifoRelease(const QString &path, int waitMs)
        : m_thread([this, path = QFile::encodeName(path), waitMs] {
              for (int waited = 0; !m_done; waited += 20) {
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
                  if (waited < waitMs)
                      continue;
                  // Succeeds only while a reader has the FIFO open; closing it gives that reader its end.
                  const int fd = ::open(path.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                  if (fd >= 0) {
                      m_released = true;
                      ::close(fd);
                  }
              }
          })
    {
    }
    ~FifoRelease() { finish(); }
    void finish()
    {
        m_done = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    bool released() const { return m_released; }

private:
    std::atomic<bool> m_done{false};
    std::atomic<bool> m_released{false};
    std::thread m_thread;
};

// While alive, this process may map only about a gigabyte more than it has now, so that a reader
// that takes a device or a huge file in whole fails at once instead of eating the machine. (The
// sanitizer's shadow memory needs an unbounded address space: then there is no limit.)
class AddressSpaceLimit
{
public:
    AddressSpaceLimit()
    {
#if !defined(__SANITIZE_ADDRESS__)
        ::getrlimit(RLIMIT_AS, &m_before);
        QFile statm(QStringLiteral("/proc/self/statm"));
        if (!statm.open(QIODevice::ReadOnly))
            return;
        const rlim_t mapped = rlim_t(statm.readAll().split(' ').value(0).toULongLong()) * rlim_t(::sysconf(_SC_PAGESIZE));
        const rlimit limit{mapped + (rlim_t(1) << 30), m_before.rlim_max};
        m_limited = ::setrlimit(RLIMIT_AS, &limit) == 0;
#endif
    }
    ~AddressSpaceLimit()
    {
        if (m_limited)
            ::setrlimit(RLIMIT_AS, &m_before);
    }

private:
    rlimit m_before{};
    bool m_limited = false;
};
} // namespace

// One information dialog was shown: the message alone, no Cancel, no input field.
#define COMPARE_ONE_INFORMATION(answerer, message)                                                                     \
    do {                                                                                                               \
        QCOMPARE((answerer).shown().size(), 1);                                                                        \
        QCOMPARE((answerer).shown().constFirst().texts, QStringList{message});                                         \
        QVERIFY(!(answerer).shown().constFirst().hasCancel);                                                           \
        QVERIFY(!(answerer).shown().constFirst().hasInput);                                                            \
    } while (false)

class ConfigTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // ---- The document, the draft and the table ----

    void emptyObjectLoadsUnchangedAndOffersNoRadioActions()
    {
        TestWorld world;
        world.writeConfig("{}");
        DialogAnswerer answerer;
        RunningApp app(world);

        QCOMPARE(app.app().draftText(), QStringLiteral("{}"));
        QCOMPARE(app.statusText(), loaded);
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Add your first radio"));
        QVERIFY(!app.includeBox()->isEnabled());
        QVERIFY(!app.removeButton()->isEnabled());

        // Even when asked directly, with no row there is nothing to toggle or remove.
        app.app().toggleRadio();
        app.app().removeRadio();
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(app.app().draftText(), QStringLiteral("{}"));
        QCOMPARE(app.statusText(), loaded);
        QCOMPARE(world.readConfig(), QByteArray("{}"));
        QVERIFY(world.calls().isEmpty());
        QVERIFY(answerer.shown().isEmpty());
    }

    void invalidJsonShowsNoRadiosAndIsNeverRewritten()
    {
        const QByteArray broken = "{\"radios\": [{\"ipAddress\": \"10.0.0.1\"}";
        TestWorld world;
        world.writeConfig(broken);
        DialogAnswerer answerer;
        RunningApp app(world);

        QCOMPARE(app.app().draftText(), QString::fromUtf8(broken));
        QCOMPARE(app.statusText(), loaded);
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Add your first radio"));

        // Writing the table back needs a JSON object to write into: nothing changes, nothing is saved.
        app.app().replaceEntries();
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.app().draftText(), QString::fromUtf8(broken));
        QCOMPARE(app.statusText(), loaded);
        QVERIFY(world.calls().isEmpty());
        QVERIFY(answerer.shown().isEmpty());

        // A save of it reports the parser's complaint and leaves the file alone.
        QJsonParseError parseError;
        QJsonDocument::fromJson(broken, &parseError);
        app.app().save();
        QVERIFY(app.waitUntilIdle());
        COMPARE_ONE_INFORMATION(answerer, cannotSave + QStringLiteral("JSON text is not valid: ")
                                              + parseError.errorString() + QStringLiteral(" at offset ")
                                              + QString::number(parseError.offset) + u'.');
        QCOMPARE(app.statusText(), notSaved);
        QCOMPARE(world.readConfig(), broken);
        QVERIFY(world.calls().isEmpty());
    }

    void fileThatIsNotUtf8LoadsTheEmptyDocument()
    {
        const QByteArray latin1 = "{\"broadcastIntervalMs\": 3000, \"radios\": [{\"ipAddress\": \"10.0.0.1\", "
                                  "\"name\": \"Caf\xe9\"}]}";
        TestWorld world;
        world.writeConfig(latin1);
        DialogAnswerer answerer;
        RunningApp app(world);

        QCOMPARE(app.app().draftText(), QString::fromUtf8(emptyDocumentText));
        QCOMPARE(app.statusText(), noRadios);
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Add your first radio"));
        // Only the draft is replaced; the file stays as it was.
        QCOMPARE(world.readConfig(), latin1);
        QVERIFY(world.calls().isEmpty());
        QVERIFY(answerer.shown().isEmpty());
    }

    void missingFileLoadsTheEmptyDocumentWithoutWritingIt()
    {
        TestWorld world;
        DialogAnswerer answerer;
        RunningApp app(world);

        QCOMPARE(app.app().draftText(), QString::fromUtf8(emptyDocumentText));
        QCOMPARE(app.statusText(), noRadios);
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.serviceButton()->toolTip(), addFirstTip);
        QVERIFY(!world.configExists());
        QVERIFY(world.calls().isEmpty());
        QVERIFY(answerer.shown().isEmpty());
    }

    void whatCannotBeAConfigurationLoadsTheEmptyDocument_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("FIFO") << QStringLiteral("fifo");
        QTest::newRow("link to /dev/zero") << QStringLiteral("zero");
        QTest::newRow("3 GB sparse file") << QStringLiteral("huge");
    }

    void whatCannotBeAConfigurationLoadsTheEmptyDocument()
    {
        QFETCH(QString, kind);
        TestWorld world;
        putInPlaceOfConfig(world, kind);
        DialogAnswerer answerer;
        // A start that waits on the FIFO for a writer is let go after ten seconds, and fails.
        std::optional<FifoRelease> release;
        if (kind == QStringLiteral("fifo"))
            release.emplace(world.configPath(), 10000);
        std::unique_ptr<RunningApp> app;
        {
            const AddressSpaceLimit limit;
            app = std::make_unique<RunningApp>(world);
        }
        if (release) {
            release->finish();
            QVERIFY2(!release->released(), "the app waited for something to write into the FIFO");
        }
        QVERIFY(app->waitUntilIdle());
        QVERIFY(app->window()->isVisible());
        QCOMPARE(app->app().draftText(), QString::fromUtf8(emptyDocumentText));
        QCOMPARE(app->statusText(), noRadios);
        QCOMPARE(app->rowCount(), 0);
        // Nothing was written in its place.
        QVERIFY(world.calls().isEmpty());
        QVERIFY(answerer.shown().isEmpty());
    }

    void selectionIsClampedIntoRangeAfterReload()
    {
        const QStringList six = {QStringLiteral("One"),  QStringLiteral("Two"),  QStringLiteral("Three"),
                                 QStringLiteral("Four"), QStringLiteral("Five"), QStringLiteral("Six")};
        QList<QJsonObject> radios;
        for (int i = 0; i < six.size(); ++i)
            radios << radio(QStringLiteral("10.0.0.%1").arg(i + 1), QStringLiteral("1000-0000-0000-000%1").arg(i),
                            six.at(i));
        TestWorld world;
        world.writeConfig(configWith(radios));
        DialogAnswerer answerer;
        RunningApp app(world);

        QCOMPARE(app.rowCount(), 6);
        QCOMPARE(app.selectedRow(), 0);
        app.selectRow(5);
        QCOMPARE(app.selectedRow(), 5);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Six"));

        world.writeConfig(configWith(
            {radio(QStringLiteral("10.0.1.1"), QStringLiteral("2000-0000-0000-0001"), QStringLiteral("Alpha")),
             radio(QStringLiteral("10.0.1.2"), QStringLiteral("2000-0000-0000-0002"), QStringLiteral("Bravo")),
             radio(QStringLiteral("10.0.1.3"), QStringLiteral("2000-0000-0000-0003"), QStringLiteral("Charlie"))}));
        app.click(app.button(QStringLiteral("Reload")));
        QCOMPARE(app.rowCount(), 3);
        QCOMPARE(app.selectedRow(), 2);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Charlie"));
        QCOMPARE(app.value(QStringLiteral("ipAddress"))->text(), QStringLiteral("10.0.1.3"));

        app.selectRow(-1);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Select a radio"));
        app.click(app.button(QStringLiteral("Reload")));
        QCOMPARE(app.selectedRow(), 0);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Alpha"));
        QCOMPARE(app.statusText(), loaded);
        QVERIFY(world.calls().isEmpty());
        QVERIFY(answerer.shown().isEmpty());
    }

    void removingTheLastRadioSavesAnEmptyList()
    {
        TestWorld world;
        world.writeConfig(configWith(
            {radio(QStringLiteral("10.0.0.8"), QStringLiteral("1234-5678-9012-3456"), QStringLiteral("Solo"))}));
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.rowCount(), 1);
        QCOMPARE(app.serviceButton()->toolTip(), QString());
        QVERIFY(app.serviceButton()->isEnabled());

        app.click(app.removeButton());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(world.readConfig(), emptyDocumentText);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(emptyDocumentText));
        QCOMPARE(importCalls(world).size(), 1);
        QVERIFY(world.discoveredAddresses().isEmpty());
        QCOMPARE(app.statusText(), saved);
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Add your first radio"));
        QCOMPARE(app.serviceButton()->toolTip(), addFirstTip);
        QVERIFY(!app.serviceButton()->isEnabled());
        QVERIFY(answerer.shown().isEmpty());
    }

    void enabledHeldAsTextShowsDisabled()
    {
        const QJsonObject entry =
            withKey(radio(QStringLiteral("10.0.0.7"), QStringLiteral("7777-0000-0000-0007"), QStringLiteral("Tower")),
                    QStringLiteral("enabled"), QStringLiteral("true"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        DialogAnswerer answerer;
        RunningApp app(world);

        QCOMPARE(app.rowTexts(0), (QStringList{QStringLiteral("Tower"), QStringLiteral("10.0.0.7  \u00B7  Disabled")}));
        QVERIFY(!app.includeBox()->isChecked());
        QVERIFY(app.includeBox()->isEnabled());

        // Ticking the box stores a real boolean.
        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);
        QCOMPARE(world.readConfig(), configWith({withKey(entry, QStringLiteral("enabled"), true)}));
        QCOMPARE(app.rowTexts(0), (QStringList{QStringLiteral("Tower"), QStringLiteral("10.0.0.7  \u00B7  Enabled")}));
        QVERIFY(app.includeBox()->isChecked());
        QVERIFY(answerer.shown().isEmpty());
    }

    void unknownKeysSurviveAToggleSortedAndIndented()
    {
        TestWorld world;
        world.writeConfig("{\"zeta\":{\"b\":1,\"a\":[1,2]},\"radios\":[{\"ipAddress\":\"10.0.0.2\","
                          "\"serialNumber\":\"1111-2222-3333-4444\",\"version\":\"3.3.32.8203\",\"name\":\"Shack\","
                          "\"enabled\":false,\"antenna\":\"ANT2\",\"notes\":{\"z\":1,\"a\":\"x\"}}],"
                          "\"broadcastIntervalMs\":2500,\"alpha\":\"first\"}");
        DialogAnswerer answerer;
        RunningApp app(world);
        QVERIFY(!app.includeBox()->isChecked());

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        const QByteArray expected = "{\n"
                                    "    \"alpha\": \"first\",\n"
                                    "    \"broadcastIntervalMs\": 2500,\n"
                                    "    \"radios\": [\n"
                                    "        {\n"
                                    "            \"antenna\": \"ANT2\",\n"
                                    "            \"enabled\": true,\n"
                                    "            \"ipAddress\": \"10.0.0.2\",\n"
                                    "            \"name\": \"Shack\",\n"
                                    "            \"notes\": {\n"
                                    "                \"a\": \"x\",\n"
                                    "                \"z\": 1\n"
                                    "            },\n"
                                    "            \"serialNumber\": \"1111-2222-3333-4444\",\n"
                                    "            \"version\": \"3.3.32.8203\"\n"
                                    "        }\n"
                                    "    ],\n"
                                    "    \"zeta\": {\n"
                                    "        \"a\": [\n"
                                    "            1,\n"
                                    "            2\n"
                                    "        ],\n"
                                    "        \"b\": 1\n"
                                    "    }\n"
                                    "}\n";
        QCOMPARE(world.readConfig(), expected);
        QCOMPARE(world.importedFiles(), QList<QByteArray>{expected});
        QCOMPARE(app.app().draftText(), QString::fromUtf8(expected));
        QCOMPARE(app.statusText(), saved);
        QVERIFY(world.discoveredAddresses().isEmpty());
        QVERIFY(answerer.shown().isEmpty());
    }

    void unknownKeysSurviveARemove()
    {
        TestWorld world;
        world.writeConfig("{\"radios\":[{\"ipAddress\":\"10.0.0.2\",\"serialNumber\":\"1111-2222-3333-4444\","
                          "\"version\":\"3.3.32.8203\",\"name\":\"Shack\"},{\"ipAddress\":\"10.0.0.3\","
                          "\"serialNumber\":\"5555-6666-7777-8888\",\"version\":\"3.3.32.8203\",\"name\":\"Roof\","
                          "\"enabled\":true,\"port\":4992}],\"site\":\"Cabin\"}");
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.rowCount(), 2);

        app.click(app.removeButton()); // row 0 is selected after loading
        QVERIFY(app.waitUntilIdle());

        const QByteArray expected = "{\n"
                                    "    \"radios\": [\n"
                                    "        {\n"
                                    "            \"enabled\": true,\n"
                                    "            \"ipAddress\": \"10.0.0.3\",\n"
                                    "            \"name\": \"Roof\",\n"
                                    "            \"port\": 4992,\n"
                                    "            \"serialNumber\": \"5555-6666-7777-8888\",\n"
                                    "            \"version\": \"3.3.32.8203\"\n"
                                    "        }\n"
                                    "    ],\n"
                                    "    \"site\": \"Cabin\"\n"
                                    "}\n";
        QCOMPARE(world.readConfig(), expected);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(expected));
        QCOMPARE(app.rowCount(), 1);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Roof"));
        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
    }

    void compactFileStaysAsStoredUntilTheNextSave()
    {
        const QByteArray compact = "{\"radios\":[{\"version\":\"3.3.32.8203\",\"serialNumber\":\"1111-2222-3333-4444\","
                                   "\"ipAddress\":\"10.0.0.2\",\"enabled\":true}],\"broadcastIntervalMs\":3000}";
        TestWorld world;
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.statusText(), noRadios);

        world.writeConfig(compact);
        app.click(app.button(QStringLiteral("Reload")));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(compact));
        QCOMPARE(app.statusText(), loaded);
        QCOMPARE(app.rowTexts(0), (QStringList{QStringLiteral("Radio"), QStringLiteral("10.0.0.2  \u00B7  Enabled")}));

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        const QByteArray expected = "{\n"
                                    "    \"broadcastIntervalMs\": 3000,\n"
                                    "    \"radios\": [\n"
                                    "        {\n"
                                    "            \"enabled\": false,\n"
                                    "            \"ipAddress\": \"10.0.0.2\",\n"
                                    "            \"serialNumber\": \"1111-2222-3333-4444\",\n"
                                    "            \"version\": \"3.3.32.8203\"\n"
                                    "        }\n"
                                    "    ]\n"
                                    "}\n";
        QCOMPARE(app.app().draftText(), QString::fromUtf8(expected));
        QCOMPARE(world.readConfig(), expected);
        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
    }

    void deleteConfigConfirmedSavesTheEmptyDocument()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111")),
                                      radio(QStringLiteral("10.0.0.2"), placeholder)}));
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.rowCount(), 2);

        answerer.willPress(QStringLiteral("OK"));
        app.click(app.button(QStringLiteral("Delete Config")));
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(answerer.shown().size(), 1);
        QCOMPARE(answerer.shown().constFirst().texts,
                 (QStringList{QStringLiteral("Delete configuration?"),
                              QStringLiteral("This will remove all configured radios immediately."),
                              QStringLiteral("Are you sure?")}));
        QVERIFY(answerer.shown().constFirst().hasCancel);
        QVERIFY(!answerer.shown().constFirst().hasInput);

        QCOMPARE(world.readConfig(), emptyDocumentText);
        QCOMPARE(world.importedFiles(), QList<QByteArray>{emptyDocumentText});
        QVERIFY(world.discoveredAddresses().isEmpty());
        QCOMPARE(app.app().draftText(), QString::fromUtf8(emptyDocumentText));
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.statusText(), saved);
    }

    void deleteConfigCancelledChangesNothing()
    {
        const QByteArray original = configWith(
            {radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"), QStringLiteral("Kept"))});
        TestWorld world;
        world.writeConfig(original);
        DialogAnswerer answerer;
        RunningApp app(world);

        answerer.willPress(QStringLiteral("Cancel"));
        app.click(app.button(QStringLiteral("Delete Config")));
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(answerer.shown().size(), 1);
        QCOMPARE(answerer.shown().constFirst().texts.constFirst(), QStringLiteral("Delete configuration?"));
        QCOMPARE(answerer.shown().constFirst().answer, QStringLiteral("Cancel"));
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QCOMPARE(app.rowCount(), 1);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Kept"));
        QCOMPARE(app.statusText(), loaded);
        QVERIFY(world.calls().isEmpty());
    }

    // ---- Saving with identity verification ----

    void knownRadiosAreSavedWithoutProbing()
    {
        const QList<QJsonObject> radios = {
            radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"), QStringLiteral("A")),
            radio(QStringLiteral("10.0.0.2"), QStringLiteral("2222-2222-2222-2222"), QStringLiteral("B")),
        };
        TestWorld world;
        world.writeConfig(configWith(radios));
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QCOMPARE(app.statusText(), checking);
        QVERIFY(app.waitUntilIdle());

        QVERIFY(world.discoveredAddresses().isEmpty());
        QCOMPARE(importCalls(world).size(), 1);
        QCOMPARE(world.calls().size(), 1);
        QCOMPARE(world.readConfig(),
                 configWith({withKey(radios.at(0), QStringLiteral("enabled"), false), radios.at(1)}));
        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
    }

    void placeholderSerialTakesTheProbedSerial()
    {
        const QJsonObject entry{{QStringLiteral("ipAddress"), QStringLiteral("10.0.0.3")},
                                {QStringLiteral("serialNumber"), placeholder},
                                {QStringLiteral("name"), QStringLiteral("Old name")},
                                {QStringLiteral("version"), QStringLiteral("3.3.32.8203")},
                                {QStringLiteral("enabled"), false}};
        TestWorld world;
        world.writeConfig(configWith({entry}));
        world.answerRadio(QStringLiteral("10.0.0.3"),
                          object("{\"serialNumber\":\"5A5A-0102-0304-0506\",\"name\":\"FLEX-6600 Shack\","
                                 "\"model\":\"FLEX-6600\",\"callsign\":\"W1AW\",\"version\":\"3.4.1.1\","
                                 "\"ipAddress\":\"10.9.9.9\",\"extra\":\"ignored\"}"));
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(world.discoveredAddresses(), QStringList{QStringLiteral("10.0.0.3")});
        const QByteArray expected = "{\n"
                                    "    \"broadcastIntervalMs\": 3000,\n"
                                    "    \"radios\": [\n"
                                    "        {\n"
                                    "            \"callsign\": \"W1AW\",\n"
                                    "            \"enabled\": true,\n"
                                    "            \"ipAddress\": \"10.0.0.3\",\n"
                                    "            \"model\": \"FLEX-6600\",\n"
                                    "            \"name\": \"FLEX-6600 Shack\",\n"
                                    "            \"serialNumber\": \"5A5A-0102-0304-0506\",\n"
                                    "            \"version\": \"3.4.1.1\"\n"
                                    "        }\n"
                                    "    ]\n"
                                    "}\n";
        QCOMPARE(world.readConfig(), expected);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(expected));
        QCOMPARE(app.statusText(), saved);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("FLEX-6600 Shack"));
        QCOMPARE(app.value(QStringLiteral("serialNumber"))->text(), QStringLiteral("5A5A-0102-0304-0506"));
        QCOMPARE(app.value(QStringLiteral("callsign"))->text(), QStringLiteral("W1AW"));
        QCOMPARE(app.value(QStringLiteral("version"))->text(), QStringLiteral("3.4.1.1"));
        QCOMPARE(app.value(QStringLiteral("ipAddress"))->text(), QStringLiteral("10.0.0.3"));
        QVERIFY(answerer.shown().isEmpty());
    }

    void serialDifferingOnlyInLetterCaseIsRejected()
    {
        const QByteArray original = configWith({radio(QStringLiteral("10.0.0.4"), QStringLiteral("ABCD-EF01-2345-6789"),
                                                      QStringLiteral("Upper"), QString())});
        TestWorld world;
        world.writeConfig(original);
        world.answerRadio(QStringLiteral("10.0.0.4"),
                          object("{\"serialNumber\":\"abcd-ef01-2345-6789\",\"name\":\"Lower\",\"version\":\"3.4\"}"));
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        COMPARE_ONE_INFORMATION(answerer,
                                cannotSave + messageText(QStringLiteral("Radio serial does not match at 10.0.0.4")));
        QCOMPARE(app.statusText(), notSaved);
        QCOMPARE(world.discoveredAddresses(), QStringList{QStringLiteral("10.0.0.4")});
        QVERIFY(importCalls(world).isEmpty());
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Upper"));
        QVERIFY(app.includeBox()->isChecked());
    }

    void probeAnswerWithoutCallsignRemovesIt()
    {
        const QJsonObject entry = withKey(
            radio(QStringLiteral("10.0.0.5"), QStringLiteral("5555-0000-0000-0005"), QStringLiteral("Club"), QString()),
            QStringLiteral("callsign"), QStringLiteral("K1ABC"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        world.answerRadio(QStringLiteral("10.0.0.5"),
                          object("{\"serialNumber\":\"5555-0000-0000-0005\",\"name\":\"Club\",\"model\":\"FLEX-6400\","
                                 "\"version\":\"3.5.0.1\"}"));
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.value(QStringLiteral("callsign"))->text(), QStringLiteral("K1ABC"));

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        const QJsonObject stored =
            parseObject(world.readConfig()).value(QStringLiteral("radios")).toArray().at(0).toObject();
        QCOMPARE(stored, (QJsonObject{{QStringLiteral("enabled"), false},
                                      {QStringLiteral("ipAddress"), QStringLiteral("10.0.0.5")},
                                      {QStringLiteral("model"), QStringLiteral("FLEX-6400")},
                                      {QStringLiteral("name"), QStringLiteral("Club")},
                                      {QStringLiteral("serialNumber"), QStringLiteral("5555-0000-0000-0005")},
                                      {QStringLiteral("version"), QStringLiteral("3.5.0.1")}}));
        QCOMPARE(app.value(QStringLiteral("callsign"))->text(), QStringLiteral("\u2014"));
        QCOMPARE(app.value(QStringLiteral("model"))->text(), QStringLiteral("FLEX-6400"));
        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
    }

    void failingSecondProbeLeavesTheThirdUnprobed()
    {
        const QByteArray original =
            configWith({radio(QStringLiteral("10.0.0.1"), placeholder, QStringLiteral("First")),
                        radio(QStringLiteral("10.0.0.2"), placeholder, QStringLiteral("Second")),
                        radio(QStringLiteral("10.0.0.3"), placeholder, QStringLiteral("Third"))});
        const QByteArray failure = "Connecting to 10.0.0.2\xe2\x80\xa6\nVeldspar: no radio answered at 10.0.0.2.\n";
        TestWorld world;
        world.writeConfig(original);
        world.answerRadio(QStringLiteral("10.0.0.1"),
                          object("{\"serialNumber\":\"1111-0000-0000-0001\",\"version\":\"3.4\"}"));
        world.answerDiscover(QStringLiteral("10.0.0.2"), failure, 1);
        world.answerRadio(QStringLiteral("10.0.0.3"),
                          object("{\"serialNumber\":\"3333-0000-0000-0003\",\"version\":\"3.4\"}"));
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(world.discoveredAddresses(), (QStringList{QStringLiteral("10.0.0.1"), QStringLiteral("10.0.0.2")}));
        QVERIFY(importCalls(world).isEmpty());
        COMPARE_ONE_INFORMATION(answerer, cannotSave + QString::fromUtf8(failure));
        QCOMPARE(app.statusText(), notSaved);
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QCOMPARE(app.rowCount(), 3);
        QCOMPARE(app.value(QStringLiteral("serialNumber"))->text(), placeholder);
    }

    void reloadDuringVerificationReportsTheChangedDraft_data()
    {
        const QByteArray newRadios = configWith(
            {radio(QStringLiteral("10.0.0.20"), QStringLiteral("2020-0000-0000-0020"), QStringLiteral("New A")),
             radio(QStringLiteral("10.0.0.21"), QStringLiteral("2121-0000-0000-0021"), QStringLiteral("New B"))});
        const QByteArray failing = "Veldspar: no radio answered at 10.0.0.9.\n";
        const QByteArray answering = "{\"serialNumber\":\"9999-0000-0000-0009\",\"version\":\"3.4\"}\n";

        QTest::addColumn<QByteArray>("probeOutput");
        QTest::addColumn<int>("probeStatus");
        QTest::addColumn<QByteArray>("fileAtReload");
        QTest::addColumn<QByteArray>("reloadedDraft");
        QTest::addColumn<QStringList>("firstRow"); // empty when no radio is listed
        QTest::newRow("verification fails")
            << failing << 1 << newRadios << newRadios
            << QStringList{QStringLiteral("New A"), QStringLiteral("10.0.0.20  \u00B7  Enabled")};
        QTest::newRow("verification succeeds")
            << answering << 0 << newRadios << newRadios
            << QStringList{QStringLiteral("New A"), QStringLiteral("10.0.0.20  \u00B7  Enabled")};
        QTest::newRow("file no longer readable")
            << answering << 0 << QByteArray("{\"radios\": [], \"note\": \"caf\xe9\"}") << emptyDocumentText
            << QStringList();
    }

    void reloadDuringVerificationReportsTheChangedDraft()
    {
        QFETCH(QByteArray, probeOutput);
        QFETCH(int, probeStatus);
        QFETCH(QByteArray, fileAtReload);
        QFETCH(QByteArray, reloadedDraft);
        QFETCH(QStringList, firstRow);
        const QByteArray original = configWith({radio(QStringLiteral("10.0.0.9"), placeholder, QStringLiteral("Far"))});
        TestWorld world;
        world.writeConfig(original);
        world.answerDiscover(QStringLiteral("10.0.0.9"), probeOutput, probeStatus, true);
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QCOMPARE(app.statusText(), checking);
        QTRY_COMPARE(world.discoveredAddresses(), QStringList{QStringLiteral("10.0.0.9")});
        QVERIFY(app.app().isBusy());

        world.writeConfig(fileAtReload);
        app.click(app.button(QStringLiteral("Reload")));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(reloadedDraft));
        QCOMPARE(app.rowCount(), firstRow.isEmpty() ? 0 : 2);
        QCOMPARE(app.statusText(), checking);

        world.release();
        QVERIFY(app.waitUntilIdle());

        COMPARE_ONE_INFORMATION(answerer, QStringLiteral("The draft changed. Please Save again."));
        QCOMPARE(app.statusText(), checking);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(reloadedDraft));
        QCOMPARE(app.rowCount(), firstRow.isEmpty() ? 0 : 2);
        if (!firstRow.isEmpty())
            QCOMPARE(app.rowTexts(0), firstRow);
        QCOMPARE(world.readConfig(), fileAtReload);
        QVERIFY(importCalls(world).isEmpty());
        QVERIFY(!app.app().isBusy());
    }

    void documentWithoutRadiosIsAnInvalidConfiguration_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::newRow("empty object") << QByteArray("{}");
        QTest::newRow("no radios") << QByteArray("{\"broadcastIntervalMs\": 3000}");
    }

    void documentWithoutRadiosIsAnInvalidConfiguration()
    {
        QFETCH(QByteArray, document);
        TestWorld world;
        world.writeConfig(document);
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(document));

        app.app().save();
        QVERIFY(app.waitUntilIdle());

        COMPARE_ONE_INFORMATION(answerer, cannotSave + messageText(QStringLiteral("Invalid configuration")));
        QCOMPARE(app.statusText(), notSaved);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(document));
        QCOMPARE(world.readConfig(), document);
        QVERIFY(world.calls().isEmpty());
    }

    void numericAddressIsAMissingRadioAddress()
    {
        const QByteArray original = "{\"broadcastIntervalMs\": 3000, \"radios\": [{\"ipAddress\": 167772161, "
                                    "\"serialNumber\": \"0000-0000-0000-0000\", \"name\": \"Numeric\"}]}";
        TestWorld world;
        world.writeConfig(original);
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.rowTexts(0), (QStringList{QStringLiteral("Numeric"), QStringLiteral("  \u00B7  Disabled")}));

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        COMPARE_ONE_INFORMATION(answerer, cannotSave + messageText(QStringLiteral("Missing radio address")));
        QCOMPARE(app.statusText(), notSaved);
        QVERIFY(world.calls().isEmpty());
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QVERIFY(!app.includeBox()->isChecked());
    }

    void secondEditWhileVerifyingIsIgnored()
    {
        const QJsonObject far = radio(QStringLiteral("10.0.0.30"), placeholder, QStringLiteral("Far"));
        const QJsonObject near =
            radio(QStringLiteral("10.0.0.31"), QStringLiteral("3131-0000-0000-0031"), QStringLiteral("Near"));
        TestWorld world;
        world.writeConfig(configWith({far, near}));
        world.answerDiscover(QStringLiteral("10.0.0.30"),
                             "{\"name\":\"Far\",\"serialNumber\":\"3030-0000-0000-0030\",\"version\":\"3.4\"}\n", 0,
                             true);
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox()); // exclude "Far"
        QTRY_COMPARE(world.discoveredAddresses(), QStringList{QStringLiteral("10.0.0.30")});
        const QString snapshot = app.app().draftText();
        QCOMPARE(parseObject(snapshot.toUtf8()),
                 parseObject(configWith({withKey(far, QStringLiteral("enabled"), false), near})));

        // Both edits come while the first save is still probing.
        app.click(app.includeBox());
        QVERIFY(!app.includeBox()->isChecked());
        app.selectRow(1);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Near"));
        app.click(app.removeButton());

        QCOMPARE(app.app().draftText(), snapshot);
        QCOMPARE(app.app().radioEntries().size(), 2);
        QCOMPARE(app.rowCount(), 2);
        QCOMPARE(app.statusText(), checking);

        world.release();
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(world.discoveredAddresses(), QStringList{QStringLiteral("10.0.0.30")});
        QCOMPARE(importCalls(world).size(), 1);
        const QJsonObject farSaved = withKey(withKey(far, QStringLiteral("enabled"), false),
                                             QStringLiteral("serialNumber"), QStringLiteral("3030-0000-0000-0030"));
        QCOMPARE(world.readConfig(),
                 configWith({withKey(farSaved, QStringLiteral("version"), QStringLiteral("3.4")), near}));
        QCOMPARE(app.rowCount(), 2);
        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
    }

    // ---- Verification rules without a window ----

    void verificationProbesInOrderAndStopsAtTheFirstFailure()
    {
        const QByteArray snapshot = configWith({
            radio(QStringLiteral("10.0.0.1"), placeholder),
            radio(QStringLiteral("10.0.0.2"), QStringLiteral("2222-2222-2222-2222")), // complete: never probed
            radio(QStringLiteral("10.0.0.3"), QStringLiteral("3333-3333-3333-3333"), QString(), QString()),
            radio(QStringLiteral("10.0.0.4"), QString()),
        });
        QStringList probed;
        const Probe probe = [&probed](const QString &address) {
            probed << address;
            if (address == QStringLiteral("10.0.0.3"))
                throw Error(QStringLiteral("timed out\n"), 1, {{Error::descriptionKey, QStringLiteral("timed out\n")}});
            return QJsonObject{{QStringLiteral("serialNumber"), QStringLiteral("1111-1111-1111-1111")}};
        };

        try {
            verifiedDocument(QString::fromUtf8(snapshot), probe);
            QFAIL("the failing probe did not end the verification");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("timed out\n"));
            QCOMPARE(error.localizedDescription(), QStringLiteral("timed out\n"));
        }
        QCOMPARE(probed, (QStringList{QStringLiteral("10.0.0.1"), QStringLiteral("10.0.0.3")}));
    }

    void verificationCopiesOnlyTheIdentityKeys()
    {
        const QJsonObject entry =
            object("{\"ipAddress\":\"10.1.1.1\",\"serialNumber\":\"0000-0000-0000-0000\","
                   "\"name\":\"Old\",\"callsign\":\"OLD\",\"enabled\":true,\"antenna\":\"ANT1\"}");
        const QJsonObject document{{QStringLiteral("broadcastIntervalMs"), 1500},
                                   {QStringLiteral("custom"), QStringLiteral("kept")},
                                   {QStringLiteral("radios"), QJsonArray{entry}}};
        const QJsonObject answer = object("{\"serialNumber\":\"S1\",\"name\":\"New\",\"model\":\"FLEX-8600\","
                                          "\"version\":\"4.0\",\"ipAddress\":\"192.168.9.9\",\"enabled\":false,"
                                          "\"extra\":1}");
        const QByteArray result =
            verifiedDocument(QString::fromUtf8(written(document)), [&answer](const QString &) { return answer; });

        const QJsonObject expectedEntry = object("{\"ipAddress\":\"10.1.1.1\",\"serialNumber\":\"S1\",\"name\":\"New\","
                                                 "\"model\":\"FLEX-8600\",\"version\":\"4.0\",\"enabled\":true,"
                                                 "\"antenna\":\"ANT1\"}");
        QJsonObject expected = document;
        expected.insert(QStringLiteral("radios"), QJsonArray{expectedEntry});
        QCOMPARE(result, written(expected));
    }

    void needsDiscoveryWhenSerialOrVersionIsUnknown_data()
    {
        QTest::addColumn<QByteArray>("entry");
        QTest::addColumn<bool>("needed");
        QTest::newRow("complete") << QByteArray("{\"serialNumber\":\"1-2\",\"version\":\"3.4\"}") << false;
        QTest::newRow("placeholder serial")
            << QByteArray("{\"serialNumber\":\"0000-0000-0000-0000\",\"version\":\"3.4\"}") << true;
        QTest::newRow("no serial") << QByteArray("{\"version\":\"3.4\"}") << true;
        QTest::newRow("empty serial") << QByteArray("{\"serialNumber\":\"\",\"version\":\"3.4\"}") << true;
        QTest::newRow("numeric serial") << QByteArray("{\"serialNumber\":12,\"version\":\"3.4\"}") << true;
        QTest::newRow("no version") << QByteArray("{\"serialNumber\":\"1-2\"}") << true;
        QTest::newRow("empty version") << QByteArray("{\"serialNumber\":\"1-2\",\"version\":\"\"}") << true;
        QTest::newRow("numeric version") << QByteArray("{\"serialNumber\":\"1-2\",\"version\":3.4}") << true;
        QTest::newRow("lower-case placeholder-like serial")
            << QByteArray("{\"serialNumber\":\"0000-0000-0000-000a\",\"version\":\"3.4\"}") << false;
    }

    void needsDiscoveryWhenSerialOrVersionIsUnknown()
    {
        QFETCH(QByteArray, entry);
        QFETCH(bool, needed);
        QCOMPARE(needsDiscovery(parseObject(entry)), needed);
    }

    void verificationRejectsWhatIsNotAConfiguration_data()
    {
        QTest::addColumn<QByteArray>("snapshot");
        QTest::newRow("empty object") << QByteArray("{}");
        QTest::newRow("no radios") << QByteArray("{\"broadcastIntervalMs\":3000}");
        QTest::newRow("radios is text") << QByteArray("{\"radios\":\"10.0.0.1\"}");
        QTest::newRow("radio is a number") << QByteArray("{\"radios\":[{\"ipAddress\":\"10.0.0.1\"},5]}");
        QTest::newRow("top-level array") << QByteArray("[{\"radios\":[]}]");
    }

    void verificationRejectsWhatIsNotAConfiguration()
    {
        QFETCH(QByteArray, snapshot);
        bool probed = false;
        try {
            verifiedDocument(QString::fromUtf8(snapshot), [&probed](const QString &) {
                probed = true;
                return QJsonObject();
            });
            QFAIL("accepted a document that is not a configuration");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("Invalid configuration"));
            QCOMPARE(error.code(), 1);
            QVERIFY(error.userInfo().isEmpty());
            QCOMPARE(error.localizedDescription(), messageText(QStringLiteral("Invalid configuration")));
        }
        QVERIFY(!probed);
    }

    void verificationPassesTheParserErrorThrough()
    {
        try {
            verifiedDocument(QStringLiteral("{\"radios\": [}"), [](const QString &) { return QJsonObject(); });
            QFAIL("accepted text that is not JSON");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("QJsonParseError"));
            QVERIFY(error.localizedDescription().startsWith(QStringLiteral("JSON text is not valid: ")));
        }
    }

    void verificationRequiresATextAddress()
    {
        const QString snapshot =
            QStringLiteral("{\"radios\":[{\"ipAddress\":\"\",\"serialNumber\":\"0000-0000-0000-0000\"},"
                           "{\"serialNumber\":\"0000-0000-0000-0000\"}]}");
        QStringList probed;
        try {
            verifiedDocument(snapshot, [&probed](const QString &address) {
                probed << address;
                return QJsonObject{{QStringLiteral("serialNumber"), QStringLiteral("1")}};
            });
            QFAIL("a radio without an address was accepted");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(), messageText(QStringLiteral("Missing radio address")));
        }
        // An empty address is still handed to the probe; only a missing one is refused.
        QCOMPARE(probed, QStringList{QString()});
    }

    void knownSerialMustComeBackAsText()
    {
        const QString snapshot =
            QStringLiteral("{\"radios\":[{\"ipAddress\":\"10.0.0.6\",\"serialNumber\":\"6666-0000-0000-0006\"}]}");
        try {
            verifiedDocument(snapshot, [](const QString &) {
                return QJsonObject{{QStringLiteral("name"), QStringLiteral("No serial")}};
            });
            QFAIL("an answer without a serial matched a known serial");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(),
                     messageText(QStringLiteral("Radio serial does not match at 10.0.0.6")));
        }
    }

    // ---- Values the document must keep exactly ----

    void numbersThatSurviveARewriteAreExact()
    {
        for (const char *json : {"{\"a\": 3000}", "{\"a\": 1.5}", "{\"a\": 1e3}", "{\"a\": 0.1}", "{\"a\": -2.5E-3}",
                                 "{\"a\": 0}", "{\"a\": 0.0e12}", "{\"a\": 9007199254740992}", "{\"a\": 1e19}",
                                 "{\"a\": [1, 2, {\"b\": 5e-324}]}", "{\"a\": \"12345678901234567890\"}",
                                 "{\"a\": {\"k\": 1}, \"b\": {\"k\": 2}}", "[]"})
            QVERIFY2(!firstInexactValue(QString::fromUtf8(json)), json);
    }

    void numbersADoubleDoesNotHoldAreReportedWithTheirKey()
    {
        const QList<std::pair<const char *, QString>> cases{
            {"{\"bigId\": 12345678901234567890}", QStringLiteral("12345678901234567890")},
            {"{\"bigId\": 9007199254740993}", QStringLiteral("9007199254740993")},
            {"{\"bigId\": -0}", QStringLiteral("-0")},
            {"{\"bigId\": -0.0e5}", QStringLiteral("-0.0e5")},
            {"{\"bigId\": 1e400}", QStringLiteral("1e400")},
            {"{\"bigId\": -1E+400}", QStringLiteral("-1E+400")},
            {"{\"bigId\": 1e-400}", QStringLiteral("1e-400")},
            {"{\"bigId\": 0.30000000000000001}", QStringLiteral("0.30000000000000001")},
            {"{\"ok\": 1, \"bigId\": [1, 2, 1e400], \"later\": 1e999}", QStringLiteral("1e400")},
            {"{\"s\": \"tab\there \\x\", \"bigId\": -2345678901234567890}", QStringLiteral("-2345678901234567890")},
            {"{\"bigId\": 112345678901277095936.}", QStringLiteral("112345678901277095936.")},
            {"{\"bigId\": 12345678901234567168}", QStringLiteral("12345678901234567168")},
        };
        for (const auto &[json, number] : cases) {
            const std::optional<InexactValue> found = firstInexactValue(QString::fromUtf8(json));
            QVERIFY2(found, json);
            QCOMPARE(found->kind, InexactValue::Kind::Number);
            QCOMPARE(found->key, QStringLiteral("bigId"));
            QCOMPARE(found->number, number);
        }
    }

    void aKeyHeldTwiceIsReported()
    {
        for (const char *json : {"{\"radios\": [{\"name\": \"a\", \"name\": \"b\"}]}",
                                 "{\"radios\": [{\"name\": \"a\", \"n\\u0061me\": \"b\"}]}"}) {
            const std::optional<InexactValue> found = firstInexactValue(QString::fromUtf8(json));
            QVERIFY2(found, json);
            QCOMPARE(found->kind, InexactValue::Kind::RepeatedKey);
            QCOMPARE(found->key, QStringLiteral("name"));
        }
    }

    void invalidJsonIsLeftToTheParser()
    {
        for (const char *json : {"{\"a\": 1e400", "{\"a\": 1e400,}", "{\"a\": 1e400} x",
                                 "{\"a\": -}", "{\"a\" 1}", ""})
            QVERIFY2(!firstInexactValue(QString::fromUtf8(json)), json);
    }

    void theRefusalNamesTheKeyAndTheValue()
    {
        QCOMPARE(inexactValueMessage({InexactValue::Kind::Number, QStringLiteral("bigId"),
                                      QStringLiteral("12345678901234567890")}),
                 QStringLiteral("config.json holds a value Veldspar cannot keep exactly (\"bigId\": "
                                "12345678901234567890). Edit the file by hand, or remove the value, and try again."));
        QCOMPARE(inexactValueMessage({InexactValue::Kind::RepeatedKey, QStringLiteral("name"), QString()}),
                 QStringLiteral("config.json holds the key \"name\" twice in one object, and Veldspar would keep "
                                "only the last. Edit the file by hand, or remove one of them, and try again."));
    }

    void aToggleRefusesToChangeAValueItCannotKeep()
    {
        const QList<std::pair<QByteArray, QString>> cases{
            {"\"bigId\": 12345678901234567890", QStringLiteral("(\"bigId\": 12345678901234567890)")},
            {"\"bigId\": -0", QStringLiteral("(\"bigId\": -0)")},
            {"\"bigId\": 1, \"bigId\": 2", QStringLiteral("the key \"bigId\" twice")},
        };
        for (const auto &[member, named] : cases) {
            const QByteArray file = "{" + member + ", \"broadcastIntervalMs\": 3000, \"radios\": [{\"ipAddress\": "
                                    "\"10.0.0.2\", \"serialNumber\": \"1111-2222-3333-4444\", \"version\": \"3.3\"}]}";
            TestWorld world;
            world.writeConfig(file);
            DialogAnswerer answerer;
            RunningApp app(world);
            QVERIFY2(app.rowCount() == 1, member.constData());
            app.click(app.includeBox());
            QVERIFY(app.waitUntilIdle());

            QCOMPARE(answerer.shown().size(), 1);
            const QString shown = answerer.shown().constFirst().texts.value(0);
            QVERIFY2(shown.contains(named) && shown.startsWith(QStringLiteral("config.json holds ")), qPrintable(shown));
            QCOMPARE(world.readConfig(), file);
            QVERIFY(importCalls(world).isEmpty());
            QCOMPARE(app.app().draftText(), QString::fromUtf8(file));
            QVERIFY(!app.includeBox()->isChecked());
            QCOMPARE(app.statusText(), notSaved);
        }
    }

    void valuesKeptExactlySurviveASave()
    {
        TestWorld world;
        world.writeConfig("{\"big\": 9007199254740992, \"ratio\": 1.5, \"rate\": 1e3, \"tiny\": 0.1, \"radios\": "
                          "[{\"ipAddress\": \"10.0.0.2\", \"serialNumber\": \"1111-2222-3333-4444\", \"version\": "
                          "\"3.3\", \"gain\": -2.5}], \"broadcastIntervalMs\": 3000}");
        DialogAnswerer answerer;
        RunningApp app(world);
        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
        const QByteArray onDisk = world.readConfig();
        QVERIFY2(onDisk.contains("\"big\": 9007199254740992,") && onDisk.contains("\"ratio\": 1.5,")
                     && onDisk.contains("\"rate\": 1000,") && onDisk.contains("\"tiny\": 0.1\n")
                     && onDisk.contains("\"gain\": -2.5,"),
                 onDisk.constData());
    }

    // ---- The writer ----

    void draftsLeftByAKilledAppGoAtStartUp()
    {
        TestWorld world;
        const QString runtime = world.runtimeDir() + QStringLiteral("/Veldspar");
        const QString cache = world.home() + QStringLiteral("/.cache/org.kestrum.Veldspar.configure");
        const QString name = QStringLiteral("/Veldspar-0C6A1F52-3B7E-4D7A-9A41-5E2F3C1D8B90.json");
        const QString staleHere = runtime + name;
        const QString staleInCache = cache + name;
        const QString fresh = runtime + QStringLiteral("/Veldspar-7D1B2C3E-4F50-4A61-8B72-9C83D4E5F601.json");
        for (const QString &path : {staleHere, staleInCache, fresh})
            writeTestFile(path, "{}");
        for (const QString &path : {staleHere, staleInCache}) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(-3600), QFileDevice::FileModificationTime));
        }

        RunningApp app(world);
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(staleHere) && !QFile::exists(staleInCache), 5000);
        QVERIFY(app.waitUntilIdle());
        QVERIFY(QFile::exists(fresh));
        QCOMPARE(world.leftoverTemporaryFiles(), QStringList{fresh});
    }


    void aSaveWaitingForAnotherImportKeepsTheWindowAnswering()
    {
        const QJsonObject entry = radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-0000-0000-0001"), QStringLiteral("One"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        DialogAnswerer answerer;
        RunningApp app(world);

        // Another import holds the folder's lock, as the service executable takes it.
        const int held = ::open(QFile::encodeName(QFileInfo(world.configPath()).path()).constData(),
                                O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        QVERIFY(held >= 0);
        QCOMPARE(::flock(held, LOCK_EX), 0);
        app.click(app.includeBox());
        QTRY_COMPARE_WITH_TIMEOUT(app.statusText(), QStringLiteral("Waiting for another save of config.json to finish\u2026"),
                                  5000);
        bool answered = false;
        QTimer::singleShot(0, [&answered] { answered = true; });
        QTRY_VERIFY_WITH_TIMEOUT(answered, 500);
        QVERIFY(app.app().isBusy());
        QCOMPARE(world.readConfig(), configWith({entry}));

        ::close(held);
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);
        QCOMPARE(world.readConfig(),
                 configWith({withKey(entry, QStringLiteral("enabled"), !entry.value(QStringLiteral("enabled")).toBool())}));
        QVERIFY(answerer.shown().isEmpty());
        QCOMPARE(world.leftoverTemporaryFiles(), QStringList());
    }


    void aFileChangedOutsideIsReloadedInsteadOfOverwritten()
    {
        const QJsonObject first = radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-0000-0000-0001"), QStringLiteral("One"));
        const QJsonObject second = radio(QStringLiteral("10.0.0.2"), QStringLiteral("2222-0000-0000-0002"), QStringLiteral("Two"));
        TestWorld world;
        world.writeConfig(configWith({first}));
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.rowCount(), 1);

        // Another copy of the app adds a radio meanwhile.
        const QByteArray theirs = configWith({first, second});
        world.writeConfig(theirs);
        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(world.readConfig(), theirs);
        QVERIFY(importCalls(world).isEmpty());
        QCOMPARE(app.rowCount(), 2);
        QCOMPARE(app.rowTexts(1).value(0), QStringLiteral("Two"));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(theirs));
        QCOMPARE(app.statusText(), QStringLiteral("config.json was changed outside Veldspar; reloaded it instead of "
                                                  "saving. Make your change again."));
        QVERIFY(answerer.shown().isEmpty());

        // Made again on what is on disk now, the change is saved, and so is the next one.
        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);
        app.selectRow(1);
        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);
        QCOMPARE(importCalls(world).size(), 2);
        const auto toggled = [](const QJsonObject &entry) {
            return withKey(entry, QStringLiteral("enabled"), !entry.value(QStringLiteral("enabled")).toBool());
        };
        QCOMPARE(world.readConfig(), configWith({toggled(first), toggled(second)}));
    }

    void aFileThatAppearedIsNotOverwritten()
    {
        TestWorld world;
        DialogAnswerer answerer;
        RunningApp app(world);
        QCOMPARE(app.statusText(), noRadios);
        const QByteArray theirs = configWith({radio(QStringLiteral("10.0.0.2"), QStringLiteral("2222-0000-0000-0002"))});
        world.writeConfig(theirs);
        answerer.willPress(QStringLiteral("OK"));
        app.click(app.button(QStringLiteral("Delete Config")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.readConfig(), theirs);
        QCOMPARE(app.rowCount(), 1);
        QVERIFY(app.statusText().startsWith(QStringLiteral("config.json was changed outside Veldspar")));
    }


    void twoSavesUseDistinctTemporaryFiles()
    {
        const QJsonObject entry =
            radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"), QStringLiteral("Home"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);
        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.statusText(), saved);

        const QList<QStringList> calls = importCalls(world);
        QCOMPARE(calls.size(), 2);
        const QRegularExpression name(QRegularExpression::anchoredPattern(
            QRegularExpression::escape(world.runtimeDir())
            + QStringLiteral("/Veldspar/Veldspar-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.json")));
        for (const QStringList &call : calls) {
            QCOMPARE(call.at(1), world.configPath());
            QVERIFY2(name.match(call.at(3)).hasMatch(), qPrintable(call.at(3)));
            QVERIFY(!QFile::exists(call.at(3)));
        }
        QVERIFY(calls.at(0).at(3) != calls.at(1).at(3));
        QCOMPARE(world.leftoverTemporaryFiles(), QStringList());

        const QList<QByteArray> imported = world.importedFiles();
        QCOMPARE(imported.size(), 2);
        QCOMPARE(imported.at(0), configWith({withKey(entry, QStringLiteral("enabled"), false)}));
        QCOMPARE(imported.at(1), configWith({entry}));
        QCOMPARE(world.readConfig(), configWith({entry}));
        QVERIFY(answerer.shown().isEmpty());
    }

    void failedImportShowsItsOutputAlone()
    {
        const QByteArray original = configWith(
            {radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"), QStringLiteral("Home"))});
        const QByteArray complaint = "Veldspar: cannot back up the previous configuration: Permission denied\n";
        TestWorld world;
        world.writeConfig(original);
        world.setImportResult(complaint, 1);
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        COMPARE_ONE_INFORMATION(answerer, QString::fromUtf8(complaint));
        QCOMPARE(importCalls(world).size(), 1);
        QCOMPARE(world.importedFiles().size(), 1);
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QVERIFY(app.includeBox()->isChecked());
        QCOMPARE(app.rowTexts(0), (QStringList{QStringLiteral("Home"), QStringLiteral("10.0.0.1  \u00B7  Enabled")}));
        QCOMPARE(app.statusText(), loaded);
        QCOMPARE(world.leftoverTemporaryFiles(), QStringList());
    }

    void successfulImportShowsOnlyTheStatus()
    {
        const QJsonObject entry = radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        world.setImportResult("Backed up config.json to config.json.bak\nConfiguration written.\n", 0);
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(app.statusText(),
                 QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically."));
        QVERIFY(answerer.shown().isEmpty());
        QCOMPARE(world.readConfig(), configWith({withKey(entry, QStringLiteral("enabled"), false)}));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(world.readConfig()));
    }

    void missingServiceExecutableReportsTheLaunchError()
    {
        const QByteArray original = configWith(
            {radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"), QStringLiteral("Home"))});
        TestWorld world;
        world.writeConfig(original);
        DialogAnswerer answerer;
        RunningApp app(world);
        world.removeServiceExecutable();

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        // The platform's own words for a program that cannot be started.
        const QString program = world.resources() + QStringLiteral("/Veldspar");
        QProcess probe;
        probe.start(program, {});
        QVERIFY(!probe.waitForStarted(-1));
        const QString reason = program + QStringLiteral(": ") + probe.errorString();

        COMPARE_ONE_INFORMATION(answerer, QStringLiteral("Save failed: Error Domain=QProcess Code=0 \"") + reason
                                              + QStringLiteral("\" UserInfo={NSLocalizedDescription=") + reason + u'}');
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QVERIFY(app.includeBox()->isChecked());
        QCOMPARE(app.statusText(), loaded);
        QCOMPARE(world.leftoverTemporaryFiles(), QStringList());
    }

    void invalidUtf8OutputIsShownWithReplacementCharacters()
    {
        const QByteArray original =
            configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"))});
        TestWorld world;
        world.writeConfig(original);
        world.setImportResult("Caf\xe9 config rejected: \xff\xfe\n", 1);
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        COMPARE_ONE_INFORMATION(answerer, QStringLiteral("Caf\uFFFD config rejected: \uFFFD\uFFFD\n"));
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
    }

    void draftIsReadableOnlyByItsOwner()
    {
        const QJsonObject entry = radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        recordDraftAtImport(world);
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(app.statusText(), saved);
        const SeenDraft draft = seenDraft(world);
        QVERIFY2(draftIn(world.runtimeDir() + QStringLiteral("/Veldspar")).match(draft.path).hasMatch(),
                 qPrintable(draft.path));
        QCOMPARE(draft.fileMode, QStringLiteral("600"));
        QCOMPARE(draft.folderMode, QStringLiteral("700"));
        QVERIFY(!QFile::exists(draft.path));
        QCOMPARE(world.readConfig(), configWith({withKey(entry, QStringLiteral("enabled"), false)}));
        QVERIFY(answerer.shown().isEmpty());
    }

    void draftAvoidsFoldersThatAreNotPrivate_data()
    {
        QTest::addColumn<QString>("situation");
        QTest::newRow("no runtime folder, temporary folder missing") << QStringLiteral("unset");
        QTest::newRow("runtime folder missing") << QStringLiteral("missing");
        QTest::newRow("runtime folder given as a relative path") << QStringLiteral("relative");
        QTest::newRow("runtime folder others may enter") << QStringLiteral("open");
        QTest::newRow("runtime draft folder is a link") << QStringLiteral("link");
        QTest::newRow("runtime draft folder is a file") << QStringLiteral("file");
        QTest::newRow("cache folder open to others") << QStringLiteral("open cache");
    }

    void draftAvoidsFoldersThatAreNotPrivate()
    {
        QFETCH(QString, situation);
        const QJsonObject entry = radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"));
        TestWorld world;
        world.writeConfig(configWith({entry}));
        recordDraftAtImport(world);
        const QString elsewhere = world.root() + QStringLiteral("/elsewhere");
        QVERIFY(QDir().mkpath(elsewhere));
        const QString cache = world.home() + QStringLiteral("/.cache/org.kestrum.Veldspar.configure");
        qputenv("TMPDIR", QFile::encodeName(world.root() + QStringLiteral("/no-such-folder")));
        if (situation == QStringLiteral("unset") || situation == QStringLiteral("open cache"))
            qunsetenv("XDG_RUNTIME_DIR");
        if (situation == QStringLiteral("missing"))
            qputenv("XDG_RUNTIME_DIR", QFile::encodeName(world.root() + QStringLiteral("/no-such-runtime")));
        if (situation == QStringLiteral("relative"))
            qputenv("XDG_RUNTIME_DIR", "run");
        if (situation == QStringLiteral("open"))
            QVERIFY(QFile::setPermissions(world.runtimeDir(), QFile::permissions(world.runtimeDir())
                                                                  | QFile::ReadOther | QFile::ExeOther));
        if (situation == QStringLiteral("link"))
            QVERIFY(QFile::link(elsewhere, world.runtimeDir() + QStringLiteral("/Veldspar")));
        if (situation == QStringLiteral("file"))
            writeTestFile(world.runtimeDir() + QStringLiteral("/Veldspar"), "in the way");
        if (situation == QStringLiteral("open cache")) {
            QVERIFY(QDir().mkpath(cache));
            QVERIFY(QFile::setPermissions(cache, QFile::permissions(cache) | QFile::ReadOther | QFile::ExeOther
                                                     | QFile::ReadGroup | QFile::ExeGroup));
        }
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(app.statusText(), saved);
        QVERIFY(answerer.shown().isEmpty());
        const SeenDraft draft = seenDraft(world);
        QVERIFY2(draftIn(cache).match(draft.path).hasMatch(), qPrintable(draft.path));
        QCOMPARE(draft.fileMode, QStringLiteral("600"));
        QCOMPARE(draft.folderMode, QStringLiteral("700"));
        QVERIFY(!QFile::exists(draft.path));
        QCOMPARE(QDir(elsewhere).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
        QCOMPARE(world.readConfig(), configWith({withKey(entry, QStringLiteral("enabled"), false)}));
    }

    void draftWithNowhereToGoIsReportedAndLeavesTheFile()
    {
        const QByteArray original = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("1111-1111-1111-1111"))});
        TestWorld world;
        world.writeConfig(original);
        qunsetenv("XDG_RUNTIME_DIR");
        // The cache folder cannot be made: a file is in the way.
        writeTestFile(world.home() + QStringLiteral("/.cache"), "not a folder");
        DialogAnswerer answerer;
        RunningApp app(world);

        app.click(app.includeBox());
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(answerer.shown().size(), 1);
        QVERIFY2(answerer.shown().constFirst().texts.value(0).startsWith(QStringLiteral("Save failed: Error Domain=")),
                 qPrintable(answerer.shown().constFirst().texts.value(0)));
        QVERIFY(importCalls(world).isEmpty());
        QCOMPARE(world.readConfig(), original);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(original));
        QCOMPARE(world.leftoverTemporaryFiles(), QStringList());
    }

    // Import of an earlier product's config.json through "Import…".

    void importAsksForOneExistingFileWithoutFilter()
    {
        TestWorld world;
        const QByteArray config = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"))});
        world.writeConfig(config);
        RunningApp app(world);
        const QString draft = app.app().draftText();
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("Cancel"));
        app.click(app.button(QStringLiteral("Import\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.shown().size(), 1);
        const ShownDialog &chooser = answers.shown().first();
        QVERIFY(chooser.fileChooser);
        QCOMPARE(chooser.texts, QStringList({QStringLiteral("Import Tarnwick config.json")}));
        QVERIFY(chooser.choosesExistingFileOnly);
        QVERIFY(chooser.nameFilters.isEmpty() || chooser.nameFilters == QStringList({QStringLiteral("All Files (*)")}));
        // Cancelled: nothing happened.
        QCOMPARE(app.app().draftText(), draft);
        QCOMPARE(world.readConfig(), config);
        QCOMPARE(app.statusText(), loaded);
        QVERIFY(world.calls().isEmpty());
    }

    void importWithoutVersionsProbesEachRadioInOrder()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        const QString file = world.root() + QStringLiteral("/tarnwick/config.json");
        QDir().mkpath(QFileInfo(file).path());
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(R"({"radios": [)"
                  R"({"ipAddress": "10.0.0.1", "serialNumber": "0000-0000-0000-0000", "enabled": true},)"
                  R"({"ipAddress": "10.0.0.2", "serialNumber": "B-2", "enabled": false, "note": "attic"}]})");
        out.close();
        const QJsonObject first{{QStringLiteral("serialNumber"), QStringLiteral("A-1")},
                                {QStringLiteral("name"), QStringLiteral("Shack")},
                                {QStringLiteral("model"), QStringLiteral("FLEX-6600")},
                                {QStringLiteral("callsign"), QStringLiteral("W1AW")},
                                {QStringLiteral("version"), QStringLiteral("3.3.32.8203")}};
        const QJsonObject second{{QStringLiteral("serialNumber"), QStringLiteral("B-2")},
                                 {QStringLiteral("name"), QStringLiteral("Attic")},
                                 {QStringLiteral("model"), QStringLiteral("FLEX-8400")},
                                 {QStringLiteral("version"), QStringLiteral("3.8.19.0")}};
        world.answerRadio(QStringLiteral("10.0.0.1"), first);
        world.answerRadio(QStringLiteral("10.0.0.2"), second);

        DialogAnswerer answers;
        answers.willChoose(file);
        app.click(app.button(QStringLiteral("Import\u2026")));
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(answers.shown().size(), 1); // the chooser, and no message
        QCOMPARE(world.discoveredAddresses(), QStringList({QStringLiteral("10.0.0.1"), QStringLiteral("10.0.0.2")}));
        QJsonObject shack = first;
        shack.insert(QStringLiteral("ipAddress"), QStringLiteral("10.0.0.1"));
        shack.insert(QStringLiteral("enabled"), true);
        QJsonObject attic = second;
        attic.insert(QStringLiteral("ipAddress"), QStringLiteral("10.0.0.2"));
        attic.insert(QStringLiteral("enabled"), false);
        attic.insert(QStringLiteral("note"), QStringLiteral("attic"));
        const QByteArray expected =
            QJsonDocument(QJsonObject{{QStringLiteral("radios"), QJsonArray({shack, attic})}}).toJson(QJsonDocument::Indented);
        QCOMPARE(world.readConfig(), expected);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(expected));
        QCOMPARE(app.statusText(), saved);
        QCOMPARE(app.rowTexts(1), QStringList({QStringLiteral("Attic"), QStringLiteral("10.0.0.2  \u00B7  Disabled")}));
    }

    void importKeepsExtraKeysAndItsOwnInterval_data()
    {
        QTest::addColumn<QByteArray>("imported");
        QTest::newRow("own interval and an extra key")
            << QByteArray(R"({"broadcastIntervalMs": 1000, "site": "north", "radios": [{"ipAddress": "10.0.0.1", "serialNumber": "A-1", "version": "3.3"}]})");
        QTest::newRow("no interval")
            << QByteArray(R"({"site": "north", "radios": [{"ipAddress": "10.0.0.1", "serialNumber": "A-1", "version": "3.3"}]})");
    }

    void importKeepsExtraKeysAndItsOwnInterval()
    {
        QFETCH(QByteArray, imported);
        TestWorld world;
        world.writeConfig(R"({"broadcastIntervalMs": 5000, "radios": []})");
        RunningApp app(world);
        const QString file = world.root() + QStringLiteral("/old.json");
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(imported);
        out.close();
        DialogAnswerer answers;
        answers.willChoose(file);
        app.click(app.button(QStringLiteral("Import\u2026")));
        QVERIFY(app.waitUntilIdle());
        const QByteArray expected = QJsonDocument(parseObject(imported)).toJson(QJsonDocument::Indented);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(expected));
        QCOMPARE(world.readConfig(), expected);
        QVERIFY(world.discoveredAddresses().isEmpty());
        QCOMPARE(app.statusText(), saved);
    }

    void importOfAnEmptyRadioListSavesNoRadios()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"))}));
        RunningApp app(world);
        const QString file = world.root() + QStringLiteral("/empty.json");
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(R"({"radios": []})");
        out.close();
        DialogAnswerer answers;
        answers.willChoose(file);
        app.click(app.button(QStringLiteral("Import\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.readConfig(), QByteArray("{\n    \"radios\": [\n    ]\n}\n"));
        QCOMPARE(app.rowCount(), 0);
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("Add your first radio"));
        QCOMPARE(app.statusText(), saved);
    }

    void importThatCannotBeReadChangesNothing_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("expectedMessage"); // a pattern for the whole dialog text
        QTest::newRow("radios is a string")
            << QByteArray(R"({"radios": "10.0.0.1"})")
            << QRegularExpression::escape(QStringLiteral("Cannot read file: Error Domain=Invalid configuration Code=1 \"")
                                          + messageText(QStringLiteral("Invalid configuration")) + u'"')
                   + u'$';
        QTest::newRow("not JSON")
            << QByteArray("radios = 10.0.0.1\n")
            << QStringLiteral("^Cannot read file: Error Domain=QJsonParseError Code=\\d+ \"JSON text is not valid: .+\" "
                              "UserInfo=\\{NSLocalizedDescription=JSON text is not valid: .+\\}$");
        QTest::newRow("invalid UTF-8")
            << QByteArray("{\"radios\": [{\"ipAddress\": \"10.0.0.1\", \"name\": \"\xff\xfe\"}]}")
            << QStringLiteral("^Cannot read file: Error Domain=QJsonParseError Code=\\d+ \"JSON text is not valid: invalid "
                              "UTF8 string at offset \\d+\\.\" UserInfo=.+$");
        // Valid JSON whose rewrite would change a value.
        QTest::newRow("value a double cannot hold")
            << QByteArray(R"({"radios": [], "stationId": 12345678901234567890})")
            << QRegularExpression::escape(QStringLiteral("Cannot read file: Error Domain=chosen.json holds a value Veldspar "
                                                         "cannot keep exactly (\"stationId\": 12345678901234567890). Edit "
                                                         "the file by hand, or remove the value, and try again."))
                   + QStringLiteral(".*$");
        QTest::newRow("repeated key")
            << QByteArray(R"({"radios": [], "radios": []})")
            << QRegularExpression::escape(QStringLiteral("Cannot read file: Error Domain=chosen.json holds the key \"radios\" "
                                                         "twice in one object"))
                   + QStringLiteral(".*$");
        // Valid JSON, but far larger than any radio list.
        QTest::newRow("17 MB") << (QByteArray("{\"radios\": [], \"padding\": \"") + QByteArray(17 * 1000 * 1000, 'x')
                                  + QByteArray("\"}"))
                              << QStringLiteral("^Cannot read file: Error Domain=QFile Code=\\d+ \".+/chosen\\.json: The "
                                                "file is larger than 16 MB, too large for a radio configuration\" "
                                                "UserInfo=.+$");
    }

    void importThatCannotBeReadChangesNothing()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, expectedMessage);
        TestWorld world;
        const QByteArray config = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"), QStringLiteral("Kept"))});
        world.writeConfig(config);
        RunningApp app(world);
        const QString draft = app.app().draftText();
        const QString file = world.root() + QStringLiteral("/chosen.json");
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(content);
        out.close();
        DialogAnswerer answers;
        answers.willChoose(file);
        app.click(app.button(QStringLiteral("Import\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.shown().size(), 2);
        const QString message = answers.shown().at(1).texts.value(0);
        QVERIFY2(QRegularExpression(expectedMessage).match(message).hasMatch(), qPrintable(message));
        QCOMPARE(app.app().draftText(), draft);
        QCOMPARE(world.readConfig(), config);
        QCOMPARE(app.statusText(), loaded);
        QVERIFY(world.calls().isEmpty());
    }

    // A pipe picked by mistake would leave the window waiting for a writer that never comes.
    void importOfAPipeIsRefusedWithoutWaiting()
    {
        TestWorld world;
        const QByteArray config = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"))});
        world.writeConfig(config);
        RunningApp app(world);
        const QString pipe = world.root() + QStringLiteral("/radios.json");
        QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
        // Should the app open it for reading after all, this writer lets it go again.
        std::atomic<bool> done = false;
        std::thread releaser([&] {
            for (int waited = 0; waited < 100 && !done; ++waited)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (!done) {
                const int fd = ::open(QFile::encodeName(pipe).constData(), O_WRONLY | O_NONBLOCK);
                if (fd >= 0)
                    ::close(fd);
            }
        });
        DialogAnswerer answers;
        answers.willChoose(pipe);
        app.click(app.button(QStringLiteral("Import\u2026")));
        const bool idle = app.waitUntilIdle();
        done = true;
        releaser.join();
        QVERIFY(idle);
        QCOMPARE(answers.shown().size(), 2);
        QCOMPARE(answers.shown().at(1).texts.value(0),
                 QStringLiteral("Cannot read file: Error Domain=QFile Code=5 \"%1: Not a regular file (a pipe, a device or a "
                                "socket), so not a radio configuration\" UserInfo={NSLocalizedDescription=%1: Not a regular "
                                "file (a pipe, a device or a socket), so not a radio configuration}")
                     .arg(pipe));
        QCOMPARE(world.readConfig(), config);
        QVERIFY(world.calls().isEmpty());
    }

    void importOfAnUnreadableFileSaysWhy()
    {
        TestWorld world;
        const QByteArray config = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"))});
        world.writeConfig(config);
        RunningApp app(world);
        const QString file = world.root() + QStringLiteral("/locked.json");
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(R"({"radios": []})");
        out.close();
        QVERIFY(QFile::setPermissions(file, QFileDevice::WriteOwner));
        DialogAnswerer answers;
        answers.willChoose(file);
        {
            WithoutFilePermissionOverride ordinaryUser;
            app.click(app.button(QStringLiteral("Import\u2026")));
            QVERIFY(app.waitUntilIdle());
        }
        QCOMPARE(answers.shown().size(), 2);
        QCOMPARE(answers.shown().at(1).texts.value(0),
                 QStringLiteral("Cannot read file: Error Domain=QFile Code=5 \"%1: Permission denied\" "
                                "UserInfo={NSLocalizedDescription=%1: Permission denied}")
                     .arg(file));
        QCOMPARE(world.readConfig(), config);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(config));
    }

    void importCannotChooseAFolder()
    {
        TestWorld world;
        const QByteArray config = configWith({});
        world.writeConfig(config);
        RunningApp app(world);
        const QString folder = world.root() + QStringLiteral("/folder.json");
        QVERIFY(QDir().mkpath(folder));
        DialogAnswerer answers;
        answers.willChoose(folder);
        answers.willPress(QStringLiteral("Cancel"));
        app.click(app.button(QStringLiteral("Import\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.shown().size(), 2);
        QVERIFY(answers.shown().at(0).stayedOpen); // picking the folder only opened it
        QVERIFY(!answers.shown().at(1).stayedOpen);
        QCOMPARE(world.readConfig(), config);
        QVERIFY(world.calls().isEmpty());
        // Should a folder's path reach the reader anyway, it says so in the same words.
        try {
            readConfigurationFile(folder);
            QFAIL("a folder was read");
        } catch (const Error &error) {
            QCOMPARE(error.description(),
                     QStringLiteral("Error Domain=QFile Code=5 \"%1: Is a folder, not a file\" "
                                    "UserInfo={NSLocalizedDescription=%1: Is a folder, not a file}")
                         .arg(folder));
        }
    }

    void importWhileSavingIsIgnored()
    {
        TestWorld world;
        world.writeConfig(configWith({radio(QStringLiteral("10.0.0.1"), QString(), QStringLiteral("One"), QString())}));
        RunningApp app(world);
        world.answerDiscover(QStringLiteral("10.0.0.1"), "{\"serialNumber\":\"A-1\",\"version\":\"3.3\"}\n", 0, true);
        DialogAnswerer answers;
        app.click(app.removeButton()); // a save with a probe that waits
        QVERIFY(app.app().isBusy());
        app.click(app.button(QStringLiteral("Import\u2026")));
        QTest::qWait(100);
        QVERIFY(answers.shown().isEmpty());
        world.release();
        QVERIFY(app.waitUntilIdle());
    }
};

QTEST_MAIN(ConfigTest)
#include "tst_config.moc"
