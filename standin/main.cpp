#include "config.h"
#include "control.h"
#include "ctl.h"
#include "embedded.h"
#include "scenario.h"
#include "service.h"

#include <algorithm>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstring>
#include <glib-unix.h>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sys/resource.h>
#include <unistd.h>

namespace {

enum ExitStatus {
    Success = 0,
    CannotServe = 1,
    WrongUsage = 2,
    BadScenario = 3,
};

const char defaultControlPath[] = "/run/authd/standin.socket";
const char daemonSocketPath[] = "/var/run/authd/authd.socket";

const char helpText[] = R"(Usage:
  authd-standin run [--scenario FILE] [--uid N] [--no-bus] -- COMMAND...
  authd-standin [serve] [--scenario FILE] [--control PATH] [--ready-fd N]
  authd-standin ctl [--control PATH] REQUEST...
  authd-standin check FILE
  authd-standin scenario

Plays the authentication daemon authd, for hosts of libauth-client and their
tests, and misbehaves when told to.

  run       runs COMMAND in a world of its own with the stand-in serving in it
  serve     serves in the world it is started in, until SIGTERM or SIGINT
  ctl       sends control requests (JSON objects; - reads one a line from
            standard input) to a running stand-in and prints the answers
  check     says what is wrong with a scenario file
  scenario  prints the built-in scenario

  --scenario FILE  the users, factors and so on (default: built in)
  --control PATH   the control socket (default: /run/authd/standin.socket)
  --ready-fd N     writes a line "ready" to descriptor N when it serves
  --uid N          the user id that COMMAND has in its world
  --no-bus         a world without a system bus
  -h, --help, --version

Exit status: 0 stopped as asked, 1 cannot serve, 2 wrong usage, 3 bad scenario
file; run: COMMAND's; ctl: 0 if all requests were met, else 1.

See authd-standin(1) for the rules it plays by and the control requests.
)";

class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct Options
{
    std::string scenario;
    std::string control = defaultControlPath;
    int readyFd = -1;
    std::string uid;
    bool noBus = false;
    bool help = false;
    bool version = false;
    std::vector<std::string> arguments;
};

/** Reads the options of a command, which are those among @p allowed. What follows the first argument is no option. */
Options readOptions(const std::vector<std::string> &words, const std::set<std::string> &allowed)
{
    g_autofree char *scenario = nullptr;
    g_autofree char *control = nullptr;
    g_autofree char *uid = nullptr;
    g_auto(GStrv) arguments = nullptr;
    constexpr int noFd = INT_MIN;
    int readyFd = noFd;
    gboolean noBus = FALSE;
    gboolean wantsHelp = FALSE;
    gboolean wantsVersion = FALSE;
    const GOptionEntry all[] = {
        {"scenario", 0, 0, G_OPTION_ARG_FILENAME, &scenario, nullptr, nullptr},
        {"control", 0, 0, G_OPTION_ARG_FILENAME, &control, nullptr, nullptr},
        {"ready-fd", 0, 0, G_OPTION_ARG_INT, &readyFd, nullptr, nullptr},
        {"uid", 0, 0, G_OPTION_ARG_FILENAME, &uid, nullptr, nullptr},
        {"no-bus", 0, 0, G_OPTION_ARG_NONE, &noBus, nullptr, nullptr},
        {"help", 'h', 0, G_OPTION_ARG_NONE, &wantsHelp, nullptr, nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &wantsVersion, nullptr, nullptr},
        {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &arguments, nullptr, nullptr},
    };
    std::vector<GOptionEntry> entries;
    std::copy_if(std::begin(all), std::end(all), std::back_inserter(entries), [&](const GOptionEntry &entry) {
        const std::string name = entry.long_name;
        return name.empty() || name == "help" || name == "version" || allowed.count(name);
    });
    entries.push_back({});

    const std::unique_ptr<GOptionContext, void (*)(GOptionContext *)> context(g_option_context_new(nullptr),
                                                                              g_option_context_free);
    g_option_context_set_help_enabled(context.get(), FALSE);
    g_option_context_set_strict_posix(context.get(), TRUE);
    g_option_context_add_main_entries(context.get(), entries.data(), nullptr);
    g_autoptr(GStrvBuilder) builder = g_strv_builder_new();
    g_strv_builder_add(builder, "authd-standin");
    for (const std::string &word : words)
        g_strv_builder_add(builder, word.c_str());
    g_auto(GStrv) argv = g_strv_builder_end(builder);
    g_autoptr(GError) error = nullptr;
    if (!g_option_context_parse_strv(context.get(), &argv, &error))
        throw UsageError(error->message);

    Options options;
    const auto take = [](const char *name, const char *value, std::string &place) {
        if (value && !*value)
            throw UsageError(std::string(name) + " wants a value");
        if (value)
            place = value;
    };
    take("--scenario", scenario, options.scenario);
    take("--control", control, options.control);
    take("--uid", uid, options.uid);
    if (readyFd < 0 && readyFd != noFd)
        throw UsageError("--ready-fd wants a number from 0");
    options.readyFd = readyFd == noFd ? -1 : readyFd;
    options.noBus = noBus;
    options.help = wantsHelp;
    options.version = wantsVersion;
    for (char **argument = arguments; argument && *argument; ++argument)
        options.arguments.emplace_back(*argument);
    // GOption of GLib 2.74 takes no notice of the value in --no-bus=7.
    for (auto word = words.begin(); word != words.end() - static_cast<ptrdiff_t>(options.arguments.size()); ++word) {
        for (const char *flag : {"--no-bus", "--help", "--version"}) {
            if (g_str_has_prefix(word->c_str(), (std::string(flag) + '=').c_str()))
                throw UsageError(std::string(flag) + " takes no value");
        }
    }
    return options;
}

