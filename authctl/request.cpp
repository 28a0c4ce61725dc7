#include "request.h"

#include "values.h"

#include <AuthDevlockClient>

#include <QtCore/QCommandLineParser>
#include <QtCore/QMetaEnum>

#include <algorithm>
#include <limits>

const char ShowNotifications[] = "show-notifications";
const char IsMultiFactorable[] = "is-multi-factorable";
const char IsUserSettable[] = "is-user-settable";

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
  watch [--user UID]                print everything the daemon tells until interrupted; with --user also what becomes
                                    of that user's settings
  session                           read commands from standard input, one a line, and keep the tokens between them
  doctor                            tell what would end, hold up or deceive a screen on this machine, and what to do

Settings (those marked * want --factor, or in a session --token):
  options get KEY                   print a global option of the daemon
  user UID show                     print a user's settings
  user UID set FLAG on|off *        change one: show-notifications, is-multi-factorable or is-user-settable
  user UID last-login               print the date of the user's last login
  factors                           list the factors that a user sees: for login, and those chosen for unlock alone
  factors toggle NAME *             choose a factor for login, or unchoose it
  unlock-factors toggle NAME *      choose a factor for unlock, or unchoose it
  method FACTOR get NAME            print a user's option of a factor
  method FACTOR set NAME=VALUE | NAME:TYPE=VALUE *
                                    change it
  method FACTOR action NAME [KEY=VALUE | KEY:TYPE=VALUE]… *
                                    run an action of a factor and print its answer
  --user UID                        whose factors, or whose options and actions of a factor (default: in a session the
                                    user named last, otherwise the one who runs authctl)

Authentication (lock, unlock, set-state, factor-method, method and the commands marked * authenticate first when
--factor is given):
  --factor F        the factor, such as code
  --service S       what for (default: unlock)
  --uid N           the user (default: the one whose settings they are, otherwise the daemon's choice)
  --data -          read the secret from standard input; in a session from the next line
  --data-fd N       read the secret from descriptor N
                    Without either it is asked for on the terminal. It is never taken from the command line.

Options:
  --timeout SECONDS give up waiting for an outcome after so long (default: 30)
  --json            print one JSON object a line
  --verbose         show the library's debug messages as well
  -h, --help        print this help
  --version         print the version

In a session also: drop (forget the tokens), quit, and the option --token: act with the token held. There are two: that
of the settings, and that of the other commands. Quotes group words, # starts a comment line.

Values: KEY=VALUE is a string; KEY:TYPE=VALUE has one of the D-Bus types b y n q i u x t d s, or ay (hexadecimal
digits), as (words separated by commas) or json (any JSON value without null; an object becomes a map).

Exit status:
  0  done; watch: interrupted; session: all read, and the last command was done; doctor: nothing is wrong
  1  the daemon cannot be reached; doctor: a screen would end with this status
  2  wrong usage
  3  refused by the daemon, not authenticated, or not possible; doctor: a screen could be deceived or miss something
  4  no outcome in time; doctor: a screen would freeze
  5  interrupted
  6  the output cannot be written
A session ends with the status of its last command.)";

