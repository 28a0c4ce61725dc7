// Plays cases: hostile-replay [--tell|--effort] FILE|FOLDER…
//              hostile-replay --drawn FIRST COUNT [FOLDER…]
//              hostile-replay --cuts STEP FIRST
//
// FILE is a script; --drawn plays scripts drawn by lot, numbered, and changes of those in the folders; --cuts ends, or
// halts, each kind of bytes that a peer sends after each STEPth byte from FIRST on. --tell has everything told,
// --effort what the host has needed, and its words.

#include "case.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>

#include <dirent.h>

namespace {

constexpr long Slow = 15000;

// Peers lose patience with a host that the machine holds up, and then do not come to all that a script has for them.
constexpr int PlaysToMeetAll = 10;

int failures = 0;

bool tellsEffort = false;

/** @p isStrict where the script is written by hand: each word means something, and it comes to each of the reactions. */
void play(const Bytes &name, const Bytes &text, bool isTold = false, bool isStrict = false)
{
    Effort effort;
    Bytes problem = playCase(text, isTold, nullptr, &effort);
    for (int plays = 1; isStrict && problem.empty() && !effort.unmet.empty() && plays < PlaysToMeetAll; ++plays)
        problem = playCase(text, isTold, nullptr, &effort);
    const Bytes unknown = Script(text).unknown;
    if (isStrict && problem.empty() && !unknown.empty())
        problem = "unknown word " + unknown;
    if (isStrict && problem.empty() && !effort.unmet.empty())
        problem = "it did not come to " + effort.unmet;
    if (tellsEffort) {
        printf("%s: %ld KiB at most, %ld ms\n%s", name.c_str(), effort.peakKilobytes, effort.milliseconds,
               effort.words.c_str());
    }
    if (effort.milliseconds > Slow)
        printf("slow: %s, %ld ms\n", name.c_str(), effort.milliseconds);
    if (problem.empty())
        return;
    ++failures;
    printf("FAIL %s: %s\n--- the script\n%s\n---\n", name.c_str(), problem.c_str(), text.c_str());
    fflush(stdout);
}

Bytes contentOf(const Bytes &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/** The path itself, or those of the files in the folder; sorted. */
std::set<Bytes> filesOf(const Bytes &path)
{
    DIR *const folder = opendir(path.c_str());
    if (!folder)
        return {path};
    std::set<Bytes> files;
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] != '.')
            files.insert(path + '/' + entry->d_name);
    }
    closedir(folder);
    return files;
}

/** What is cut, and about how many bytes that has; the host's steps before it. */
struct Cut
{
    const char *event;
    const char *actions;
    const char *steps;
    unsigned after;
    unsigned length;
};

constexpr Cut cuts[] = {
    {"AUTH", "answer", "", 0, 38},
    {"AUTH", "answer", "", 1, 38},
    {"NEGOTIATE_UNIX_FD", "answer", "", 1, 16},
    {"Hello", "answer", "", 0, 110},
    {"Introspect", "answer", "", 1, 150},
    {"GetOption", "answer", "", 0, 70},
    {"FactorMethod", "reply 5", "factor unlock round", 0, 60},
    {"RequestChallenge", "answer", "wait factor", 0, 60},
    {"round", "signal 0", "factor round factor", 0, 140},
    {"round", "signal 5", "factor round wait", 0, 180},
    {"round", "there signal 8", "factor round state", 0, 170},
};

void playCuts(unsigned step, unsigned first)
{
    for (const Cut &cut : cuts) {
        const bool isThere = Bytes(cut.actions).compare(0, 5, "there") == 0;
        for (const char *how : {"cut", "cutstall"}) {
            for (unsigned at = first; at <= cut.length; at += step) {
                const Bytes text = Bytes(cut.steps) + "\non " + cut.event + " after " + std::to_string(cut.after)
                    + (isThere ? " there " : " ") + how + ' ' + std::to_string(at) + ' ' + cut.actions + "\n";
                play(Bytes("cut of ") + cut.event, text);
            }
        }
    }
}

} // namespace

int main(int argc, char *argv[])
{
    std::vector<Bytes> arguments(argv + 1, argv + argc);
    const auto take = [&arguments] {
        Bytes first;
        if (!arguments.empty()) {
            first = arguments.front();
            arguments.erase(arguments.begin());
        }
        return first;
    };
    const Bytes kind = arguments.empty() ? "" : arguments[0];
    if (kind == "--cuts") {
        take();
        const int step = std::max(1, atoi(take().c_str()));
        playCuts(unsigned(step), unsigned(atoi(take().c_str())));
    } else if (kind == "--drawn") {
        take();
        const unsigned first = unsigned(atoi(take().c_str()));
        const unsigned count = unsigned(atoi(take().c_str()));
        std::vector<Bytes> known;
        for (const Bytes &folder : arguments) {
            for (const Bytes &file : filesOf(folder))
                known.push_back(contentOf(file));
        }
        for (unsigned number = first; number < first + count; ++number) {
            Lots lots(number);
            const bool isNew = known.empty() || number % 2 == 0;
            play("number " + std::to_string(number),
                 isNew ? drawScript(lots) : drawChange(known[draw(lots, unsigned(known.size()))], lots));
        }
    } else {
        const bool isTold = kind == "--tell";
        tellsEffort = kind == "--effort";
        if (isTold || tellsEffort)
            take();
        if (arguments.empty())
            return 2;
        for (const Bytes &path : arguments) {
            for (const Bytes &file : filesOf(path)) {
                const Bytes text = contentOf(file);
                if (text.empty()) {
                    ++failures;
                    printf("FAIL %s: no script\n", file.c_str());
                } else {
                    play(file, text, isTold, file != path);
                }
            }
        }
    }
    return failures > 0 ? 1 : 0;
}
