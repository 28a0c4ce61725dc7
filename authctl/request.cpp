#include "request.h"

#include "command.h"

#include <QtCore/QCommandLineParser>

std::optional<Request> parseRequest(const QStringList &words, const Request *session, QString &problem)
{
    QCommandLineParser parser;
    for (const Option &option : Options) {
        QStringList names{QLatin1String(option.name)};
        if (qstrcmp(option.name, "help") == 0)
            names.append(QStringLiteral("h"));
        if (!session || !option.aside)
            parser.addOption({names, QString(), QLatin1String(option.value.name)});
    }
    const auto refuse = [&problem](const QString &text) {
        problem = text;
        return std::nullopt;
    };
    const auto refuseWord = [&refuse, session](const QString &text, const QString &word) {
        return refuse(session ? text : QStringLiteral("%1: \"%2\"").arg(text, word));
    };
    const auto isSet = [&parser](const char *name) { return parser.isSet(QLatin1String(name)); };

    if (!parser.parse(words))
        return refuse(session ? QStringLiteral("unknown option, or value missing or not wanted") : parser.errorText());
    const QStringList given = parser.positionalArguments();
    Request request;
    request.command = findCommand(given);
    const Command *command = request.command;
    if (!session && isSet("help")) {
        request.information = help(command);
        return request;
    }
    if (!session && isSet("version")) {
        request.information = QStringLiteral("authctl " AUTHCTL_VERSION);
        return request;
    }
    if (given.isEmpty())
        return refuse(QStringLiteral("no command given"));
    const QStringList known = verbs(given.first());
    if (!command && !known.isEmpty()) {
        return refuse(
            QStringLiteral("the commands of %1 are: %2").arg(given.first(), known.join(QStringLiteral(", "))));
    }
    if (!command)
        return refuseWord(QStringLiteral("there is no such command"), given.first());
    const QString name = command->name();
    if (!session && command->has(SessionOnly))
        return refuse(QStringLiteral("%1 is a command of a session").arg(name));
    if (session && command->has(NotInSession))
        return refuse(QStringLiteral("%1 is not a command of a session").arg(name));
    QStringList parts = command->parts();
    const bool repeats = parts.last().endsWith(QChar(0x2026));
    const QString repeated = repeats ? parts.takeLast() : QString();
    if (given.size() < parts.size())
        return refuse(QStringLiteral("%1 wants more arguments").arg(name));
    if (given.size() > parts.size() && !repeats) {
        const QString tooMany = QStringLiteral("too many arguments for %1").arg(name);
        if (!command->has(Authenticates))
            return refuse(tooMany);
        return refuse(tooMany
                      + QStringLiteral("; secrets are read from the terminal, or with --data - or --data-fd, but never "
                                       "from the command line, where everybody can see them"));
    }

    if (isSet("factor") && !command->has(Authenticates))
        return refuse(QStringLiteral("%1 does not authenticate").arg(name));
    if (isSet("service") && command->has(Authenticates) && !command->has(TakesService))
        return refuse(QStringLiteral("%1 takes the service as its argument").arg(name));
    if (!isSet("factor") && command->has(Authenticates) && !command->has(TakesService))
        return refuse(QStringLiteral("%1 wants --factor").arg(name));
    if (!isSet("factor") && (isSet("service") || isSet("uid") || isSet("data") || isSet("data-fd")))
        return refuse(QStringLiteral("--service, --uid, --data and --data-fd go with --factor"));
    if (isSet("data") && isSet("data-fd"))
        return refuse(QStringLiteral("--data and --data-fd exclude each other"));
    if (isSet("token") && !session)
        return refuse(QStringLiteral("--token works only in a session; use --factor"));
    for (const char *option : {"token", "user"}) {
        if (isSet(option) && !command->has(option[0] == 't' ? TakesToken : TakesUser))
            return refuse(QStringLiteral("%1 does not take --%2").arg(name, QLatin1String(option)));
    }

    if (session)
        request.timeout = session->timeout;
    for (const Option &option : Options) {
        const QString value = option.value.name ? parser.value(QLatin1String(option.name)) : QString();
        problem = option.value.name && isSet(option.name) ? option.value.read(value, request) : QString();
        if (!problem.isEmpty())
            return option.trait == TakesUser ? refuseWord(problem, value) : refuse(problem);
    }
    request.token = isSet("token");
    request.json = isSet("json");
    request.verbose = isSet("verbose");
    if (command->has(WantsToken) && request.factor.isEmpty() && !request.token) {
        return refuse(QStringLiteral("%1 wants an authentication: --factor%2")
                          .arg(name, session ? QStringLiteral(", or --token") : QString()));
    }
    for (int i = 0; i < given.size(); ++i) {
        const QString &word = given.at(i);
        const QString part = parts.value(i, repeated);
        problem = isWord(part) ? QString() : argument(part).read(word, request);
        if (!problem.isEmpty())
            return refuseWord(problem, word);
    }
    return request;
}