namespace {

enum Trait : unsigned {
    SessionOnly = 1,
    NotInSession = 2,
    MayAuthenticate = 4,
    TakesToken = 8, ///< the one held by the session
    WantsToken = MayAuthenticate | TakesToken | 16,
    TakesUser = 32,
};

struct Command
{
    const char *name;
    int minimum;
    int maximum;
    unsigned traits;
};

const Command Commands[] = {
    {"authenticate", 1, 1, MayAuthenticate},
    {"state", 0, 0, 0},
    {"lock", 0, 0, MayAuthenticate | TakesToken},
    {"unlock", 0, 0, MayAuthenticate | TakesToken},
    {"set-state", 1, 1, MayAuthenticate | TakesToken},
    {"unlock-if-needed", 0, 0, 0},
    {"factor-method", 2, 1000, MayAuthenticate},
    {"watch", 0, 0, NotInSession | TakesUser},
    {"session", 0, 0, NotInSession},
    {"doctor", 0, 0, NotInSession},
    {"drop", 0, 0, SessionOnly},
    {"quit", 0, 0, SessionOnly},
    {"options get", 1, 1, 0},
    {"user show", 1, 1, 0},
    {"user set", 3, 3, WantsToken},
    {"user last-login", 1, 1, 0},
    {"factors", 0, 0, TakesUser},
    {"factors toggle", 1, 1, WantsToken | TakesUser},
    {"unlock-factors toggle", 1, 1, WantsToken | TakesUser},
    {"method get", 2, 2, MayAuthenticate | TakesToken | TakesUser},
    {"method set", 2, 2, WantsToken | TakesUser},
    {"method action", 2, 1000, WantsToken | TakesUser},
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

const Command *findCommand(const QString &words)
{
    const auto *command = std::find_if(std::begin(Commands), std::end(Commands), [&words](const Command &candidate) {
        return words == QLatin1String(candidate.name);
    });
    return command == std::end(Commands) ? nullptr : command;
}

/** What may follow a word to make a command of it. */
QStringList verbs(const QString &word)
{
    QStringList found;
    for (const Command &command : Commands) {
        const QString name = QLatin1String(command.name);
        if (name.startsWith(word + QLatin1Char(' ')))
            found.append(name.mid(word.size() + 1));
    }
    return found;
}

/** Takes the words of a command from among its arguments. */
QString takeCommand(QStringList &arguments)
{
    QString word = arguments.takeFirst();
    const int place = word == QLatin1String("user") || word == QLatin1String("method") ? 1 : 0;
    if (!verbs(word).contains(arguments.value(place)))
        return word;
    return word + QLatin1Char(' ') + arguments.takeAt(place);
}

std::optional<uint> parseUser(const QString &text, QString &problem)
{
    bool ok = false;
    const uint uid = text.toUInt(&ok);
    if (ok && !isNobody(uid))
        return uid;
    problem =
        ok ? QStringLiteral("this user id means nobody") : QStringLiteral("a user is given by a number, the user id");
    return std::nullopt;
}

} // namespace

bool isCommand(const QString &word)
{
    return findCommand(word) || !verbs(word).isEmpty();
}

bool isNobody(uint uid)
{
    return uid == 0 || uid == std::numeric_limits<quint32>::max();
}

std::optional<Request> parseRequest(const QStringList &words, const Request *session, QString &problem)
{
    const auto option = [](const char *name, const char *value) {
        return QCommandLineOption(QLatin1String(name), QString(), QLatin1String(value));
    };
    QCommandLineParser parser;
    for (const char *name : {"factor", "service", "uid", "data", "data-fd", "timeout", "user"})
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
    request.command = takeCommand(arguments);
    const Command *command = findCommand(request.command);
    if (!command && isCommand(request.command)) {
        return refuse(QStringLiteral("the commands of %1 are: %2")
                          .arg(request.command, verbs(request.command).join(QStringLiteral(", "))));
    }
    if (!command)
        return refuseWord(QStringLiteral("there is no such command"), request.command);
    const auto has = [command](unsigned traits) { return (command->traits & traits) == traits; };
    if (!session && has(SessionOnly))
        return refuse(QStringLiteral("%1 is a command of a session").arg(request.command));
    if (session && has(NotInSession))
        return refuse(QStringLiteral("%1 is not a command of a session").arg(request.command));
    if (arguments.size() < command->minimum)
        return refuse(QStringLiteral("%1 wants more arguments").arg(request.command));
    if (arguments.size() > command->maximum) {
        const QString tooMany = QStringLiteral("too many arguments for %1").arg(request.command);
        if (!has(MayAuthenticate))
            return refuse(tooMany);
        return refuse(tooMany
                      + QStringLiteral("; secrets are read from the terminal, or with --data - or --data-fd, but never "
                                       "from the command line, where everybody can see them"));
    }

    request.factor = value("factor");
    // It would mean that no authentication is wanted.
    if (isSet("factor") && request.factor.isEmpty())
        return refuse(QStringLiteral("--factor wants a factor's name"));
    request.service = isSet("service") ? value("service") : QStringLiteral("unlock");
    if (request.command == QLatin1String("authenticate")) {
        if (isSet("service"))
            return refuse(QStringLiteral("authenticate takes the service as its argument"));
        if (request.factor.isEmpty())
            return refuse(QStringLiteral("authenticate wants --factor"));
        request.service = arguments.first();
    } else if (!request.factor.isEmpty() && !has(MayAuthenticate)) {
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
            return refuse(QStringLiteral("--timeout wants a number of seconds, more than 0 and at most 1000000"));
        request.timeout = int(seconds * 1000);
    }
    request.token = isSet("token");
    if (request.token && !session)
        return refuse(QStringLiteral("--token works only in a session; use --factor"));
    if (request.token && !has(TakesToken))
        return refuse(QStringLiteral("%1 does not take --token").arg(request.command));
    if (has(WantsToken) && request.factor.isEmpty() && !request.token) {
        return refuse(QStringLiteral("%1 wants an authentication: --factor%2")
                          .arg(request.command, session ? QStringLiteral(", or --token") : QString()));
    }
    if (isSet("user") && !has(TakesUser))
        return refuse(QStringLiteral("%1 does not take --user").arg(request.command));
    request.json = isSet("json");
    request.verbose = isSet("verbose");

    const bool ofUser = request.command.startsWith(QLatin1String("user "));
    const bool ofMethod = request.command.startsWith(QLatin1String("method "));
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
    } else if (ofMethod) {
        request.calledFactor = arguments.takeFirst();
        if (request.command != QLatin1String("method set"))
            request.name = arguments.takeFirst();
    }
    if (ofUser || isSet("user")) {
        const QString user = ofUser ? arguments.takeFirst() : value("user");
        request.user = parseUser(user, problem);
        if (!request.user)
            return refuseWord(problem, user);
    }
    if (request.command == QLatin1String("user set")) {
        request.name = arguments.takeFirst();
        const char *const flags[] = {ShowNotifications, IsMultiFactorable, IsUserSettable};
        if (std::none_of(std::begin(flags), std::end(flags),
                         [&](const char *flag) { return request.name == QLatin1String(flag); }))
            return refuseWord(QStringLiteral("there is no such flag"), request.name);
        request.on = arguments.first() == QLatin1String("on");
        if (!request.on && arguments.first() != QLatin1String("off"))
            return refuseWord(QStringLiteral("a flag is on or off"), arguments.first());
    } else if (request.command == QLatin1String("options get") || request.command.endsWith(QLatin1String(" toggle"))) {
        request.name = arguments.takeFirst();
    } else if (ofMethod || request.command == QLatin1String("factor-method")) {
        for (const QString &argument : qAsConst(arguments)) {
            const QString wrong = parseParameter(argument, request.params);
            if (!wrong.isEmpty())
                return refuseWord(wrong, argument);
        }
    }
    if (request.command == QLatin1String("method set")) {
        request.name = request.params.firstKey();
        request.value = request.params.first();
    }
    return request;
}
