#pragma once

#include "keeper.h"
#include "messages.h"

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

namespace AuthScreens {

/** The program that agents are; to be set before there is an agent. */
QString agentProgram();
void setAgentProgram(const QString &path);

/**
 * An agent: a process that is started with this object and killed with it.
 *
 * Nothing here blocks. When the agent has ended, has sent what is no message, or another process has sent something in its
 * place, lost() is emitted once, and nothing afterwards.
 */
class Agent : public QObject
{
    Q_OBJECT

public:
    explicit Agent(QObject *parent = nullptr);
    ~Agent() override;

    template <typename Message> void send(const Message &message)
    {
        sendFrame(Wire::encode(message, m_serial++));
    }

    /** The agent is not trusted any more: nothing is read from it, and lost() follows from the event loop. */
    void distrust();

Q_SIGNALS:
    void received(const AuthScreens::Wire::Frame &frame);
    /** What the agent had sent has been received; its last word may differ from the others. */
    void drained();
    void lost();

private:
    enum Reading {
        Some,
        None,
        End,
    };

    void handleReadable();
    Reading read();
    void sendFrame(QByteArray frame);

    const std::shared_ptr<Child> m_child;
    int m_socket = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
    Wire::FrameReader m_reader;
    quint32 m_serial = 0;
    bool m_isLost = false;
};

} // namespace AuthScreens
