#pragma once

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QString>

// One unit as systemd's ListUnitsByNames lists it (signature (ssssssouso)), for stand-ins of
// the manager. Other types of states or object path give the answers of the wrong shape.
template <typename State, typename Path>
struct ListedUnit
{
    QString name, description;
    State load{}, active{}, sub{};
    QString followed;
    Path object{};
    uint jobId = 0;
    QString jobType;
    QDBusObjectPath job{QStringLiteral("/")};
};

template <typename State, typename Path>
QDBusArgument &operator<<(QDBusArgument &argument, const ListedUnit<State, Path> &unit)
{
    argument.beginStructure();
    argument << unit.name << unit.description << unit.load << unit.active << unit.sub << unit.followed << unit.object
             << unit.jobId << unit.jobType << unit.job;
    argument.endStructure();
    return argument;
}

template <typename State, typename Path>
const QDBusArgument &operator>>(const QDBusArgument &argument, ListedUnit<State, Path> &unit)
{
    argument.beginStructure();
    argument >> unit.name >> unit.description >> unit.load >> unit.active >> unit.sub >> unit.followed >> unit.object
        >> unit.jobId >> unit.jobType >> unit.job;
    argument.endStructure();
    return argument;
}
