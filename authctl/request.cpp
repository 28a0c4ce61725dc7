#include "request.h"

#include "values.h"

#include <AuthDevlockClient>

#include <QtCore/QCommandLineParser>
#include <QtCore/QMetaEnum>

const char Help[] = R"(Usage: authctl [OPTION…] COMMAND [ARGUMENT…]

Talks to the authentication daemon from a console.

Commands:
  authenticate SERVICE --factor F   authenticate a user for SERVICE, such as login or unlock
  state                             print the device-lock state
  lock, unlock, set-state STATE     change it; STATE is a name (Unlocked, Locked, ManagerLockout, CodeEntryLockout,
                                    Undefined, SecurityUi) or a number
  unlock-if-needed                  unlock if the daemon's policy allows that without an authentication
  factor-method FACTOR TYPE [KEY=VALUE | KEY:TYPE=VALUE]…
                                    call a method of a factor and print its answer
  watch                             print everything the daemon tells until interrupted
  session                           read commands from standard input, one a line, and keep the token between them

Authentication (lock, unlock, set-state and factor-method authenticate first when --factor is given):
  --factor F        the factor, such as code
  --service S       what for (default: unlock)
  --uid N           the user (default: the daemon's choice)
  --data -          read the secret from standard input; in a session from the next line
  --data-fd N       read the secret from descriptor N
                    Without either it is asked for on the terminal. It is never taken from the command line.

Options:
  --timeout SECONDS give up waiting for an outcome after so long (default: 30)
  --json            print one JSON object a line
  --verbose         show the library's debug messages as well
  -h, --help        print this help
  --version         print the version

In a session also: drop (forget the token), quit, and the option --token of lock, unlock and set-state: act with the
token of the session. Quotes group words, # starts a comment line.

Values of factor-method: KEY=VALUE is a string; KEY:TYPE=VALUE has one of the D-Bus types b y n q i u x t d s, or
ay (hexadecimal digits), as (words separated by commas) or json (any JSON value; an object becomes a map).

Exit status:
  0  done; watch: interrupted; session: all read, and the last command was done
  1  the daemon cannot be reached
  2  wrong usage
  3  refused by the daemon, or not authenticated
  4  no outcome in time
  5  interrupted
  6  the output cannot be written
A session ends with the status of its last command.)";

namespace {

struct Command
{
    const char *name;
    int minimum;
    int maximum;
    bool sessionOnly;
};

const Command Commands[] = {
    {"authenticate", 1, 1, false},
    {"state", 0, 0, false},
    {"lock", 0, 0, false},
    {"unlock", 0, 0, false},
    {"set-state", 1, 1, false},
    {"unlock-if-needed", 0, 0, false},
    {"factor-method", 2, 1000, false},
    {"watch", 0, 0, false},
    {"session", 0, 0, false},
    {"drop", 0, 0, true},
    {"quit", 0, 0, true},
};

std::optional<int> parseState(const QString &text)
{
    const auto states = QMetaEnum::fromType<AuthDevlockClient::LockState>();
    for (int i = 0; i < states.keyCount(); ++i) {
        if (text.compare(QLatin1String(states.key(i)), Qt::CaseInsensitive) == 0)
            return states.value(i);
    }
    bool ok = false;
    const int number = text.toInt(&ok);
    return ok ? std::optional<int>(number) : std::nullopt;
}

const Command *findCommand(const QString &word)
{
    const auto *command = std::find_if(std::begin(Commands), std::end(Commands), [&word](const Command &candidate) {
        return word == QLatin1String(candidate.name);
    });
    return command == std::end(Commands) ? nullptr : command;
}

} // namespace

bool isCommand(const QString &word)
{
    return findCommand(word) != nullptr;
}

