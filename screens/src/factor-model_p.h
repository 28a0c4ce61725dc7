#pragma once

#include <QtCore/QString>
#include <QtCore/QVector>

namespace AuthScreens {

class FactorModelPrivate
{
public:
    struct Row
    {
        QString name;
        bool isChosen = false;
        bool isPending = false;
        bool isWanted = false;
        bool isDisabled = false;
        bool isChangeable = false;
    };

    QVector<Row> rows;
};

} // namespace AuthScreens
