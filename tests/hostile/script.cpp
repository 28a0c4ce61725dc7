#include "script.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

const char *const eventNames[] = {
    "accept",
    "AUTH",
    "NEGOTIATE_UNIX_FD",
    "any",
    "Introspect",
    "FactorMethod",
    "GetOption",
    "RequestChallenge",
    "Authenticate",
    "ChangeAuthData",
    "UnlockIfNeeded",
    "SetDevlockState",
    "GetUserOption",
    "GetUserOptions",
    "SetUserOption",
    "GetState",
    "SetState",
    "Hello",
    "AddMatch",
    "RemoveMatch",
    "GetNameOwner",
    "GetId",
    "round",
    nullptr,
};

const char *const actionNames[] = {
    "answer", "mute",  "reply",  "anyreply", "error", "foreign", "typed",     "signal",   "anysignal",
    "bus",    "spoof", "leave",  "return",   "call",  "raw",     "cut",       "cutstall", "flip",
    "close",  "stall", "repeat", "big",      "hold",  "release", "bigendian", "there",    nullptr,
};

const char *const stepNames[] = {
    "authenticate", "change", "unlock",   "lock",  "drop",  "factor",  "wait",          "burst",
    "uid",          "notify", "settable", "multi", "login", "trigger", "unlocktrigger", "state",
    "option",       "action", "date",     "round", "renew", "second",  nullptr,
};

const char *const heavyActionNames[] = {"huge", "flood", "unknown", "namelost", nullptr};
const char *const heavyStepNames[] = {"linger", "forkexit", "forkcall", nullptr};

const char *const endNames[] = {"end-close", "end-garbage", "end-alive", "end-bus", nullptr};

namespace {

constexpr unsigned MaximumNumber = 4000000;

int indexIn(const char *const *names, const Bytes &word)
{
    for (int i = 0; names[i]; ++i) {
        if (word == names[i])
            return i;
    }
    return -1;
}

std::vector<Bytes> wordsOf(const Bytes &text)
{
    std::vector<Bytes> words;
    std::istringstream lines(text);
    for (Bytes line; std::getline(lines, line);) {
        std::istringstream stream(line.substr(0, line.find('#')));
        for (Bytes word; stream >> word;)
            words.push_back(word);
    }
    return words;
}

bool isNumber(const Bytes &word)
{
    return word.size() < 9 && std::all_of(word.begin(), word.end(), [](unsigned char c) { return isdigit(c); });
}

Bytes drawName(const char *const *names, Lots &lots)
{
    unsigned count = 0;
    while (names[count])
        ++count;
    return names[draw(lots, count)];
}

Bytes drawNumber(Lots &lots)
{
    const unsigned below[] = {3, 20, 100, 500, 5000, 200000};
    return std::to_string(draw(lots, below[draw(lots, sizeof below / sizeof *below)]));
}

Bytes drawWord(Lots &lots)
{
    switch (draw(lots, 10)) {
    case 0:
    case 1:
        return drawName(stepNames, lots);
    case 2:
        return "on " + drawName(eventNames, lots);
    case 3:
        return "after " + std::to_string(draw(lots, 4));
    case 4:
        return draw(lots, 4) != 0 ? "always" : draw(lots, 2) ? "pin" : drawName(endNames, lots);
    case 5:
        return drawNumber(lots);
    default:
        return drawName(actionNames, lots) + ' ' + drawNumber(lots);
    }
}

} // namespace

Script::Script(const Bytes &text)
{
    const std::vector<Bytes> words = wordsOf(text);
    const auto numberAt = [&words](size_t i) {
        return i < words.size() && isNumber(words[i]) ? std::min(unsigned(std::stoul(words[i])), MaximumNumber) : 0;
    };
    for (size_t i = 0; i < words.size(); ++i) {
        const Bytes &word = words[i];
        const int foundEnd = indexIn(endNames, word);
        if (word == "pin")
            isPinned = true;
        else if (word == "used")
            hasUsedBus = true;
        else if (foundEnd >= 0)
            end = End(foundEnd);
        else if ((indexIn(stepNames, word) >= 0 || indexIn(heavyStepNames, word) >= 0) && steps.size() < 40)
            steps.push_back(word);
        else if (word == "on" && i + 1 < words.size() && indexIn(eventNames, words[i + 1]) >= 0)
            reactions.push_back({words[++i], 0, false, {}});
        else if (reactions.empty())
            unknown = unknown.empty() ? word : unknown;
        else if (word == "after")
            reactions.back().after = numberAt(i + 1);
        else if (word == "always")
            reactions.back().always = true;
        else if ((indexIn(actionNames, word) >= 0 || indexIn(heavyActionNames, word) >= 0)
                 && reactions.back().actions.size() < 20)
            reactions.back().actions.push_back({word, numberAt(i + 1)});
        else if (!isNumber(word) && unknown.empty())
            unknown = word;
    }
}

Bytes drawScript(Lots &lots)
{
    Bytes text;
    for (unsigned count = 3 + draw(lots, 8); count > 0; --count)
        text += drawName(stepNames, lots) + ' ';
    for (unsigned count = 1 + draw(lots, 4); count > 0; --count) {
        text += "\non " + drawName(eventNames, lots);
        if (draw(lots, 2))
            text += " after " + std::to_string(draw(lots, 4));
        if (draw(lots, 4) == 0)
            text += " always";
        for (unsigned actions = 1 + draw(lots, 3); actions > 0; --actions)
            text += ' ' + drawName(actionNames, lots) + ' ' + drawNumber(lots);
    }
    if (draw(lots, 4) == 0)
        text += "\npin";
    return text + '\n' + drawName(endNames, lots) + '\n';
}

Bytes drawChange(const Bytes &text, Lots &lots)
{
    std::vector<Bytes> words = wordsOf(text);
    // What is known to hang then is told by efforts/.
    words.erase(std::remove(words.begin(), words.end(), "used"), words.end());
    for (unsigned count = 1 + draw(lots, 4); count > 0; --count) {
        const size_t at = words.empty() ? 0 : draw(lots, unsigned(words.size()));
        const auto where = words.begin() + long(at);
        switch (words.empty() ? 0 : draw(lots, 4)) {
        case 0:
            words.insert(where, drawWord(lots));
            break;
        case 1:
            words.erase(where);
            break;
        case 2:
            *where = isNumber(*where) ? drawNumber(lots) : drawWord(lots);
            break;
        default:
            std::swap(*where, words[draw(lots, unsigned(words.size()))]);
        }
    }
    Bytes changed;
    for (const Bytes &word : words)
        changed += word + (word == "on" ? " " : "\n");
    return changed;
}
