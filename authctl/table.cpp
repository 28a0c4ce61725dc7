#include "table.h"

#include "output.h"

#include <cwchar>

namespace {

int width(const QString &text)
{
    int columns = 0;
    const QVector<uint> characters = text.toUcs4();
    for (const uint character : characters) {
        // Unknown to the locale it has no width; it is shown all the same.
        const int own = wcwidth(wchar_t(character));
        columns += own < 0 ? 1 : own;
    }
    return columns;
}

} // namespace

QString toTable(const QVector<QStringList> &rows)
{
    QVector<int> widths;
    for (const QStringList &row : rows) {
        widths.resize(qMax(widths.size(), row.size()));
        for (int i = 0; i < row.size(); ++i)
            widths[i] = qMax(widths.at(i), width(shown(row.at(i))));
    }
    QStringList lines;
    for (const QStringList &row : rows) {
        QString line;
        for (int i = 0; i < row.size(); ++i) {
            const QString text = shown(row.at(i));
            line += text;
            if (i + 1 < row.size())
                line += QString(widths.at(i) - width(text) + 2, QLatin1Char(' '));
        }
        lines.append(line);
    }
    return lines.join(QLatin1Char('\n'));
}
