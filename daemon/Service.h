#pragma once

#include "daemon/BeaconSender.h"
#include "daemon/ConfigWatcher.h"
#include "daemon/Configuration.h"
#include "daemon/InterfaceWatch.h"
#include "daemon/RadioWatch.h"
#include "daemon/SerialClaims.h"
#include "daemon/StateFile.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>

#include <optional>

struct ServiceSettings
{
    QString configPath;
    QList<Destination> destinations; // empty: every local network, as the radio would be announced there
    int keepAliveMs = defaultKeepAliveMs; // how often each radio must answer
};

// The service: keeps one RadioWatch per enabled radio of the configuration, and follows the
// configuration file as it changes. A file that cannot be used keeps the last good
// configuration.
class Service : public QObject
{
public:
    explicit Service(const ServiceSettings &settings, QObject *parent = nullptr);
    ~Service() override;

private:
    void reload();
    void apply(const Configuration &configuration);
    void note(const QString &line);
    QList<RadioLiveState> liveStates() const;

    ServiceSettings m_settings;
    BeaconSender m_sender;
    SerialClaims m_claims;
    InterfaceWatch m_interfaces;
    ConfigWatcher m_watcher;
    QMap<QString, RadioWatch *> m_watches; // by address and serial
    QStringList m_order;                   // their keys in the configuration's order
    StateFile m_stateFile;
    std::optional<QByteArray> m_seen;      // the bytes last read, good or not
    bool m_loaded = false;
    QString m_lastNote;
};

// "--config PATH": runs the service until SIGTERM or SIGINT. Returns the exit status.
int runService(const ServiceSettings &settings);
