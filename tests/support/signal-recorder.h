#pragma once

#include <QtCore/QObject>
#include <QtCore/QStringList>

class AuthClient;
class AuthDevlockClient;
class AuthSettings;
class AuthSettingsClient;

/** Records all signals of an object in their order, such as "authenticatedChanged(01ab)". */
class SignalRecorder : public QObject
{
    Q_OBJECT
public:
    explicit SignalRecorder(AuthClient *client);
    explicit SignalRecorder(AuthDevlockClient *client);
    /** With the signals of its model, such as "model reset" and "model dataChanged(row 2, [258])". */
    explicit SignalRecorder(AuthSettingsClient *client);
    explicit SignalRecorder(AuthSettings *settings);

    QStringList list() const;
    QStringList take();

private:
    void record(const QString &emission);

    QStringList m_list;
};

/** A value with its type and all that it contains, for comparisons. */
QString written(const QVariant &value);
