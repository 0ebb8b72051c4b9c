#include "Commands.h"

#include "ArchiveWriter.h"
#include "KeyFile.h"
#include "updates/Appcast.h"
#include "updates/BundleInfo.h"
#include "updates/Eligibility.h"
#include "updates/Fetch.h"
#include "updates/Signature.h"
#include "updates/UpdaterConfiguration.h"
#include "updates/StagedUpdate.h"
#include "updates/SystemVersion.h"
#include "updates/VersionComparator.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <optional>

namespace {
const QString usage = QStringLiteral(
    "Usage: veldspar-release COMMAND …\n"
    "  generate-keys [--key-file FILE]     create a signing key (kept in FILE, never in a repository)\n"
    "                                      and print its public half for Info.plist\n"
    "  public-key [--key-file FILE]        print the public key of an existing signing key\n"
    "  sign FILE [--key-file FILE]         print sparkle:edSignature=\"…\" length=\"N\" for FILE\n"
    "  verify FILE SIGNATURE PUBLIC_KEY    check a signature over FILE's exact bytes\n"
    "  compare-versions A B                print <, = or > as updates order versions\n"
    "  check-feed FEED_URL_OR_FILE --current-version V [--system-version R] [--scheduled]\n"
    "             [--skipped-version V] [--rollout-group 0-6] [--base-url URL]\n"
    "                                      explain which item the updater would offer, and why\n"
    "  archive BUNDLE ARCHIVE              pack BUNDLE into ARCHIVE (.tar.xz)\n"
    "  appcast-item ARCHIVE --bundle BUNDLE [--url URL] [--key-file FILE]\n"
    "                                      print the feed item for a release archive\n"
    "  bundle-version BUNDLE               print the bundle's CFBundleVersion\n"
    "The default key file is ~/.config/veldspar-release/ed25519-private-key.\n");

struct Misuse
{
    QString message;
};

// Positional arguments and --name value options; --scheduled is the only flag.
struct Arguments
{
    QStringList positional;
    QHash<QString, QString> options;
    bool scheduled = false;

    QString option(const QString &name, const QString &fallback = QString()) const
    {
        return options.value(name, fallback);
    }
};

Arguments parse(const QStringList &arguments, const QStringList &allowedOptions)
{
    Arguments parsed;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == u"--scheduled" && allowedOptions.contains(argument)) {
            parsed.scheduled = true;
        } else if (argument.startsWith(QStringLiteral("--")) && argument.size() > 2) {
            if (!allowedOptions.contains(argument))
                throw Misuse{QStringLiteral("unknown option %1").arg(argument)};
            if (i + 1 >= arguments.size())
                throw Misuse{QStringLiteral("%1 needs a value").arg(argument)};
            parsed.options.insert(argument, arguments.at(++i));
        } else {
            parsed.positional << argument;
        }
    }
    return parsed;
}

void expectPositional(const Arguments &arguments, qsizetype count, const QString &command)
{
    if (arguments.positional.size() != count)
        throw Misuse{QStringLiteral("%1 takes %2 argument%3").arg(command).arg(count).arg(count == 1 ? QString() : QStringLiteral("s"))};
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw Error::fromFile(file, path);
    return file.readAll();
}

QString signatureLine(const QByteArray &bytes, const QByteArray &seed)
{
    return QStringLiteral("sparkle:edSignature=\"%1\" length=\"%2\"")
        .arg(QString::fromLatin1(signDetached(bytes, seed).toBase64()))
        .arg(bytes.size());
}

QString attribute(const QString &value)
{
    return value.toHtmlEscaped();
}

int generateKeys(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 0, QStringLiteral("generate-keys"));
    const QString path = arguments.option(QStringLiteral("--key-file"), defaultKeyFilePath());
    const Ed25519KeyPair pair = generateKeyPair();
    writeKeyFile(path, pair.seed);
    out << "A new signing key was saved in " << path << " (readable by you only; keep it out of every repository).\n"
        << "Add its public key to Info.plist:\n\n"
        << "    <key>SUPublicEDKey</key>\n"
        << "    <string>" << QString::fromLatin1(pair.publicKey.toBase64()) << "</string>\n";
    return 0;
}

int publicKey(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 0, QStringLiteral("public-key"));
    const QByteArray seed = readKeyFile(arguments.option(QStringLiteral("--key-file"), defaultKeyFilePath()));
    out << QString::fromLatin1(keyPairFromSeed(seed).publicKey.toBase64()) << '\n';
    return 0;
}

