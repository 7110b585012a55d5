#include "Options.h"

#include "AllowedUsers.h"
#include "RequestHandler.h"
#include "common/CommandLine.h"

namespace vexfiled {
namespace {

constexpr const char* kDescription =
    "Holds log files below one directory for programs of this machine. Runs in the foreground, as a service of systemd "
    "or by hand.";

constexpr const char* kFooter = R"(
Listens on 127.0.0.1 only. Clients compute the port: 8665 + session + object. The file server is session 0, object 101:
port 8766. On another port the server also answers to every session and object that give this port.

Serves programs of its own user and of root, and of the users of --allow-user.

Signals:
  SIGTERM, SIGINT   end when the pending replies are sent; a second one ends at once
  SIGHUP            look up the users of --allow-user again and log the totals

Environment, set by systemd:
  LISTEN_FDS, LISTEN_PID   take this listening socket instead of opening --port
  NOTIFY_SOCKET            say there when the server is ready and when it stops

Exit status: 0 ended by a signal, 1 could not serve, 2 the command line is wrong.

Examples:
  vexfiled --root /var/lib/vexfiled --allow-user app --allow-user 1001
  vexfiled --root "$HOME/logs" --port 9000 --idle-seconds 10 --verbose
  systemctl enable --now vexfiled.socket)";

constexpr std::size_t kLargestMessage = 0x40000000;  // 1 GiB

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& nExit) {
    Options options;
    auto nIdleSeconds = options.files.maxIdle.count();
    auto nTimeoutSeconds = options.clientTimeout.count();
    auto nTotalsSeconds = options.totalsPeriod.count();

    CLI::App app(kDescription, "vexfiled");
    app.footer(kFooter);
    app.get_formatter()->column_width(36);
    app.set_version_flag("--version", "vexfiled " VEX_VERSION);
    app.set_help_flag("-h,--help", "Print this help and exit");

    const auto checkUser = [](const std::string& strUser) -> std::string {
        return FindUser(strUser) ? "" : "there is no user \"" + strUser + "\"; give a name or number";
    };
    tools::AddFile(app, "--root", options.strRoot, "The directory that holds all files; it has to exist", "DIR")
        ->required();
    CLI::Option* const pPort = app.add_option("--port", options.uPort, "TCP port; 0 takes any free port and logs it")
                                   ->type_name("N")
                                   ->check(CLI::Range(0, 65535))
                                   ->capture_default_str();
    app.add_flag("--verbose", options.bVerbose, "Log every request");
    app.add_option("--totals-seconds", nTotalsSeconds, "Time between two log lines with totals")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();

    constexpr const char* kAccess = "Who is served";
    CLI::Option* const pAllowAny =
        app.add_flag("--allow-any", options.bAllowAny, "Serve every user of the machine")->group(kAccess);
    tools::AddList(app, "--allow-user", options.allowedUsers, "USER", "Serve this user too; may be given several times")
        ->check(CLI::Validator(checkUser, ""))
        ->excludes(pAllowAny)
        ->group(kAccess);

    constexpr const char* kLimits = "Limits";
    app.add_option("--max-message", options.cbMaxMessage, "Largest payload of a request or a reply, in bytes")
        ->type_name("N")
        ->check(CLI::Range(RequestHandler::kMinMaxReply, kLargestMessage))
        ->capture_default_str()
        ->group(kLimits);
    app.add_option("--max-files", options.files.cMaxFiles, "Most files open at a time")
        ->type_name("N")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str()
        ->group(kLimits);
    app.add_option("--max-connections", options.cMaxConnections, "Most clients served at a time; others are refused")
        ->type_name("N")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str()
        ->group(kLimits);
    app.add_option("--idle-seconds", nIdleSeconds, "Close a file that is unused for this time")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str()
        ->group(kLimits);
    app.add_option(
           "--client-timeout-seconds", nTimeoutSeconds,
           "Longest wait for a client's next message, for the rest of a message, and for a client to read a reply")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str()
        ->group(kLimits);

    const auto check = [&] {
        options.files.maxIdle = std::chrono::seconds(nIdleSeconds);
        options.clientTimeout = std::chrono::seconds(nTimeoutSeconds);
        options.totalsPeriod = std::chrono::seconds(nTotalsSeconds);
        options.bPortGiven = pPort->count() > 0;
    };
    if (!tools::Parse(app, tools::Arguments(argc, argv), check, nExit)) {
        return std::nullopt;
    }
    return options;
}

}  // namespace vexfiled
