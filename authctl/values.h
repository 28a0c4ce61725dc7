#pragma once

#include <QtCore/QJsonValue>
#include <QtCore/QVariantMap>

/** Adds "KEY=VALUE" or "KEY:TYPE=VALUE" to a map; false when it is neither, or the value is not of the type. */
bool parseParameter(const QString &text, QVariantMap &params);

/** A value for people and for JSON: byte arrays in hexadecimal, what cannot be shown by its type's name. */
QJsonValue toJson(const QVariant &value);