int sign(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 1, QStringLiteral("sign"));
    const QByteArray seed = readKeyFile(arguments.option(QStringLiteral("--key-file"), defaultKeyFilePath()));
    out << signatureLine(readFile(arguments.positional.at(0)), seed) << '\n';
    return 0;
}

int verify(const Arguments &arguments, QTextStream &out, QTextStream &err)
{
    expectPositional(arguments, 3, QStringLiteral("verify"));
    const QString path = arguments.positional.at(0);
    const QByteArray bytes = readFile(path);
    QString problem;
    const auto signature = decodeSignature(arguments.positional.at(1), &problem);
    if (!signature) {
        err << "The signature is malformed: " << problem << ".\n";
        return 1;
    }
    const QByteArray key = decodePublicEdKey(arguments.positional.at(2));
    if (!verifyDetached(bytes, *signature, key)) {
        err << "The signature does NOT match " << path << " (" << bytes.size()
            << " bytes): the file was changed after signing, or signed with another key.\n";
        return 1;
    }
    out << "The signature is valid for " << path << " (" << bytes.size() << " bytes).\n";
    return 0;
}

int compare(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 2, QStringLiteral("compare-versions"));
    const int order = compareVersions(arguments.positional.at(0), arguments.positional.at(1));
    out << (order < 0 ? "<" : order > 0 ? ">" : "=") << '\n';
    return 0;
}

int checkFeed(const Arguments &arguments, QTextStream &out, QTextStream &err)
{
    expectPositional(arguments, 1, QStringLiteral("check-feed"));
    if (!arguments.options.contains(QStringLiteral("--current-version")))
        throw Misuse{QStringLiteral("check-feed needs --current-version V")};
    const QString source = arguments.positional.at(0);
    const QUrl asUrl(source);
    const QString scheme = asUrl.scheme().toLower();

    QByteArray xml;
    QUrl base;
    if (scheme == u"http" || scheme == u"https") {
        FetchRequest request;
        request.url = asUrl;
        request.what = QStringLiteral("the update feed");
        request.failureCode = UpdateErrorCode::FeedUnavailable;
        const FetchResult result = fetchAndWait(request);
        if (result.error)
            throw *result.error;
        xml = result.body;
        base = asUrl;
    } else {
        xml = readFile(scheme == u"file" ? asUrl.toLocalFile() : source);
        if (arguments.options.contains(QStringLiteral("--base-url")))
            base = QUrl(arguments.option(QStringLiteral("--base-url")));
    }

    CheckContext context;
    context.currentVersion = arguments.option(QStringLiteral("--current-version"));
    context.systemVersion = arguments.option(QStringLiteral("--system-version"), systemVersion());
    context.kind = arguments.scheduled ? CheckKind::Scheduled : CheckKind::UserInitiated;
    context.skippedVersion = arguments.option(QStringLiteral("--skipped-version"));
    context.now = QDateTime::currentDateTimeUtc();
    bool ok = true;
    context.rolloutGroup = arguments.option(QStringLiteral("--rollout-group"), QStringLiteral("0")).toInt(&ok);
    if (!ok || context.rolloutGroup < 0 || context.rolloutGroup >= phasedRolloutGroups)
        throw Misuse{QStringLiteral("--rollout-group takes a number from 0 to %1").arg(phasedRolloutGroups - 1)};

    Appcast appcast;
    try {
        appcast = parseAppcast(xml, base);
    } catch (const Error &error) {
        err << error.localizedDescription() << '\n';
        return 1;
    }
    const UpdateChoice choice = chooseUpdate(appcast, context);
    out << "Feed: " << source;
    if (!appcast.title.isEmpty())
        out << " (\u201c" << appcast.title << "\u201d)";
    out << ", " << appcast.items.size() << (appcast.items.size() == 1 ? " item\n" : " items\n");
    out << "Checking as version " << context.currentVersion << " on system version " << context.systemVersion << ", "
        << (arguments.scheduled ? "a scheduled check" : "a user-initiated check") << '\n';
    for (const ItemVerdict &verdict : choice.verdicts) {
        const char *fate = verdict.chosen ? "offered" : verdict.eligible ? "passed over" : "rejected";
        QString explanation = verdict.explanation;
        if (verdict.chosen && explanation.startsWith(QStringLiteral("offered: ")))
            explanation = explanation.mid(9);
        out << "  " << verdict.position << ". " << verdict.label << ": " << fate << " \u2014 " << explanation << '\n';
    }
    out << "Would offer " << choice.summary << '\n';
    // Choosing does not look at the download; a release manager wants to know now.
    if (choice.item && !choice.item->isInformationalFor(context.currentVersion)) {
        try {
            checkEnclosure(*choice.item);
        } catch (const Error &error) {
            out << "But its download would be refused: " << error.localizedDescription() << '\n';
        }
    }
    return 0;
}

