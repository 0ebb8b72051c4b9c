#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantMap>

// Reads an XML property list whose top level is a dictionary. Strings, integers, reals,
// booleans, dates, data, arrays and nested dictionaries become QVariant values. Throws Error
// (naming `source`) when the text is not such a property list.
QVariantMap readPropertyList(const QByteArray &xml, const QString &source);
