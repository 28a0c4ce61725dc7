#pragma once

#include "request.h"

#include <QtCore/QByteArray>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>

class AuthSettingsClient;
class Console;
class Warnings;

/** Does the commands about settings, with the process' settings client, which it makes for the first that wants it. */
class SettingsConsole
{
public:
    /** @param console asks for authentications and tells results */
    explicit SettingsConsole(Console &console);

    /** What may be set for a user. */
    static QStringList flags();

    /**
     * Does one command; returns its status.
     *
     * @param action what it does in the end
     * @param secret what to authenticate with, if that is asked for
     */
    int perform(int (SettingsConsole::*action)(const Request &), const Request &request,
                const std::optional<QByteArray> &secret);
    // What single commands do, for their table; each returns its status.
    int askOption(const Request &request);
    int show(const Request &request);
    int setFlag(const Request &request);
    int tellLastLogin(const Request &request);
    int listFactors(const Request &request);
    int toggleLogin(const Request &request);
    int toggleUnlock(const Request &request);
    int getOption(const Request &request);
    int setOption(const Request &request);
    int runAction(const Request &request);

    /** Selects a user whose settings are followed from now on; returns the status. */
    int follow(const Request &request);
    /** From now on, prints what happens to the settings as soon as there is a client. */
    void printEvents();
    /** What is mirrored is to be read anew: the daemon was away. */
    void distrust();
    void dropAuthentication();

private:
    struct Answer
    {
        int status;
        QVariant value;
        QString problem;
    };

    int makeClient();
    void connectEvents();
    int select();
    int authenticate(const Request &request);
    Answer option(const QString &key) const;
    int tellWarnings(const Warnings &warnings);
    void catchUp();
    int loginRow(const QString &name) const;
    bool isChosen(const QString &name) const;
    QVariant cell(int row, const char *role) const;
    QJsonArray rows() const;
    int finish(int status, const QString &text, QJsonObject details = QJsonObject());

    Console &m_console;
    const QObject m_listener; ///< ends the printing of events with this object; the client lives on
    AuthSettingsClient *m_client = nullptr;
    bool m_printsEvents = false;
    bool m_distrusted = false;
    QString m_flaw; ///< why the client knows no factors

    uint m_user = 0; ///< of the command being done, or of the one before
    std::optional<QByteArray> m_secret;
};
