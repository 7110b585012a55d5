#include "Options.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "RequestHandler.h"

namespace vexfiled {
namespace {

constexpr const char* kDescription =
    "Serves files below one directory to programs of this machine that write their log through it.";

constexpr const char* kFooter = R"(
Listens on 127.0.0.1 only. Clients send to session 0, object 101, which is port 8766 (8665 + session + object). On
another port the sessions and objects of that sum are served as well.

Ends on SIGTERM and SIGINT. Exit status: 0 ended by a signal, 1 could not serve, 2 wrong command line.

Examples:
  vexfiled --root /var/lib/vexfiled
  vexfiled --root "$HOME/logs" --port 9000 --idle-seconds 10 --verbose)";

constexpr std::size_t kLargestMessage = 0x40000000;  // 1 GiB

}  // namespace

std::variant<Options, EarlyEnd> ParseCommandLine(int argc, const char* const* argv) {
    Options options;
    auto nIdleSeconds = options.files.maxIdle.count();
    auto nTimeoutSeconds = options.clientTimeout.count();

    CLI::App app(kDescription, "vexfiled");
    app.footer(kFooter);
    app.get_formatter()->column_width(36);
    app.set_version_flag("--version", "vexfiled " VEX_VERSION);
    app.add_option("--root", options.strRoot, "Directory below which all files are; it has to exist")
        ->required()
        ->type_name("DIR");
    app.add_option("--port", options.uPort, "TCP port; 0 takes any free one and logs which")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--max-message", options.cbMaxMessage, "Largest payload of a request or a reply, in bytes")
        ->type_name("N")
        ->check(CLI::Range(RequestHandler::kMinMaxReply, kLargestMessage))
        ->capture_default_str();
    app.add_option("--max-files", options.files.cMaxFiles, "Most files open at a time")
        ->type_name("N")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    app.add_option("--max-connections", options.cMaxConnections, "Most clients served at a time; others are refused")
        ->type_name("N")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    app.add_option("--idle-seconds", nIdleSeconds, "A file that is not used for so long is closed")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_option("--client-timeout-seconds", nTimeoutSeconds,
                   "Longest wait for a client's next message, for the rest of one, and for its taking a reply")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_flag("--verbose", options.bVerbose, "Log every request");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream output;
        std::ostringstream errors;
        constexpr int kUsageError = 2;
        const int nStatus = app.exit(error, output, errors) == 0 ? 0 : kUsageError;
        return EarlyEnd{nStatus, output.str(), errors.str()};
    }
    options.files.maxIdle = std::chrono::seconds(nIdleSeconds);
    options.clientTimeout = std::chrono::seconds(nTimeoutSeconds);
    return options;
}

}  // namespace vexfiled
