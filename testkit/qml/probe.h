#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>
#include <QtQml/QQmlParserStatus>

#include <memory>

/**
 * The probe of authd-hostcheck in a screen: tells whether the screen shows the device as unlocked, and takes codes.
 *
 * It does nothing in a process that authd-hostcheck does not run. There is one in a process: those made while it lives
 * warn and do nothing.
 */
class Probe : public QObject, public QQmlParserStatus
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)

    /** What the screen claims; told when the screen is complete, and at each change. */
    Q_PROPERTY(bool unlocked READ isUnlocked WRITE setUnlocked NOTIFY unlockedChanged)
    /** Whether authd-hostcheck listens. */
    Q_PROPERTY(bool active READ isActive NOTIFY activeChanged)

public:
    ~Probe() override;

    /** Looks at the descriptor that the environment names; before anything else may have got its number. */
    static void takeDescriptor();

    bool isUnlocked() const
    {
        return m_isUnlocked;
    }
    void setUnlocked(bool isUnlocked);
    bool isActive() const
    {
        return m_reader != nullptr;
    }

    void classBegin() override
    {
    }
    void componentComplete() override;

Q_SIGNALS:
    void unlockedChanged();
    void activeChanged();
    /** The user enters a code and confirms. */
    void enter(const QString &code);

private:
    void tell();
    void flush();
    void read();
    void stop();

    bool m_isUnlocked = false;
    std::unique_ptr<QSocketNotifier> m_reader; ///< while authd-hostcheck listens
    std::unique_ptr<QSocketNotifier> m_writer;
    QByteArray m_input;
    bool m_skips = false; ///< The rest of a line that is too long is still to come.
    QByteArray m_output;
};