void refuseOccupied(const std::string &path, const std::string &occupant)
{
    if (Listener::isAlive(path))
        throw std::runtime_error("another " + occupant + " answers on " + path);
}

int serve(const Options &options)
{
    if (!options.arguments.empty())
        throw UsageError("unexpected argument " + options.arguments.front());
    const Scenario scenario = options.scenario.empty() ? Scenario::builtIn() : Scenario::fromFile(options.scenario);
    signal(SIGPIPE, SIG_IGN);
    // Each client takes one.
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    refuseOccupied(daemonSocketPath, "daemon");
    refuseOccupied(options.control, "stand-in");

    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    const auto quit = [](gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop *>(data));
        return G_SOURCE_CONTINUE;
    };
    g_unix_signal_add(SIGTERM, quit, loop);
    g_unix_signal_add(SIGINT, quit, loop);
    {
        Service service(scenario);
        const Control control(options.control, service, [loop] { g_main_loop_quit(loop); });
        service.start(true, true);
        if (options.readyFd >= 0) {
            if (write(options.readyFd, "ready\n", 6) != 6)
                throw std::runtime_error(std::string("cannot write to the descriptor: ") + g_strerror(errno));
            close(options.readyFd);
        }
        g_main_loop_run(loop);
    }
    g_main_loop_unref(loop);
    return Success;
}

int runInWorld(const Options &options)
{
    if (options.arguments.empty())
        throw UsageError("run wants a command");
    std::vector<std::string> words = {"authd-world"};
    if (!options.uid.empty())
        words.insert(words.end(), {"--uid", options.uid});
    if (options.noBus)
        words.emplace_back("--no-bus");
    words.emplace_back("--standin");
    if (!options.scenario.empty())
        words.insert(words.end(), {"--scenario", options.scenario});
    words.emplace_back("--");
    words.insert(words.end(), options.arguments.begin(), options.arguments.end());

    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    g_autofree char *self = g_file_read_link("/proc/self/exe", nullptr);
    g_autofree char *directory = g_path_get_dirname(self ? self : "");
    const std::string besideSelf = std::string(directory) + "/authd-world";
    for (const std::string &program : {besideSelf, std::string(STANDIN_INSTALLED_WORLD)})
        execv(program.c_str(), argv.data());
    std::cerr << "authd-standin: cannot run " << besideSelf << ": " << g_strerror(errno) << std::endl;
    return CannotServe;
}

int control(const Options &options)
{
    if (options.arguments.empty())
        throw UsageError("ctl wants a request");
    return runCtl(options.control, options.arguments);
}

int check(const Options &options)
{
    if (options.arguments.size() != 1)
        throw UsageError("check wants a file, and no more");
    Scenario::fromFile(options.arguments.front());
    return Success;
}

int printScenario(const Options &options)
{
    if (!options.arguments.empty())
        throw UsageError("scenario takes no arguments");
    std::cout << Embedded::scenario;
    return Success;
}

struct Command
{
    std::set<std::string> options;
    int (*run)(const Options &options);
};

int run(const std::vector<std::string> &words)
{
    static const std::map<std::string, Command> commands = {
        {"run", {{"scenario", "uid", "no-bus"}, runInWorld}},
        {"serve", {{"scenario", "control", "ready-fd"}, serve}},
        {"ctl", {{"control"}, control}},
        {"check", {{}, check}},
        {"scenario", {{}, printScenario}},
    };
    const bool named = !words.empty() && !g_str_has_prefix(words.front().c_str(), "-");
    const auto command = commands.find(named ? words.front() : "serve");
    if (command == commands.end())
        throw UsageError("unknown command " + words.front());
    const Options options = readOptions({words.begin() + (named ? 1 : 0), words.end()}, command->second.options);
    if (options.help)
        std::cout << helpText;
    else if (options.version)
        std::cout << "authd-standin " STANDIN_VERSION << std::endl;
    else
        return command->second.run(options);
    return Success;
}

} // namespace

int main(int argc, char *argv[])
{
    setlocale(LC_CTYPE, "");
    try {
        const int status = run(std::vector<std::string>(argv + 1, argv + argc));
        if (!std::cout.flush())
            throw std::runtime_error("cannot write to standard output");
        return status;
    } catch (const UsageError &error) {
        std::cerr << "authd-standin: " << error.what() << "\nTry authd-standin --help." << std::endl;
        return WrongUsage;
    } catch (const JsonError &error) {
        std::cerr << "authd-standin: " << error.what() << std::endl;
        return BadScenario;
    } catch (const std::runtime_error &error) {
        std::cerr << "authd-standin: " << error.what() << std::endl;
        return CannotServe;
    }
}
