#include "config.h"
#include "control.h"
#include "ctl.h"
#include "embedded.h"
#include "scenario.h"
#include "service.h"

#include <clocale>
#include <csignal>
#include <cstring>
#include <glib-unix.h>
#include <iostream>
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

const char help[] = R"(Usage:
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
    std::vector<std::string> arguments;
};

/** Reads the options of a command, which are those among @p allowed. */
Options readOptions(std::vector<std::string> words, const std::set<std::string> &allowed)
{
    Options options;
    while (!words.empty() && words.front().size() > 1 && words.front().front() == '-') {
        const std::string word = words.front();
        words.erase(words.begin());
        if (word == "--")
            break;
        const size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        if (!allowed.count(name))
            throw UsageError("unknown option " + word);
        if (name == "--no-bus") {
            if (equals != std::string::npos)
                throw UsageError("--no-bus takes no value");
            options.noBus = true;
            continue;
        }
        std::string value;
        if (equals != std::string::npos) {
            value = word.substr(equals + 1);
        } else if (!words.empty()) {
            value = words.front();
            words.erase(words.begin());
        }
        if (value.empty())
            throw UsageError(name + " wants a value");
        guint64 number = 0;
        if (name == "--ready-fd" && !g_ascii_string_to_unsigned(value.c_str(), 10, 0, INT32_MAX, &number, nullptr))
            throw UsageError(name + " wants a number");
        if (name == "--scenario")
            options.scenario = value;
        else if (name == "--control")
            options.control = value;
        else if (name == "--ready-fd")
            options.readyFd = static_cast<int>(number);
        else
            options.uid = value;
    }
    options.arguments = words;
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

int run(const std::vector<std::string> &words)
{
    const bool named = !words.empty() && words.front().front() != '-';
    const std::string command = named ? words.front() : "serve";
    const std::vector<std::string> rest(words.begin() + (named ? 1 : 0), words.end());
    if (!rest.empty() && (rest.front() == "--help" || rest.front() == "-h")) {
        std::cout << help;
        return Success;
    }
    if (!rest.empty() && rest.front() == "--version") {
        std::cout << "authd-standin " STANDIN_VERSION << std::endl;
        return Success;
    }
    if (command == "serve")
        return serve(readOptions(rest, {"--scenario", "--control", "--ready-fd"}));
    if (command == "run")
        return runInWorld(readOptions(rest, {"--scenario", "--uid", "--no-bus"}));
    if (command == "ctl") {
        const Options options = readOptions(rest, {"--control"});
        if (options.arguments.empty())
            throw UsageError("ctl wants a request");
        return runCtl(options.control, options.arguments);
    }
    const Options options = readOptions(rest, {});
    if (command == "check" && options.arguments.size() == 1) {
        Scenario::fromFile(options.arguments.front());
        return Success;
    }
    if (command == "scenario" && options.arguments.empty()) {
        std::cout << Embedded::scenario;
        return Success;
    }
    throw UsageError(command == "check" || command == "scenario" ? command + ": wrong number of arguments"
                                                                 : "unknown command " + command);
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
