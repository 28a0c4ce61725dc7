#pragma once

#include <QtCore/QByteArray>

#include <functional>

/** What a file of /proc says; nothing where there is none. */
QByteArray contents(const QByteArray &path);
/** For the processes in /proc, or the threads of one of them. */
void forEachNumber(const QByteArray &directory, const std::function<void(int number)> &function);
