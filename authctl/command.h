#pragma once

#include "request.h"

#include <variant>
#include <vector>

class Console;
class Output;
class SettingsConsole;

/** Where a command may be given, and which options it takes. */
enum Trait : unsigned {
    SessionOnly = 1,
    NotInSession = 2,
    Authenticates = 4,
    TakesService = 8,
    MayAuthenticate = Authenticates | TakesService,
    TakesToken = 16, ///< the one held by the session
    WantsToken = MayAuthenticate | TakesToken | 32,
    TakesUser = 64,
    UsesSettings = 128,             ///< by way of the settings client
    ShowsUser = UsesSettings | 256, ///< as the settings client has read the user's settings
    EndsWell = 512,                 ///< when it is interrupted
};

using ConsoleAction = int (Console::*)(const Request &);
using SettingsAction = int (SettingsConsole::*)(const Request &);
using PlainAction = int (*)(Output &, const Request &);
/** What a command does once it is authenticated; null: nothing more. */
using Action = std::variant<ConsoleAction, SettingsAction, PlainAction>;

struct Command
{
    /** Its words in small letters, and the names of its arguments between them; "…" is for any number of the last. */
    const char *synopsis;
    unsigned traits;
    const char *help;
    Action action;

    bool has(unsigned wanted) const;
    QStringList parts() const;
    /** Its words alone. */
    QString name() const;
};

/** What an argument or the value of an option may be. */
struct Value
{
    const char *name;
    /** Takes a word; returns what is wrong with it. */
    QString (*read)(const QString &word, Request &request);
    /** Words that it may be; nullptr: they cannot be told. */
    QStringList (*words)() = nullptr;
};

struct Option
{
    const char *name;
    unsigned trait; ///< of the commands that take it
    const char *help;
    Value value = {nullptr, nullptr}; ///< has no name where the option has no value
    bool aside = false;               ///< prints something instead of doing a command
};

extern const std::vector<Command> Commands;
extern const std::vector<Option> Options;

/** Whether a part of a synopsis is a word, and not an argument's name. */
bool isWord(const QString &part);
/** What the argument of this name may be. */
const Value &argument(const QString &name);

/** The command whose words are there, or nullptr. */
const Command *findCommand(const QStringList &words);
/** What may follow a word, or an argument after that, to make a command of it. */
QStringList verbs(const QString &word);

/** The help text: of one command, or of all. */
QString help(const Command *command);
/** What the last of the words may become, for the completion of shells. */
QStringList complete(QStringList words);
