#pragma once

#include <QtCore/QVariant>
#include <QtQml/QJSValue>

class QJSEngine;

/** Parameters as they are to travel. JavaScript holds and hands on such a value without looking into it. */
struct AuthParameterMap
{
    QVariantMap values;
};
Q_DECLARE_METATYPE(AuthParameterMap)

/** Turns parameters written in JavaScript into what travels over D-Bus, or finds out what of them cannot. */
class ParameterReader
{
public:
    explicit ParameterReader(QJSEngine *engine);

    /** The parameters; an empty map when problem() then says something. */
    QVariantMap read(const QJSValue &params);

    /** In the words of the library's own warnings, with the path of the offending value. */
    QString problem() const;

private:
    QVariant value(const QJSValue &value);
    QVariant list(const QJSValue &array);
    QVariant map(const QJSValue &object);
    QVariant refuse(const QString &type, const QString &problem);
    void failAt(const QString &step);

    QJSValue m_kind;
    QJSValue m_keys;
    QJSValue m_bytes;
    QJSValueList m_containers;
    QString m_path;
    QString m_problem;
};

/** Makes parameters for the calls of C++ objects, to which QML hands its own idea of them otherwise. */
class AuthParameters : public QObject
{
    Q_OBJECT

public:
    /** The parameters as they are to travel. What cannot travel is a TypeError with the path of the value. */
    Q_INVOKABLE QVariant from(const QJSValue &params);
};
