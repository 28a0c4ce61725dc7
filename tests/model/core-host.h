#pragma once

#include "core-oracle.h"
#include "model-test.h"

#include <QtCore/QPointer>

#include <array>

/** A host that does what it is told, with its handlers and what they see. */
class Host : public QObject
{
    Q_OBJECT

public:
    Host(QuietLog *log, const CoreOracle *oracle)
        : m_log(log)
        , m_oracle(oracle)
    {
    }
    ~Host() override;

    void setMayLeave(bool mayLeave)
    {
        m_mayLeave = mayLeave;
    }
    void arm(const Step &step);
    void perform(Do what, const Step &step, int number);
    AuthClient *client(int index) const
    {
        return m_clients[size_t(index)];
    }
    int callsUnderWay(int index) const;
    int mark(int index) const
    {
        return m_marks[size_t(index)];
    }
    /** How many calls handlers have made for the client since the last time. */
    int callsMade(int index) const
    {
        return m_callsMade[size_t(index)];
    }
    void forgetCallsMade()
    {
        m_callsMade.fill(0);
    }
    QStringList properties() const;

private:
    static constexpr size_t Clients = CoreOracle::Clients;
    static constexpr size_t Devlocks = CoreOracle::Devlocks;

    void makeClient(size_t index);
    void makeDevlock(size_t index);
    void react(const Step &handler);

    QuietLog *const m_log;
    const CoreOracle *const m_oracle;
    std::array<QPointer<AuthClient>, Clients> m_clients;
    std::array<QPointer<AuthDevlockClient>, Devlocks> m_devlocks;
    std::array<QHash<QString, Step>, Clients> m_handlers;
    std::array<QHash<QString, Step>, Devlocks> m_devlockHandlers;
    std::array<int, Clients> m_marks{};
    std::array<int, Clients> m_callsMade{};
    bool m_mayLeave = false;
    int m_depth = 0;
    int m_callbacks = 0;
};
