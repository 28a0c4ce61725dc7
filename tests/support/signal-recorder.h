#pragma once

#include <QtCore/QObject>
#include <QtCore/QStringList>

class AuthClient;
class AuthDevlockClient;

/** Records all signals of a client in their order, such as "authenticatedChanged(01ab)". */
class SignalRecorder : public QObject
{
    Q_OBJECT
public:
    explicit SignalRecorder(AuthClient *client);
    explicit SignalRecorder(AuthDevlockClient *client);

    QStringList list() const;
    QStringList take();

private:
    void record(const QString &emission);

    QStringList m_list;
};

/** A value with its type and all that it contains, for comparisons. */
QString written(const QVariant &value);