int archive(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 2, QStringLiteral("archive"));
    const QString bundle = arguments.positional.at(0);
    const QString destination = arguments.positional.at(1);
    readBundleInfo(bundle); // only bundles are packed
    writeArchive(folderEntries(bundle), destination, ArchiveFormat::TarXz);
    out << destination << '\n';
    return 0;
}

int appcastItem(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 1, QStringLiteral("appcast-item"));
    if (!arguments.options.contains(QStringLiteral("--bundle")))
        throw Misuse{QStringLiteral("appcast-item needs --bundle BUNDLE")};
    const QString archivePath = arguments.positional.at(0);
    const BundleInfo bundle = readBundleInfo(arguments.option(QStringLiteral("--bundle")));
    QUrl url(arguments.option(QStringLiteral("--url")));
    if (url.isEmpty()) {
        const QUrl feed(bundle.feedUrl.value_or(QString()));
        if (!feed.isValid() || feed.isRelative())
            throw Misuse{QStringLiteral("the bundle has no SUFeedURL to place the archive beside; give --url")};
        url = feed.resolved(QUrl(QFileInfo(archivePath).fileName()));
    }
    const QByteArray seed = readKeyFile(arguments.option(QStringLiteral("--key-file"), defaultKeyFilePath()));
    const QByteArray bytes = readFile(archivePath);
    out << "<item>\n"
        << "    <title>" << attribute(bundle.name + u' ' + bundle.shortVersion) << "</title>\n"
        << "    <pubDate>" << QDateTime::currentDateTimeUtc().toString(Qt::RFC2822Date) << "</pubDate>\n"
        << "    <sparkle:version>" << attribute(bundle.version) << "</sparkle:version>\n"
        << "    <sparkle:shortVersionString>" << attribute(bundle.shortVersion) << "</sparkle:shortVersionString>\n"
        << "    <enclosure url=\"" << attribute(url.toString(QUrl::FullyEncoded)) << "\" sparkle:os=\"linux\" "
        << "type=\"application/x-xz\" " << signatureLine(bytes, seed) << "/>\n"
        << "</item>\n";
    return 0;
}

int bundleVersion(const Arguments &arguments, QTextStream &out)
{
    expectPositional(arguments, 1, QStringLiteral("bundle-version"));
    out << readBundleInfo(arguments.positional.at(0)).version << '\n';
    return 0;
}
} // namespace

int runReleaseTool(const QStringList &arguments, QTextStream &out, QTextStream &err)
{
    if (arguments.isEmpty() || arguments.first() == u"--help" || arguments.first() == u"help") {
        (arguments.isEmpty() ? err : out) << usage;
        return arguments.isEmpty() ? 2 : 0;
    }
    const QString command = arguments.first();
    const QStringList rest = arguments.mid(1);
    const QString keyFile = QStringLiteral("--key-file");
    try {
        if (command == u"generate-keys")
            return generateKeys(parse(rest, {keyFile}), out);
        if (command == u"public-key")
            return publicKey(parse(rest, {keyFile}), out);
        if (command == u"sign")
            return sign(parse(rest, {keyFile}), out);
        if (command == u"verify")
            return verify(parse(rest, {}), out, err);
        if (command == u"compare-versions")
            return compare(parse(rest, {}), out);
        if (command == u"check-feed")
            return checkFeed(parse(rest, {QStringLiteral("--current-version"), QStringLiteral("--system-version"),
                                          QStringLiteral("--scheduled"), QStringLiteral("--skipped-version"),
                                          QStringLiteral("--rollout-group"), QStringLiteral("--base-url")}),
                             out, err);
        if (command == u"archive")
            return archive(parse(rest, {}), out);
        if (command == u"appcast-item")
            return appcastItem(parse(rest, {QStringLiteral("--bundle"), QStringLiteral("--url"), keyFile}), out);
        if (command == u"bundle-version")
            return bundleVersion(parse(rest, {}), out);
        throw Misuse{QStringLiteral("unknown command %1").arg(command)};
    } catch (const Misuse &misuse) {
        err << "veldspar-release: " << misuse.message << "\n\n" << usage;
        return 2;
    } catch (const Error &error) {
        err << "veldspar-release: " << error.localizedDescription() << '\n';
        return 1;
    }
}
