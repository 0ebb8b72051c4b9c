#include "TestSupport.h"

#include "app/AppDelegate.h"
#include "discovery/ProbeOutput.h"
#include "platform/Error.h"

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
};

QTEST_MAIN(DiscoveryTest)
#include "tst_discovery.moc"
