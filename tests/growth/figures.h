#pragma once

#include <QtCore/QtGlobal>

#include <array>

class AuthStandIn;

/** What this process, and its daemons for it, hold. */
enum Figure {
    Bytes,   ///< Allocated and not freed.
    Blocks,  ///< The same; not counted where a sanitizer allocates.
    Objects, ///< QObjects, also those of Qt's own threads.
    Descriptors,
    Threads,
    Peers, ///< Connections that the daemon has on its socket.
    DaemonDescriptors,
    BusClients,
    MatchRules, ///< What this process has subscribed to at the system bus.
    BusDescriptors,
    Processes, ///< Of the whole world, those that nobody has waited for too.
    Files,     ///< Below /run.
    FigureCount,
};

extern const std::array<const char *, FigureCount> figureNames;

using Figures = std::array<qint64, FigureCount>;

/** Whether nothing but memory is more @p now than it was @p before. */
bool isNoMore(const Figures &now, const Figures &before);

/**
 * Counts, once what has been scheduled for deletion is deleted, and the thread of Qt D-Bus has done what it was told.
 * The daemons notice in their own time which connections have ended: they get up to @p patience milliseconds to come
 * down to what @p before has.
 */
Figures takeFigures(AuthStandIn &daemon, const Figures *before = nullptr, int patience = 0);
