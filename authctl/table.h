#pragma once

#include <QtCore/QStringList>
#include <QtCore/QVector>

/** Rows of text with their columns one below the other on a terminal, whatever script they are in. */
QString toTable(const QVector<QStringList> &rows);
