#pragma once

#include <FactorListModel>

#include <QtCore/QIdentityProxyModel>
#include <QtTest/QAbstractItemModelTester>

/**
 * Ends the test program when the model breaks the rules that views rely on.
 *
 * The tester takes a model that has rows for every parent for a tree; this list has its rows whatever the parent is,
 * which no view of a list asks for. So it is watched through a proxy that has none below the root.
 */
class ModelWatch
{
public:
    explicit ModelWatch(FactorListModel *model)
        : m_proxy(model)
        , m_tester(&m_proxy, QAbstractItemModelTester::FailureReportingMode::Fatal)
    {
    }

private:
    class FlatProxy : public QIdentityProxyModel
    {
    public:
        explicit FlatProxy(FactorListModel *model)
        {
            setSourceModel(model);
        }

        int rowCount(const QModelIndex &parent) const override
        {
            return parent.isValid() ? 0 : QIdentityProxyModel::rowCount(parent);
        }
    };

    FlatProxy m_proxy;
    QAbstractItemModelTester m_tester;
};
