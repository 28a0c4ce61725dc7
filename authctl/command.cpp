#include "command.h"

#include "console.h"
#include "examine.h"
#include "settings-console.h"
#include "values.h"

#include <QtCore/QMetaEnum>
#include <QtCore/QRegularExpression>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

template <const char *const &Words> QStringList words()
{
    return QString::fromLatin1(Words).split(QLatin1Char(' '));
}

const char *const Services = "login unlock";
const char *const OnOff = "on off";
const char *const StandardInput = "-";

QMetaEnum states()
{
    return QMetaEnum::fromType<AuthDevlockClient::LockState>();
}

QStringList stateNames()
{
    QStringList names;
    for (int i = 0; i < states().keyCount(); ++i)
        names.append(QString::fromLatin1(states().key(i)));
    return names;
}

QString readState(const QString &word, Request &request)
{
    const QStringList names = stateNames();
    const auto name = std::find_if(names.begin(), names.end(), [&word](const QString &each) {
        return each.compare(word, Qt::CaseInsensitive) == 0;
    });
    bool ok = name != names.end();
    request.state = ok ? states().keyToValue(name->toLatin1()) : word.toInt(&ok);
    return ok ? QString() : QStringLiteral("there is no such state");
}

QString readUser(const QString &word, Request &request)
{
    bool ok = false;
    const uint user = word.toUInt(&ok);
    if (!ok)
        return QStringLiteral("a user is given by a number, the user id");
    if (isNobody(user))
        return QStringLiteral("this user id means nobody");
    request.user = user;
    return {};
}

QString readFlag(const QString &word, Request &request)
{
    request.name = word;
    return SettingsConsole::flags().contains(word) ? QString() : QStringLiteral("there is no such flag");
}

QString readOnOff(const QString &word, Request &request)
{
    request.on = word == QLatin1String("on");
    return words<OnOff>().contains(word) ? QString() : QStringLiteral("a flag is on or off");
}

QString readParameter(const QString &word, Request &request)
{
    return parseParameter(word, request.params);
}

QString readOptionValue(const QString &word, Request &request)
{
    QString problem = parseParameter(word, request.params);
    if (problem.isEmpty()) {
        request.name = request.params.firstKey();
        request.value = request.params.first();
    }
    return problem;
}

template <QString Request::*Member> QString readText(const QString &word, Request &request)
{
    request.*Member = word;
    return {};
}

QString readFactor(const QString &word, Request &request)
{
    request.factor = word;
    // An empty one would mean that no authentication is wanted; with "--factor --help" help is.
    const bool isName = !word.isEmpty() && !word.startsWith(QLatin1String("--"));
    return isName ? QString() : QStringLiteral("--factor wants a factor's name");
}

QString readUid(const QString &word, Request &request)
{
    bool ok = false;
    request.uid = word.toUInt(&ok);
    return ok ? QString() : QStringLiteral("--uid wants a number");
}

QString readData(const QString &word, Request &request)
{
    request.secret = Request::Secret::StandardInput;
    return word == QLatin1String(StandardInput)
        ? QString()
        : QStringLiteral("--data takes only \"-\", for standard input: everybody can see a secret on the command line");
}

QString readDescriptor(const QString &word, Request &request)
{
    bool ok = false;
    request.secret = Request::Secret::Descriptor;
    request.descriptor = word.toInt(&ok);
    return ok && request.descriptor >= 0 ? QString() : QStringLiteral("--data-fd wants the number of a descriptor");
}

QString readTimeout(const QString &word, Request &request)
{
    bool ok = false;
    const double seconds = word.toDouble(&ok);
    if (!ok || !(seconds > 0) || seconds > 1e6)
        return QStringLiteral("--timeout wants a number of seconds, more than 0 and at most 1000000");
    request.timeout = int(seconds * 1000);
    return {};
}

constexpr Value Arguments[] = {
    {"SERVICE", readText<&Request::service>, words<Services>},
    {"STATE", readState, stateNames},
    {"FACTOR", readText<&Request::calledFactor>},
    {"TYPE",
     [](const QString &word, Request &request) {
         request.params.insert(QStringLiteral("type"), word);
         return QString();
     }},
    {"UID", readUser},
    {"FLAG", readFlag, SettingsConsole::flags},
    {"on|off", readOnOff, words<OnOff>},
    {"KEY", readText<&Request::name>},
    {"NAME", readText<&Request::name>},
    {"NAME[:TYPE]=VALUE", readOptionValue},
    {"[KEY[:TYPE]=VALUE]…", readParameter},
    {"[WORD]…",
     [](const QString &word, Request &request) {
         request.words.append(word);
         return QString();
     }},
};

int printCompletions(Output &output, const Request &request)
{
    const QStringList found = complete(request.words);
    if (!found.isEmpty())
        output.print(stdout, found.join(QLatin1Char('\n')));
    return Done;
}

QString optionName(const Option &option)
{
    return QStringLiteral("--") + QLatin1String(option.name);
}

