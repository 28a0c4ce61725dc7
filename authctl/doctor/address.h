#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <optional>

/** What is wrong and what to do about it. */
struct Explanation
{
    QString finding;
    QString remedy;
};

/** One of the addresses of a bus. */
struct BusAddress
{
    QString text;
    QString transport;
    QByteArray socket; ///< as BusLink wants it; empty: there is none, or more than one
    QByteArray guid;   ///< null: none is named
};

/** Takes a list of addresses of D-Bus apart; nothing if it is none. */
std::optional<QVector<BusAddress>> parseAddress(const QByteArray &text);

/** Whether hosts know the transport of an address, and authctl does not. */
bool isOtherTransport(const BusAddress &address);

/** Why a socket cannot be connected to. @param start what to do where nobody listens */
Explanation explain(const QString &path, int error, const QString &start);
/** Why a bus cannot be connected to; the remedy is for a machine's own address, and null for what no such one has. */
Explanation explain(const BusAddress &address, int error, const QString &start);

/** A directory on the way to a file in which everybody may put another file in its place; null: there is none. */
QString openDirectory(const QString &path);

/** What the system says of an errno. */
QString describe(int error);
