#include "factor-model_p.h"
#include "FactorModel"

namespace AuthScreens {

FactorModel::FactorModel(QObject *parent)
    : QAbstractListModel(parent)
    , d(new FactorModelPrivate)
{
}

FactorModel::~FactorModel() = default;

int FactorModel::count() const
{
    return d->rows.size();
}

int FactorModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : d->rows.size();
}

QVariant FactorModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= d->rows.size())
        return QVariant();
    const FactorModelPrivate::Row &row = d->rows.at(index.row());
    switch (role) {
    case NameRole:
        return row.name;
    case ChosenRole:
        return row.isChosen;
    case PendingRole:
        return row.isPending;
    case WantedRole:
        return row.isWanted;
    case DisabledRole:
        return row.isDisabled;
    case ChangeableRole:
        return row.isChangeable;
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> FactorModel::roleNames() const
{
    return {{NameRole, "name"},     {ChosenRole, "chosen"},     {PendingRole, "pending"},
            {WantedRole, "wanted"}, {DisabledRole, "disabled"}, {ChangeableRole, "changeable"}};
}

} // namespace AuthScreens
