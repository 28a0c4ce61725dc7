#pragma once

#include "auth-screens-export.h"

#include <QtCore/QAbstractListModel>
#include <QtCore/QScopedPointer>

namespace AuthScreens {

class FactorModelPrivate;

/**
 * The factors that a user can choose from, a row each, in the daemon's order.
 *
 * The roles, by the names that delegates use:
 *
 * | Role | Name | Type | Value |
 * |---|---|---|---|
 * | 256 | name | QString | the factor's name as the daemon knows it; a screen has titles of its own |
 * | 257 | chosen | bool | whether the factor is chosen, as the daemon last said |
 * | 258 | pending | bool | whether another choice has been asked for, and the daemon has not answered yet |
 * | 259 | wanted | bool | what has been asked for; as chosen while nothing is pending |
 * | 260 | disabled | bool | whether the factor is disabled for the user |
 * | 261 | changeable | bool | whether choosing or unchoosing it now would be allowed |
 *
 * The model belongs to a UserSettings and lives as long as that. Another set or order of rows is a reset; other values of
 * a row are announced by dataChanged(), and only where they differ.
 */
class AUTH_SCREENS_EXPORT FactorModel : public QAbstractListModel
{
    Q_OBJECT

    /** The number of rows. */
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        NameRole = Qt::UserRole,
        ChosenRole,
        PendingRole,
        WantedRole,
        DisabledRole,
        ChangeableRole,
    };

    ~FactorModel() override;

    int count() const;
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void countChanged();

private:
    friend class UserSettingsPrivate;
    explicit FactorModel(QObject *parent);

    const QScopedPointer<FactorModelPrivate> d;
};

} // namespace AuthScreens