/** Whether the words of a command are in their places, those after so many parts apart. */
bool begins(const Command &command, const QStringList &words, int count)
{
    const QStringList parts = command.parts().mid(0, count);
    for (int i = 0; i < parts.size(); ++i) {
        if (isWord(parts.at(i)) && parts.at(i) != words.value(i))
            return false;
    }
    return true;
}

/** Lines of help, the text beside what it explains. */
QString lines(const QString &left, const char *text, int width)
{
    const QString margin(width + 4, QLatin1Char(' '));
    QString right = QString::fromUtf8(text).replace(QLatin1Char('\n'), QLatin1Char('\n') + margin);
    return QStringLiteral("  ") + left.leftJustified(width)
        + (left.size() > width ? QLatin1Char('\n') + margin : QStringLiteral("  ")) + right + QLatin1Char('\n');
}

QString optionLines(const Command *command)
{
    QString text;
    for (const Option &option : Options) {
        if (command && !command->has(option.trait))
            continue;
        QString left = (qstrcmp(option.name, "help") == 0 ? QStringLiteral("-h, ") : QString()) + optionName(option);
        if (option.value.name)
            left += QLatin1Char(' ') + QLatin1String(option.value.name);
        text += lines(left, option.help, 18);
    }
    return text;
}

} // namespace

const std::vector<Command> Commands = {
    {"authenticate SERVICE",
     Authenticates,
     "authenticate a user for SERVICE, such as login or unlock, with --factor",
     {}},
    {"state", 0, "print the device-lock state", &Console::tellState},
    {"lock", MayAuthenticate | TakesToken, "lock the device", &Console::lock},
    {"unlock", MayAuthenticate | TakesToken, "unlock the device", &Console::unlock},
    {"set-state STATE", MayAuthenticate | TakesToken,
     "change the state to a name (Unlocked, Locked, ManagerLockout, CodeEntryLockout,\nUndefined, SecurityUi) or a "
     "number",
     &Console::setState},
    {"unlock-if-needed", 0, "unlock if the daemon's policy allows that without an authentication",
     &Console::unlockIfNeeded},
    {"factor-method FACTOR TYPE [KEY[:TYPE]=VALUE]…", MayAuthenticate, "call a method of a factor and print its answer",
     &Console::callFactor},
    {"watch", NotInSession | TakesUser | EndsWell,
     "print everything the daemon tells until interrupted; with --user also what becomes\nof that user's settings",
     &Console::follow},
    {"session", NotInSession, "read commands from standard input, one a line, and keep the tokens between them",
     &Console::runSession},
    {"drop", SessionOnly, "forget the tokens", &Console::drop},
    {"quit", SessionOnly, "end the session", &Console::quit},
    {"doctor", NotInSession, "tell what would end, hold up or deceive a screen on this machine, and what to do",
     examine},
    {"complete [WORD]…", NotInSession, "print what the last word may become, for the completion of shells",
     printCompletions},
    {"options get KEY", 0, "print a global option of the daemon", &SettingsConsole::askOption},
    {"user UID show", ShowsUser, "print a user's settings", &SettingsConsole::show},
    {"user UID set FLAG on|off", WantsToken | ShowsUser,
     "change one: show-notifications, is-multi-factorable or is-user-settable", &SettingsConsole::setFlag},
    {"user UID last-login", UsesSettings, "print the date of the user's last login", &SettingsConsole::tellLastLogin},
    {"factors", TakesUser | ShowsUser,
     "list the factors that a user sees: for login, and those chosen for unlock alone", &SettingsConsole::listFactors},
    {"factors toggle NAME", WantsToken | TakesUser | ShowsUser, "choose a factor for login, or unchoose it",
     &SettingsConsole::toggleLogin},
    {"unlock-factors toggle NAME", WantsToken | TakesUser | ShowsUser, "choose a factor for unlock, or unchoose it",
     &SettingsConsole::toggleUnlock},
    {"method FACTOR get NAME", MayAuthenticate | TakesToken | TakesUser | UsesSettings,
     "print a user's option of a factor", &SettingsConsole::getOption},
    {"method FACTOR set NAME[:TYPE]=VALUE", WantsToken | TakesUser | UsesSettings, "change it",
     &SettingsConsole::setOption},
    {"method FACTOR action NAME [KEY[:TYPE]=VALUE]…", WantsToken | TakesUser | UsesSettings,
     "run an action of a factor and print its answer", &SettingsConsole::runAction},
};

const std::vector<Option> Options = {
    {"factor", Authenticates, "authenticate with the factor F, such as code", {"F", readFactor}},
    {"service",
     TakesService,
     "what to authenticate for (default: unlock)",
     {"S", readText<&Request::service>, words<Services>}},
    {"uid",
     Authenticates,
     "the user who authenticates (default: the one whose settings they are, otherwise the\ndaemon's choice)",
     {"N", readUid}},
    {"data",
     Authenticates,
     "read the secret from standard input; in a session from the next line",
     {"-", readData, words<StandardInput>}},
    {"data-fd",
     Authenticates,
     "read the secret from descriptor N. Without --data or --data-fd it is asked for on the\nterminal. It is never "
     "taken "
     "from the command line.",
     {"N", readDescriptor}},
    {"token", TakesToken, "in a session: act with the token held, even if there is none"},
    {"user",
     TakesUser,
     "whose factors, or whose options and actions of a factor (default: in a session the user\nnamed last, otherwise "
     "the "
     "one who runs authctl)",
     {"UID", readUser}},
    {"timeout", 0, "give up waiting for an outcome after so long (default: 30)", {"SECONDS", readTimeout}},
    {"json", 0, "print one JSON object a line"},
    {"verbose", 0, "show the library's debug messages as well"},
    {"help", 0, "print this help, or that of a command", {nullptr, nullptr}, true},
    {"version", 0, "print the version", {nullptr, nullptr}, true},
};

