#include "signal-recorder.h"

#include "log-recorder.h"
#include "test-case.h"

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QDebug>

SignalRecorder::SignalRecorder(AuthClient *client)
{
    connect(client, &AuthClient::progressChanged, this, [this] { record(QStringLiteral("progressChanged()")); });
    connect(client, &AuthClient::authenticatedChanged, this, [this](const QVariant &token) {
        if (token.userType() != QMetaType::QByteArray) {
            record(QStringLiteral("authenticatedChanged(not a byte array: %1)").arg(written(token)));
            return;
        }
        LogRecorder::forbid(token.toByteArray());
        record(QStringLiteral("authenticatedChanged(%1)").arg(QLatin1String(token.toByteArray().toHex())));
    });
    connect(client, &AuthClient::authDataChanged, this, [this] { record(QStringLiteral("authDataChanged()")); });
    connect(client, &AuthClient::changeAuthDataFailed, this,
            [this] { record(QStringLiteral("changeAuthDataFailed()")); });
    connect(client, &AuthClient::unlockIfNeededFinished, this, [this](bool success) {
        record(success ? QStringLiteral("unlockIfNeededFinished(true)")
                       : QStringLiteral("unlockIfNeededFinished(false)"));
    });
    connect(client, &AuthClient::discredit, this, [this] { record(QStringLiteral("discredit()")); });
    connect(client, &AuthClient::factorSignal, this, [this](const QString &factor, const QVariantMap &params) {
        if (!factor.startsWith(drainMark))
            record(QStringLiteral("factorSignal(%1, %2)").arg(factor, written(params)));
    });
}

SignalRecorder::SignalRecorder(AuthDevlockClient *client)
{
    connect(client, &AuthDevlockClient::enabledChanged, this, [this] { record(QStringLiteral("enabledChanged()")); });
    connect(client, &AuthDevlockClient::stateChanged, this, [this] { record(QStringLiteral("stateChanged()")); });
}

void SignalRecorder::record(const QString &emission)
{
    m_list.append(emission);
}

QStringList SignalRecorder::list() const
{
    return m_list;
}

QStringList SignalRecorder::take()
{
    QStringList result;
    result.swap(m_list);
    return result;
}

QString written(const QVariant &value)
{
    QString result;
    QDebug(&result).nospace() << value;
    return result;
}
