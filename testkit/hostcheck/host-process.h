#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <sys/types.h>

/** A host as a process, with its probe; what it writes to its standard output and error goes to the log. */
class HostProcess
{
public:
    HostProcess();
    ~HostProcess();
    Q_DISABLE_COPY(HostProcess)

    /** Throws an Outcome when the command cannot be run. */
    void start(const QList<QByteArray> &command);
    void signal(int number) const;
    /** The user enters a code. A host that has ended takes nothing. */
    void enter(const QByteArray &code);
    /** Waits until the host tells something or ends, and no longer. */
    void wait(int milliseconds);
    /** The next line that it has told over the probe. False when there is none. */
    bool takeLine(QByteArray *line);
    /** Whether it has told something that is no line yet. */
    bool hasUnfinishedLine() const
    {
        return !m_input.isEmpty();
    }
    /** Whether its end of the probe is open. */
    bool hasProbe() const
    {
        return m_probe >= 0;
    }
    /** Whether it has been given codes, and has not read any of them. */
    bool readsNothing();

    bool hasEnded() const
    {
        return m_hasEnded;
    }
    /** As waitpid() gives it. */
    int status() const
    {
        return m_status;
    }
    /** Whether processes that it has started are still there. */
    static bool hasLeftProcesses();
    /** Kills those that are, as a supervisor does with a service that it kills. */
    static void killLeftProcesses();
    /** Drops what it has told and closes its probe. */
    void forget();

private:
    void reap();
    void readProbe();
    void drain();

    int m_signals;
    pid_t m_pid = 0;
    int m_probe = -1;
    int m_output = -1;
    QByteArray m_input;
    qint64 m_logged = 0;
    bool m_hasCodes = false;
    bool m_reads = false;
    int m_lines = 0; ///< that it has told over the probe
    bool m_hasEnded = false;
    int m_status = 0;
};

/** How a process has ended, in words. */
QString endText(int status);
