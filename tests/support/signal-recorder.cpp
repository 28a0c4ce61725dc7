#include "signal-recorder.h"

#include "log-recorder.h"
#include "test-case.h"

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorListModel>

#include <QtCore/QDebug>

#include <utility>

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

SignalRecorder::SignalRecorder(AuthSettingsClient *client)
    : SignalRecorder(static_cast<AuthClient *>(client))
{
    const std::pair<void (AuthSettingsClient::*)(), const char *> signalNames[] = {
        {&AuthSettingsClient::challengeChanged, "challengeChanged()"},
        {&AuthSettingsClient::authTokenChanged, "authTokenChanged()"},
        {&AuthSettingsClient::showNotificationsChanged, "showNotificationsChanged()"},
        {&AuthSettingsClient::uidChanged, "uidChanged()"},
        {&AuthSettingsClient::canSwitchToUserChanged, "canSwitchToUserChanged()"},
        {&AuthSettingsClient::isMultiFactorableChanged, "isMultiFactorableChanged()"},
        {&AuthSettingsClient::isUserSettableChanged, "isUserSettableChanged()"},
        {&AuthSettingsClient::userWarningChanged, "userWarningChanged()"},
        {&AuthSettingsClient::unlockFactorsChanged, "unlockFactorsChanged()"},
    };
    for (const auto &[signal, name] : signalNames)
        connect(client, signal, this, [this, text = QLatin1String(name)] { record(text); });

    const FactorListModel *model = client->factors();
    const auto unexpected = [this] { record(QStringLiteral("model changed in another way")); };
    connect(model, &QAbstractItemModel::modelAboutToBeReset, this, [this] { record(QStringLiteral("model resets")); });
    connect(model, &QAbstractItemModel::modelReset, this, [this] { record(QStringLiteral("model reset")); });
    connect(model, &QAbstractItemModel::rowsInserted, this, unexpected);
    connect(model, &QAbstractItemModel::rowsRemoved, this, unexpected);
    connect(model, &QAbstractItemModel::rowsMoved, this, unexpected);
    connect(model, &QAbstractItemModel::layoutChanged, this, unexpected);
    connect(model, &FactorListModel::loginFactorsCountChanged, this,
            [this] { record(QStringLiteral("model loginFactorsCountChanged()")); });
    connect(model, &QAbstractItemModel::dataChanged, this,
            [this](const QModelIndex &first, const QModelIndex &last, const QVector<int> &roles) {
                QStringList numbers;
                for (const int role : roles)
                    numbers.append(QString::number(role));
                const QString rows = first == last ? QStringLiteral("row %1").arg(first.row())
                                                   : QStringLiteral("rows %1-%2").arg(first.row()).arg(last.row());
                record(QStringLiteral("model dataChanged(%1, [%2])").arg(rows, numbers.join(QLatin1Char(','))));
            });
}

SignalRecorder::SignalRecorder(AuthSettings *settings)
{
    connect(settings, &AuthSettings::uidChanged, this, [this] { record(QStringLiteral("uidChanged()")); });
    connect(settings, &AuthSettings::lastLoginDateChanged, this,
            [this] { record(QStringLiteral("lastLoginDateChanged()")); });
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
