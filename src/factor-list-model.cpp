#include "factor-list-model.h"

#include "auth-settings-client_p.h"
#include "authd/options.h"

#include <algorithm>

namespace {

// Null for a model with another parent, and for a model whose parent's own destructor has run.
const AuthSettingsClientPrivate *clientOf(const FactorListModel *model)
{
    return qobject_cast<const AuthSettingsClientPrivate *>(model->QObject::parent());
}

} // namespace

FactorListModel::FactorListModel(QObject *parent)
    : QAbstractListModel(parent)
{
}

int FactorListModel::rowCount(const QModelIndex &) const
{
    const AuthSettingsClientPrivate *client = clientOf(this);
    return client ? client->m_rows.size() : 0;
}

QVariant FactorListModel::data(const QModelIndex &index, int role) const
{
    const AuthSettingsClientPrivate *client = clientOf(this);
    if (!client || !index.isValid() || index.row() >= client->m_rows.size())
        return QVariant();
    const AuthSettingsClientPrivate::Factor &factor = client->m_factors.at(client->m_rows.at(index.row()));
    switch (role) {
    case NameRole:
        return factor.name;
    case TitleRole:
        return factor.title;
    case EnabledRole:
        return factor.enabled;
    case DisabledRole:
        return factor.disabled;
    case IsUnlockRole:
        return factor.type == Authd::Value::Unlock;
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> FactorListModel::roleNames() const
{
    return {
        {NameRole, "name"},         {TitleRole, "title"},       {EnabledRole, "enabled"},
        {DisabledRole, "disabled"}, {IsUnlockRole, "isUnlock"},
    };
}

int FactorListModel::loginFactorsCount() const
{
    const AuthSettingsClientPrivate *client = clientOf(this);
    if (!client)
        return 0;
    return int(std::count_if(client->m_rows.begin(), client->m_rows.end(),
                             [client](int index) { return client->m_factors.at(index).type == Authd::Value::Login; }));
}
