#pragma once

#include "auth-client-export.h"

#include <QtCore/QAbstractListModel>

class AuthSettingsClientPrivate;

/**
 * The factors that the current user may see and choose, a row each: the login factors first, then the chosen unlock
 * factors whose name no login row carries.
 *
 * The model belongs to an AuthSettingsClient, which hands it out as its `factors` property and through
 * AuthSettingsClient::factors(), and lives exactly as long as that. A host neither makes, deletes nor reparents it.
 *
 * The roles, by the names that delegates use:
 *
 * | Role | Name | Type | Value |
 * |---|---|---|---|
 * | 256 | name | QString | the factor's name as the daemon knows it |
 * | 257 | title | QString | its translated title; the translation's id when the host has installed none |
 * | 258 | enabled | bool | whether the factor is chosen, as the daemon last said |
 * | 259 | disabled | bool | whether the factor is disabled for the user |
 * | 260 | isUnlock | bool | whether the row stands for the unlock service |
 *
 * A change of the set or the order of rows is always a reset, after which loginFactorsCountChanged() follows; a change
 * of `enabled` is announced with dataChanged() for that row and role, and does not change the set: an unlock factor
 * just chosen, or a login factor just chosen for a user who may not set them, gets its row with the next reset, and one
 * just unchosen keeps it until then. Rows never offer a display role.
 *
 * The row numbers are those that AuthSettingsClient::canTriggerFactor() and AuthSettingsClient::triggerFactor() take.
 */
class AUTH_CLIENT_EXPORT FactorListModel : public QAbstractListModel
{
    Q_OBJECT

    /** The number of rows that stand for the login service, chosen or not. */
    Q_PROPERTY(int loginFactorsCount READ loginFactorsCount NOTIFY loginFactorsCountChanged)

public:
    /**
     * Made by AuthSettingsClient with an inner object as its parent. A model with any other parent, be it an
     * AuthSettingsClient, or with none has no rows.
     */
    explicit FactorListModel(QObject *parent);

    /** The number of rows, whatever @p parent is: the list is flat. */
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;

    /** The value of a row for a role of the table above; an invalid variant for any other row or role. */
    QVariant data(const QModelIndex &index, int role) const override;

    /** The five roles of the table above, and no others. */
    QHash<int, QByteArray> roleNames() const override;

    int loginFactorsCount() const;

Q_SIGNALS:
    /** The rows have been rebuilt. Emitted after each reset, also when the number is what it was. */
    void loginFactorsCountChanged();

private:
    friend class AuthSettingsClientPrivate;
};
