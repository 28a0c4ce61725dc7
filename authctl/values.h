#pragma once

#include <QtCore/QJsonValue>
#include <QtCore/QVariantMap>

/** Adds "KEY=VALUE" or "KEY:TYPE=VALUE" to a map; returns what is wrong with it, or nothing. */
QString parseParameter(const QString &text, QVariantMap &params);

/**
 * A value for people and for JSON: byte arrays in hexadecimal, large integers as strings, what cannot be shown by its
 * type's name.
 */
QJsonValue toJson(const QVariant &value);
