#pragma once

#include "messages.h"

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

/**
 * The agent's end of the socket to its screen. The agent ends with it: with status 0 when the screen has closed its end,
 * with 3 when the screen has sent what is no message.
 */
class Channel : public QObject
{
    Q_OBJECT

public:
    explicit Channel(int descriptor);

    template <typename Message> void send(const Message &message)
    {
        sendFrame(AuthScreens::Wire::encode(message, m_serial++));
    }

    /** Ends the process: what the screen has sent has no meaning here. */
    [[noreturn]] void refuse();

Q_SIGNALS:
    void received(const AuthScreens::Wire::Frame &frame);

private:
    void handleReadable();
    void sendFrame(QByteArray frame);

    const int m_descriptor;
    QSocketNotifier m_notifier;
    AuthScreens::Wire::FrameReader m_reader;
    quint32 m_serial = 0;
};