std::optional<Request> parseRequest(const QStringList &words, const Request *session, QString &problem)
{
    const auto option = [](const char *name, const char *value) {
        return QCommandLineOption(QLatin1String(name), QString(), QLatin1String(value));
    };
    QCommandLineParser parser;
    for (const char *name : {"factor", "service", "uid", "data", "data-fd", "timeout"})
        parser.addOption(option(name, "value"));
    for (const char *name : {"json", "verbose", "token"})
        parser.addOption(option(name, ""));

    const auto refuse = [&problem](const QString &text) {
        problem = text;
        return std::nullopt;
    };
    const auto refuseWord = [&refuse, session](const QString &text, const QString &word) {
        return refuse(session ? text : QStringLiteral("%1: \"%2\"").arg(text, word));
    };
    const auto isSet = [&parser](const char *name) { return parser.isSet(QLatin1String(name)); };
    const auto value = [&parser](const char *name) { return parser.value(QLatin1String(name)); };

    if (!parser.parse(words))
        return refuse(session ? QStringLiteral("unknown option, or value missing or not wanted") : parser.errorText());
    QStringList arguments = parser.positionalArguments();
    if (arguments.isEmpty())
        return refuse(QStringLiteral("no command given"));

    Request request;
    request.command = arguments.takeFirst();
    const Command *command = findCommand(request.command);
    if (!command)
        return refuseWord(QStringLiteral("there is no such command"), request.command);
    const bool setsState = request.command == QLatin1String("set-state") || request.command == QLatin1String("lock")
        || request.command == QLatin1String("unlock");
    if (!session && command->sessionOnly)
        return refuse(QStringLiteral("%1 is a command of a session").arg(request.command));
    if (session && (request.command == QLatin1String("watch") || request.command == QLatin1String("session")))
        return refuse(QStringLiteral("%1 is not a command of a session").arg(request.command));
    if (arguments.size() < command->minimum)
        return refuse(QStringLiteral("%1 wants more arguments").arg(request.command));
    if (arguments.size() > command->maximum) {
        const QString tooMany = QStringLiteral("too many arguments for %1").arg(request.command);
        if (!setsState && request.command != QLatin1String("authenticate"))
            return refuse(tooMany);
        return refuse(tooMany
                      + QStringLiteral("; secrets are read from the terminal, or with --data - or --data-fd, but never "
                                       "from the command line, where everybody can see them"));
    }

    request.factor = value("factor");
    request.service = isSet("service") ? value("service") : QStringLiteral("unlock");
    if (request.command == QLatin1String("authenticate")) {
        if (isSet("service"))
            return refuse(QStringLiteral("authenticate takes the service as its argument"));
        if (request.factor.isEmpty())
            return refuse(QStringLiteral("authenticate wants --factor"));
        request.service = arguments.first();
    } else if (!request.factor.isEmpty() && !setsState && request.command != QLatin1String("factor-method")) {
        return refuse(QStringLiteral("%1 does not authenticate").arg(request.command));
    }
    if (request.factor.isEmpty() && (isSet("service") || isSet("uid") || isSet("data") || isSet("data-fd")))
        return refuse(QStringLiteral("--service, --uid, --data and --data-fd go with --factor"));

    bool ok = true;
    if (isSet("uid"))
        request.uid = value("uid").toUInt(&ok);
    if (!ok)
        return refuse(QStringLiteral("--uid wants a number"));
    if (isSet("data") && value("data") != QLatin1String("-")) {
        return refuse(QStringLiteral("--data takes only \"-\", for standard input: everybody can see a secret on the "
                                     "command line"));
    }
    if (isSet("data") && isSet("data-fd"))
        return refuse(QStringLiteral("--data and --data-fd exclude each other"));
    if (isSet("data"))
        request.secret = Request::Secret::StandardInput;
    if (isSet("data-fd")) {
        request.secret = Request::Secret::Descriptor;
        request.descriptor = value("data-fd").toInt(&ok);
        if (!ok || request.descriptor < 0)
            return refuse(QStringLiteral("--data-fd wants the number of a descriptor"));
    }
    if (session)
        request.timeout = session->timeout;
    if (isSet("timeout")) {
        const double seconds = value("timeout").toDouble(&ok);
        if (!ok || !(seconds > 0) || seconds > 1e6)
            return refuse(QStringLiteral("--timeout wants a number of seconds"));
        request.timeout = int(seconds * 1000);
    }
    request.token = isSet("token");
    if (request.token && !(session && setsState))
        return refuse(QStringLiteral("--token is for lock, unlock and set-state in a session; use --factor elsewhere"));
    request.json = isSet("json");
    request.verbose = isSet("verbose");

    if (request.command == QLatin1String("set-state")) {
        const auto state = parseState(arguments.first());
        if (!state)
            return refuseWord(QStringLiteral("there is no such state"), arguments.first());
        request.state = *state;
    } else if (request.command == QLatin1String("lock")) {
        request.state = AuthDevlockClient::Locked;
    } else if (request.command == QLatin1String("unlock")) {
        request.state = AuthDevlockClient::Unlocked;
    } else if (request.command == QLatin1String("factor-method")) {
        request.calledFactor = arguments.takeFirst();
        request.params.insert(QStringLiteral("type"), arguments.takeFirst());
        for (const QString &argument : qAsConst(arguments)) {
            const QString wrong = parseParameter(argument, request.params);
            if (!wrong.isEmpty())
                return refuseWord(wrong, argument);
        }
    }
    return request;
}
