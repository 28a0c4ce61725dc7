#pragma once

#include <QtCore/QStringList>
#include <QtCore/QVariantMap>

#include <optional>

/** The exit statuses; a session tells them for each of its commands. */
enum Status {
    Done = 0,
    Unreachable = 1, ///< The library ends the process with it.
    WrongUsage = 2,
    Refused = 3,
    NoOutcome = 4,
    Interrupted = 5,
    CannotWrite = 6,
};

struct Command;

/** One command with its arguments, as typed on the command line or as a line of a session. */
struct Request
{
    enum class Secret {
        Terminal,
        StandardInput,
        Descriptor
    };

    const Command *command = nullptr;
    QString information;                        ///< what is to be printed instead of doing the command
    QString service = QStringLiteral("unlock"); ///< what to authenticate for
    QString factor;                             ///< what to authenticate with; empty: no authentication is asked for
    std::optional<uint> uid;
    Secret secret = Secret::Terminal;
    int descriptor = -1;

    int state = 0;
    bool token = false; ///< act with the token held, even if there is none
    QString calledFactor;
    QVariantMap params;

    std::optional<uint> user; ///< whose settings; never one that means nobody
    QString name;             ///< of an option, a flag or a factor
    bool on = false;
    QVariant value;
    QStringList words; ///< to be completed

    int timeout = 30000; ///< milliseconds
    bool json = false;
    bool verbose = false;
};

/** Whether a user id means nobody. */
bool isNobody(uint uid);

/**
 * Understands a command and its arguments.
 *
 * @param words   the program's name followed by its arguments
 * @param session the session that they are a line of, or nullptr
 * @param problem set to what is wrong with them when nothing is returned; repeats no word of a session, which may be
 *                a secret that has come too early or too late
 */
std::optional<Request> parseRequest(const QStringList &words, const Request *session, QString &problem);
