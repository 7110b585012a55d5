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

    const auto addNumber = [&](const char* pszName, auto& number, auto low, auto high, const char* pszText) {
        return tools::AddNumber(app, pszName, number, CLI::Range(low, high), "N", pszText)->capture_default_str();
    };
    const auto checkUser = [](const std::string& strUser) -> std::string {
        return FindUser(strUser) ? "" : "there is no user \"" + strUser + "\"; give a name or number";
    };
    tools::AddFile(app, "--root", options.strRoot, "The directory that holds all files; it has to exist", "DIR")
        ->required();
    CLI::Option* const pPort =
        addNumber("--port", options.uPort, 0, 65535, "TCP port; 0 takes any free port and logs it");
    app.add_flag("--verbose", options.bVerbose, "Log every request");
    addNumber("--totals-seconds", nTotalsSeconds, 1, 1000000, "Time between two log lines with totals");

    constexpr const char* kAccess = "Who is served";
    CLI::Option* const pAllowAny =
        app.add_flag("--allow-any", options.bAllowAny, "Serve every user of the machine")->group(kAccess);
    tools::AddList(app, "--allow-user", options.allowedUsers, "USER", "Serve this user too; may be given several times")
        ->check(CLI::Validator(checkUser, ""))
        ->excludes(pAllowAny)
        ->group(kAccess);

    constexpr const char* kLimits = "Limits";
    addNumber("--max-message", options.cbMaxMessage, RequestHandler::kMinMaxReply, kLargestMessage,
              "Largest payload of a request or a reply, in bytes")
        ->group(kLimits);
    addNumber("--max-files", options.files.cMaxFiles, 1, 100000, "Most files open at a time")->group(kLimits);
    addNumber("--max-connections", options.cMaxConnections, 1, 100000,
              "Most clients served at a time; others are refused")
        ->group(kLimits);
    addNumber("--idle-seconds", nIdleSeconds, 1, 1000000, "Close a file that is unused for this time")->group(kLimits);
    addNumber("--client-timeout-seconds", nTimeoutSeconds, 1, 1000000,
              "Longest wait for a client's next message, for the rest of a message, and for a client to read a reply")
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