bool isNobody(uint uid)
{
    return uid == 0 || uid == std::numeric_limits<quint32>::max();
}

bool Command::has(unsigned wanted) const
{
    return (traits & wanted) == wanted;
}

QStringList Command::parts() const
{
    return QString::fromUtf8(synopsis).split(QLatin1Char(' '));
}

QString Command::name() const
{
    QStringList found = parts();
    found.erase(std::remove_if(found.begin(), found.end(), [](const QString &part) { return !isWord(part); }),
                found.end());
    return found.join(QLatin1Char(' '));
}

bool isWord(const QString &part)
{
    return part.at(0).isLower() && !part.contains(QLatin1Char('|'));
}

const Value &argument(const QString &name)
{
    return *std::find_if(std::begin(Arguments), std::end(Arguments),
                         [&name](const Value &value) { return name == QString::fromUtf8(value.name); });
}

const Command *findCommand(const QStringList &words)
{
    const Command *found = nullptr;
    for (const Command &command : Commands) {
        // Of two that begin alike the longer one is meant.
        if (begins(command, words, -1) && (!found || command.parts().size() > found->parts().size()))
            found = &command;
    }
    return found;
}

QStringList verbs(const QString &word)
{
    QStringList found;
    for (const Command &command : Commands) {
        const QString name = command.name();
        if (name.startsWith(word + QLatin1Char(' ')))
            found.append(name.mid(word.size() + 1));
    }
    return found;
}

QString help(const Command *command)
{
    if (command) {
        return QStringLiteral("Usage: authctl [OPTION…] %1\n\n%2\n\nOptions:\n%3")
            .arg(QString::fromUtf8(command->synopsis), lines(QString(), command->help, -2).trimmed(),
                 optionLines(command))
            .trimmed();
    }
    QString sections[2];
    for (const Command &each : Commands) {
        const QString mark = each.has(WantsToken) ? QStringLiteral(" *") : QString();
        sections[std::holds_alternative<SettingsAction>(each.action)] +=
            lines(QString::fromUtf8(each.synopsis) + mark, each.help, 32);
    }
    return QStringLiteral(R"(Usage: authctl [OPTION…] COMMAND [ARGUMENT…]

Talks to the authentication daemon from a console. "authctl COMMAND --help" tells more of one command.

Commands:
%1
Settings (those marked * want --factor, or in a session --token):
%2
Options:
%3
lock, unlock, set-state, factor-method, method and the commands marked * authenticate first when --factor is given.
drop, quit and --token are for sessions. There are two tokens: that of the settings, and that of the other commands.
In a session quotes group words, # starts a comment line.

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
A session ends with the status of its last command.)")
        .arg(sections[0], sections[1], optionLines(nullptr));
}

QStringList complete(QStringList words)
{
    QString last = words.isEmpty() ? QString() : words.takeLast();
    // bash makes three words of "--option=value", and two of "--option=".
    if (last == QLatin1String("="))
        last.clear();
    words.removeAll(QStringLiteral("="));
    QStringList given;
    const Option *awaiting = nullptr; // its value comes next
    for (const QString &word : qAsConst(words)) {
        if (std::exchange(awaiting, nullptr))
            continue;
        const auto option = std::find_if(Options.begin(), Options.end(), [&word](const Option &each) {
            return each.value.name && word == optionName(each);
        });
        if (option != Options.end())
            awaiting = &*option;
        else if (!word.startsWith(QLatin1Char('-')))
            given.append(word);
    }

    QStringList found;
    const auto offer = [&found](const Value &value, const QString &before = QString()) {
        const QStringList all = value.words ? value.words() : QStringList();
        for (const QString &word : all)
            found.append(before + word);
    };
    if (awaiting) {
        offer(awaiting->value);
    } else if (last.startsWith(QLatin1Char('-'))) {
        const Command *command = findCommand(given);
        for (const Option &option : Options) {
            if (option.trait == TakesToken || (command && !command->has(option.trait)))
                continue;
            if (last.contains(QLatin1Char('=')))
                offer(option.value, optionName(option) + QLatin1Char('='));
            else
                found.append(optionName(option));
        }
    } else {
        for (const Command &command : Commands) {
            const QString next = command.parts().value(given.size());
            if (next.isEmpty() || command.has(SessionOnly) || !begins(command, given, given.size()))
                continue;
            if (isWord(next))
                found.append(next);
            else
                offer(argument(next));
        }
    }
    found.removeDuplicates();
    return found.filter(QRegularExpression(QLatin1Char('^') + QRegularExpression::escape(last)));
}
