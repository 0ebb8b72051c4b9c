#include "TestSupport.h"

#include "app/AppDelegate.h"
#include "app/StatusLabel.h"
#include "discovery/ProbeOutput.h"
#include "discovery/RadioAddition.h"
#include "platform/Error.h"

#include <QApplication>
#include <QClipboard>
#include <QJsonArray>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QtTest>

namespace {
ProcessResult finished(const QByteArray &output, int status = 0)
{
    ProcessResult result;
    result.output = output;
    result.exitCode = status;
    return result;
}

// Runs the read of the output and returns the error it throws.
Error failureOf(const ProcessResult &result)
{
    try {
        radioFromProbeOutput(result);
    } catch (const Error &error) {
        return error;
    }
    return Error(QStringLiteral("no error was thrown"), -1);
}

// Whether a process runs; a zombie that nobody has reaped yet has ended as well.
bool processRuns(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.read(4096);
    const qsizetype nameEnd = line.lastIndexOf(')'); // the state follows the name in brackets
    return nameEnd >= 0 && line.size() > nameEnd + 2 && line.at(nameEnd + 2) != 'Z';
}

void verifyOutputError(const Error &error, const QString &output)
{
    QCOMPARE(error.domain(), output);
    QCOMPARE(error.code(), 1);
    QCOMPARE(error.localizedDescription(), output);
    QCOMPARE(error.userInfo().size(), 1);
}
} // namespace

class DiscoveryTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The probe's child must not outlive the app, whether the user quits or the app crashes,
    // even while the radio never answers.
    void probeEndsWhenTheAppLeavesDuringIt_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("quit") << QStringLiteral("quit");
        QTest::newRow("crash") << QStringLiteral("crash");
    }

    void probeEndsWhenTheAppLeavesDuringIt()
    {
        QFETCH(QString, how);
        TestWorld world;
        const QString address = QStringLiteral("192.0.2.1");
        world.answerDiscover(address, QByteArray(), 0, true); // held: the radio never answers

        QProcess app;
        app.setProcessChannelMode(QProcess::ForwardedChannels);
        app.start(QStringLiteral(VELDSPAR_QUIT_DURING_PROBE), {world.bundle(), address, world.callPidFile(0), how});
        QVERIFY(app.waitForFinished(20000));
        if (how == QStringLiteral("quit")) {
            QCOMPARE(app.exitStatus(), QProcess::NormalExit);
            QCOMPARE(app.exitCode(), 0);
        } else {
            QCOMPARE(app.exitStatus(), QProcess::CrashExit);
        }
        QCOMPARE(world.discoveredAddresses(), QStringList{address});

        const qint64 probe = readTestFile(world.callPidFile(0)).trimmed().toLongLong();
        QVERIFY(probe > 0);
        QTRY_VERIFY_WITH_TIMEOUT(!processRuns(probe), 10000);
    }

    // A radio the configuration could not hold afterwards is not added: the saved file would be
    // refused by the service, or lose the key.
    void answerWithAnUnpairedSurrogateIsRefused()
    {
        const Error error = failureOf(finished("Connecting\n{\"serial\\udc00Number\":\"0621-1104-6601-1641\"}\n"));
        QCOMPARE(error.domain(), QStringLiteral("QJsonParseError"));
        QVERIFY2(error.localizedDescription().contains(QStringLiteral("surrogate")), qPrintable(error.localizedDescription()));
    }

    void progressLineThenObjectYieldsTheObject()
    {
        const QJsonObject answer = radioFromProbeOutput(
            finished("Connecting to 10.0.0.5\u2026\n{\"serialNumber\":\"1121-1104-6700-2912\",\"name\":\"Shack\"}\n"));
        QCOMPARE(answer.value(QStringLiteral("serialNumber")).toString(), QStringLiteral("1121-1104-6700-2912"));
        QCOMPARE(answer.value(QStringLiteral("name")).toString(), QStringLiteral("Shack"));
    }

    void emptyLinesAfterTheObjectAreDropped()
    {
        const QJsonObject answer = radioFromProbeOutput(finished("{\"serialNumber\":\"A\"}\n\n\n\n"));
        QCOMPARE(answer, QJsonObject({{QStringLiteral("serialNumber"), QStringLiteral("A")}}));
    }

    void plainTextAfterTheObjectFailsWithTheParserError()
    {
        const Error error = failureOf(finished("{\"serialNumber\":\"A\"}\ndone\n"));
        QCOMPARE(error.domain(), QStringLiteral("QJsonParseError"));
        QVERIFY(error.localizedDescription().startsWith(QStringLiteral("JSON text is not valid: ")));
    }

    void lastLineArrayFailsWithTheWholeOutput()
    {
        const QByteArray output("probing\n[1, 2]\n");
        verifyOutputError(failureOf(finished(output)), QString::fromUtf8(output));
    }

    void nonZeroExitFailsWithTheWholeOutputEvenWithJson()
    {
        const QByteArray output("Cannot reach 10.0.0.9: connection refused.\n{\"serialNumber\":\"A\"}\n");
        verifyOutputError(failureOf(finished(output, 2)), QString::fromUtf8(output));
    }

    void emptyOutputFailsWithAnEmptyDescription()
    {
        verifyOutputError(failureOf(finished("")), QString());
        verifyOutputError(failureOf(finished("\n\n")), QStringLiteral("\n\n"));
    }

    void carriageReturnsDoNotSplitLines()
    {
        // "\r\n" is not a line break here: the object and the trailer stay one line, which
        // is not JSON.
        const Error error = failureOf(finished("{\"serialNumber\":\"A\"}\r\nok\r\n"));
        QCOMPARE(error.domain(), QStringLiteral("QJsonParseError"));
    }

    void bareValuesOnTheLastLineAreNotObjects()
    {
        QCOMPARE(failureOf(finished("42\n")).domain(), QStringLiteral("QJsonParseError"));
        QCOMPARE(failureOf(finished("\"text\"\n")).domain(), QStringLiteral("QJsonParseError"));
    }

    void diagnosticsOnStandardErrorAfterTheObjectMakeItFail()
    {
        TestWorld world;
        RunningApp app(world);
        // The stand-in prints what it is given; a real child writes the trailer to stderr.
        const QString script = world.resources() + QStringLiteral("/Veldspar");
        QFile::remove(script);
        QFile file(script);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/sh\necho '{\"serialNumber\":\"A\"}'\necho 'warning: slow reply' >&2\n");
        file.close();
        file.setPermissions(file.permissions() | QFile::ExeOwner);
        try {
            app.app().discover(QStringLiteral("10.0.0.7"));
            QFAIL("accepted");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("QJsonParseError"));
        }
    }

    void addressWithSpacesIsOneArgument()
    {
        TestWorld world;
        RunningApp app(world);
        const QString address = QStringLiteral("my radio  at home");
        world.answerRadio(address, radio(address, QStringLiteral("S-1")));
        const QJsonObject answer = app.app().discover(address);
        QCOMPARE(answer.value(QStringLiteral("serialNumber")).toString(), QStringLiteral("S-1"));
        QCOMPARE(world.calls(), QList<QStringList>({{QStringLiteral("--discover"), address}}));
    }

    void failingExecutableShowsEverythingItPrinted()
    {
        TestWorld world;
        RunningApp app(world);
        world.answerDiscover(QStringLiteral("10.1.1.1"), "Trying 10.1.1.1:4992\nNo answer: is the VPN connected?\n", 1);
        try {
            app.app().discover(QStringLiteral("10.1.1.1"));
            QFAIL("accepted");
        } catch (const Error &error) {
            QCOMPARE(error.localizedDescription(),
                     QStringLiteral("Trying 10.1.1.1:4992\nNo answer: is the VPN connected?\n"));
        }
    }

    void missingExecutableThrowsTheLaunchError()
    {
        TestWorld world;
        RunningApp app(world);
        world.removeServiceExecutable();
        try {
            app.app().discover(QStringLiteral("10.1.1.1"));
            QFAIL("accepted");
        } catch (const Error &error) {
            QCOMPARE(error.domain(), QStringLiteral("QProcess"));
            QVERIFY(error.localizedDescription().startsWith(world.resources() + QStringLiteral("/Veldspar: ")));
        }
    }

    // Adding a radio by its address, through "Add Radio…" and its dialog.

    void addRadioAsksForTheAddress()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("Cancel"), QStringLiteral("10.0.0.5"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QCOMPARE(answers.shown().size(), 1);
        const ShownDialog &asked = answers.shown().first();
        QCOMPARE(asked.texts, QStringList({QStringLiteral("Add Radio"),
                                           QStringLiteral("Connect your VPN and enter the radio\u2019s IP address. Its "
                                                          "details will be read automatically.")}));
        QVERIFY(asked.hasCancel);
        QVERIFY(asked.hasInput);
        QCOMPARE(asked.placeholder, QStringLiteral("Radio IPv4 address"));
    }

    void cancellingTheQuestionChangesNothing()
    {
        TestWorld world;
        const QByteArray config = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"), QStringLiteral("One"))});
        world.writeConfig(config);
        RunningApp app(world);
        const QString draft = app.app().draftText();
        const QString status = app.statusText();
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("Cancel"), QStringLiteral("10.0.0.5"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.shown().size(), 1);
        QCOMPARE(app.statusText(), status);
        QCOMPARE(app.app().draftText(), draft);
        QCOMPARE(world.readConfig(), config);
        QVERIFY(world.calls().isEmpty());
    }

    void addedRadioAppearsSavedWithItsName()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        const QJsonObject answer{{QStringLiteral("ipAddress"), QStringLiteral("10.8.0.20")},
                                 {QStringLiteral("serialNumber"), QStringLiteral("1121-1104-6700-2912")},
                                 {QStringLiteral("name"), QStringLiteral("RemoteShack")},
                                 {QStringLiteral("model"), QStringLiteral("FLEX-6600")},
                                 {QStringLiteral("callsign"), QStringLiteral("W1AW")},
                                 {QStringLiteral("version"), QStringLiteral("3.3.32.8203")},
                                 {QStringLiteral("enabled"), true}};
        world.answerRadio(QStringLiteral("10.8.0.20"), answer);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.8.0.20"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(answers.shown().size(), 1); // only the question: no error
        QCOMPARE(app.statusText(),
                 QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically."));
        QCOMPARE(app.rowCount(), 1);
        QCOMPARE(app.rowTexts(0), QStringList({QStringLiteral("RemoteShack"), QStringLiteral("10.8.0.20  \u00B7  Enabled")}));
        QCOMPARE(app.detailTitle()->text(), QStringLiteral("RemoteShack"));
        // The entry is the answer exactly; the file on disk holds it in the written form.
        const QJsonObject written = parseObject(world.readConfig());
        QCOMPARE(written.value(QStringLiteral("radios")).toArray(), QJsonArray({answer}));
        QCOMPARE(written.value(QStringLiteral("broadcastIntervalMs")).toInt(), 3000);
        QCOMPARE(world.readConfig(), QJsonDocument(written).toJson(QJsonDocument::Indented));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(world.readConfig()));
        // One probe for the address; the save found nothing left to identify.
        QCOMPARE(world.discoveredAddresses(), QStringList({QStringLiteral("10.8.0.20")}));
    }

    void addressIsTrimmedBeforeTheProbe()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        world.answerRadio(QStringLiteral("10.0.0.5"), radio(QStringLiteral("10.0.0.5"), QStringLiteral("S-5"), QStringLiteral("Five")));
        // Pasted with leading spaces and a trailing line break, as copied from a note.
        QGuiApplication::clipboard()->setText(QStringLiteral("   10.0.0.5\n"));
        bool pasted = false;
        QTimer poll;
        poll.setInterval(10);
        connect(&poll, &QTimer::timeout, [&] {
            QWidget *modal = QApplication::activeModalWidget();
            if (!modal || pasted)
                return;
            auto *field = modal->findChild<QLineEdit *>();
            if (!field)
                return;
            pasted = true;
            field->setFocus();
            QTest::keyClick(field, Qt::Key_V, Qt::ControlModifier);
            field->insert(QStringLiteral("\n")); // a line edit folds a pasted break; keep one in the text
            QVERIFY(field->text().endsWith(u'\n'));
            QTest::mouseClick(modal->findChild<QPushButton *>(), Qt::LeftButton);
        });
        poll.start();
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        QVERIFY(pasted);
        QCOMPARE(world.discoveredAddresses().value(0), QStringLiteral("10.0.0.5"));
        QCOMPARE(app.rowCount(), 1);
    }

    void addressThatIsNoAddressStillReachesTheProbe_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::newRow("a word") << QStringLiteral("shack");
        QTest::newRow("empty") << QString(u""_qs);
    }

    void addressThatIsNoAddressStillReachesTheProbe()
    {
        QFETCH(QString, typed);
        TestWorld world;
        const QByteArray config = configWith({});
        world.writeConfig(config);
        RunningApp app(world);
        const QByteArray failure = "Veldspar cannot find a radio at \"" + typed.toUtf8() + "\": no such host.\n";
        world.answerDiscover(typed, failure, 1);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), typed);
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(world.discoveredAddresses(), QStringList({typed}));
        QCOMPARE(answers.titles(), QStringList({QStringLiteral("Add Radio"), QString::fromUtf8(failure)}));
        QCOMPARE(app.statusText(), QStringLiteral("Discovery failed; no entry was added."));
        QCOMPARE(world.readConfig(), config);
        QCOMPARE(app.rowCount(), 0);
    }

    void readingStatusShowsWhileTheProbeRuns()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        world.answerDiscover(QStringLiteral("10.0.0.9"), "{\"serialNumber\":\"S-9\",\"version\":\"3.3\"}\n", 0, true);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.9"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QCOMPARE(app.statusText(), QStringLiteral("Reading radio details from 10.0.0.9\u2026"));
        QVERIFY(app.app().isBusy());
        // A second request while the first one runs asks nothing at all.
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QTest::qWait(100);
        QCOMPARE(answers.shown().size(), 1);
        world.release();
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(app.rowCount(), 1);
    }

    void emptyRadioListTakesTheAnswerAsItsOnlyEntry()
    {
        TestWorld world;
        world.writeConfig(R"({"broadcastIntervalMs": 1500, "radios": [], "zone": "home"})");
        RunningApp app(world);
        const QJsonObject answer = radio(QStringLiteral("10.0.0.2"), QStringLiteral("S-2"), QStringLiteral("Two"));
        world.answerRadio(QStringLiteral("10.0.0.2"), answer);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.2"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        const QJsonObject written = parseObject(world.readConfig());
        QCOMPARE(written, QJsonObject({{QStringLiteral("broadcastIntervalMs"), 1500},
                                       {QStringLiteral("radios"), QJsonArray({answer})},
                                       {QStringLiteral("zone"), QStringLiteral("home")}}));
    }

    void draftWithoutRadiosShowsTheInvalidConfigurationError()
    {
        TestWorld world;
        world.writeConfig("{}");
        RunningApp app(world);
        world.answerRadio(QStringLiteral("10.0.0.2"), radio(QStringLiteral("10.0.0.2"), QStringLiteral("S-2")));
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.2"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.titles().value(1),
                 QStringLiteral("The operation couldn\u2019t be completed. (Invalid configuration error 1.)"));
        QCOMPARE(app.statusText(), QStringLiteral("Discovery failed; no entry was added."));
        QCOMPARE(app.app().draftText(), QStringLiteral("{}"));
        QCOMPARE(world.readConfig(), QByteArray("{}"));
    }

    void draftThatIsNotJsonShowsTheParserError()
    {
        TestWorld world;
        world.writeConfig("{\"radios\": [");
        RunningApp app(world);
        world.answerRadio(QStringLiteral("10.0.0.2"), radio(QStringLiteral("10.0.0.2"), QStringLiteral("S-2")));
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.2"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        QVERIFY(answers.titles().value(1).startsWith(QStringLiteral("JSON text is not valid: ")));
        QCOMPARE(app.statusText(), QStringLiteral("Discovery failed; no entry was added."));
    }

    void duplicateIsRefused_data()
    {
        QTest::addColumn<QJsonObject>("existing");
        QTest::addColumn<QJsonObject>("answer");
        QTest::newRow("same address, other serial")
            << radio(QStringLiteral("10.0.0.7"), QStringLiteral("OLD-1")) << radio(QStringLiteral("10.0.0.7"), QStringLiteral("NEW-2"));
        QTest::newRow("other address, same serial")
            << radio(QStringLiteral("10.0.0.8"), QStringLiteral("SAME-1")) << radio(QStringLiteral("10.0.0.7"), QStringLiteral("SAME-1"));
        QTest::newRow("no serial on either side")
            << radio(QStringLiteral("10.0.0.8"), QString()) << radio(QStringLiteral("10.0.0.7"), QString());
    }

    void duplicateIsRefused()
    {
        QFETCH(QJsonObject, existing);
        QFETCH(QJsonObject, answer);
        TestWorld world;
        const QByteArray config = configWith({existing});
        world.writeConfig(config);
        RunningApp app(world);
        world.answerRadio(QStringLiteral("10.0.0.7"), answer);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.7"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.titles().value(1), QStringLiteral("This radio is already in the configuration."));
        // The status line still says what was being done; nothing changed.
        QCOMPARE(app.statusText(), QStringLiteral("Reading radio details from 10.0.0.7\u2026"));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(config));
        QCOMPARE(world.readConfig(), config);
        QCOMPARE(app.rowCount(), 1);
    }

    void duplicateTestComparesTheTypedAddressOnly()
    {
        // The answer's own address is not what counts: the typed one is.
        const RadioEntries listed{radio(QStringLiteral("10.0.0.1"), QStringLiteral("A"))};
        QVERIFY(!isAlreadyListed(listed, QStringLiteral("10.0.0.2"), radio(QStringLiteral("10.0.0.1"), QStringLiteral("B"))));
        QVERIFY(isAlreadyListed(listed, QStringLiteral("10.0.0.1"), radio(QStringLiteral("10.9.9.9"), QStringLiteral("B"))));
        // A serial that is a number is missing, and so equals an answer without one.
        RadioEntry numbered = radio(QStringLiteral("10.0.0.3"), QString());
        numbered.insert(QStringLiteral("serialNumber"), 42);
        QVERIFY(isAlreadyListed({numbered}, QStringLiteral("10.0.0.4"), QJsonObject()));
        QVERIFY(!isAlreadyListed({numbered}, QStringLiteral("10.0.0.4"), radio(QStringLiteral("x"), QStringLiteral("42"))));
    }

    void reloadDuringTheProbeDropsTheAnswer()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        world.answerDiscover(QStringLiteral("10.0.0.9"), "{\"serialNumber\":\"S-9\",\"version\":\"3.3\"}\n", 0, true);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.9"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QCOMPARE(app.statusText(), QStringLiteral("Reading radio details from 10.0.0.9\u2026"));

        const QByteArray changed = configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"), QStringLiteral("Other"))});
        world.writeConfig(changed);
        app.click(app.button(QStringLiteral("Reload")));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(changed));
        world.release();
        QVERIFY(app.waitUntilIdle());

        QCOMPARE(answers.titles().value(1), QStringLiteral("The draft changed. Please discover again."));
        QCOMPARE(app.statusText(), QStringLiteral("Reading radio details from 10.0.0.9\u2026"));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(changed));
        QCOMPARE(world.readConfig(), changed);
        QCOMPARE(app.rowTexts(0).value(0), QStringLiteral("Other"));
    }

    void reloadDuringAFailingProbeReportsOnlyTheChange()
    {
        TestWorld world;
        world.writeConfig(configWith({}));
        RunningApp app(world);
        world.answerDiscover(QStringLiteral("10.0.0.9"), "No answer from 10.0.0.9.\n", 1, true);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.9"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        world.writeConfig(configWith({radio(QStringLiteral("10.0.0.1"), QStringLiteral("A-1"))}));
        app.click(app.button(QStringLiteral("Reload")));
        world.release();
        QVERIFY(app.waitUntilIdle());
        QCOMPARE(answers.titles().mid(1), QStringList({QStringLiteral("The draft changed. Please discover again.")}));
    }

    void successfulAdditionRewritesTheWholeDraftSortedThenSaves()
    {
        TestWorld world;
        // Stored compactly and unsorted, with keys the app does not know.
        const QByteArray stored = R"({"radios":[{"serialNumber":"A-1","ipAddress":"10.0.0.1","version":"3.3","zz":1,"enabled":false}],"extra":{"b":2,"a":1},"broadcastIntervalMs":2000})";
        world.writeConfig(stored);
        RunningApp app(world);
        QCOMPARE(app.app().draftText(), QString::fromUtf8(stored));
        const QJsonObject answer = radio(QStringLiteral("10.0.0.2"), QStringLiteral("B-2"), QStringLiteral("Second"));
        world.answerRadio(QStringLiteral("10.0.0.2"), answer);
        DialogAnswerer answers;
        answers.willPress(QStringLiteral("OK"), QStringLiteral("10.0.0.2"));
        app.click(app.button(QStringLiteral("Add Radio\u2026")));
        QVERIFY(app.waitUntilIdle());

        QJsonObject expected = parseObject(stored);
        QJsonArray radios = expected.value(QStringLiteral("radios")).toArray();
        radios.append(answer);
        expected.insert(QStringLiteral("radios"), radios);
        const QByteArray rewritten = QJsonDocument(expected).toJson(QJsonDocument::Indented);
        // What the import received is the draft at the time of the save.
        QCOMPARE(world.importedFiles(), QList<QByteArray>({rewritten}));
        QCOMPARE(app.app().draftText(), QString::fromUtf8(rewritten));
        QCOMPARE(world.readConfig(), rewritten);
        QCOMPARE(app.rowCount(), 2);
        QCOMPARE(app.statusText(),
                 QStringLiteral("Saved. Previous configuration backed up; running service reloads automatically."));
    }
};

QTEST_MAIN(DiscoveryTest)
#include "tst_discovery.moc"
