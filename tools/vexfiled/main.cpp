// vexfiled: the file server that programs of this machine write their log through.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <system_error>
#include <variant>

#include "Log.h"
#include "Options.h"
#include "Root.h"
#include "Server.h"
#include "Text.h"

namespace {

using vexfiled::Text;

void SetUpProcess() {
    // A client that has gone and a file that has reached the limit of its size are errors of one call.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    // Modes are chosen by the server alone, for its own user.
    umask(S_IRWXG | S_IRWXO);
}

void RaiseDescriptorLimit(std::size_t cWanted, vexfiled::Log& log) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= cWanted) {
        return;
    }
    limit.rlim_cur = std::min<rlim_t>(cWanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < cWanted) {
        log.Event(Text("only ", limit.rlim_cur, " descriptors, and ", cWanted,
                       " would be needed for all files and connections; see ulimit -n"));
    }
}

void WarnOfUsers(const vexfiled::Root& root, vexfiled::Log& log) {
    if (geteuid() == 0) {
        log.Event("runs as root, which it need not; give it a user of its own");
    }
    if (root.Owner() != geteuid()) {
        log.Event(Text("the directory belongs to user ", root.Owner(),
                       ", who can move things about in it; it should be this user's"));
    }
    if (root.IsWritableByOthers()) {
        log.Event("users other than this one may write in the directory; it should be 0700");
    }
}

int Serve(const vexfiled::Options& options) {
    vexfiled::Log log(options.bVerbose);
    SetUpProcess();
    try {
        log.Event("version " VEX_VERSION);
        const vexfiled::Root root(options.strRoot);
        WarnOfUsers(root, log);
        RaiseDescriptorLimit(vexfiled::Server::MaxDescriptors(options), log);
        vexfiled::Server server(options, root, log);
        server.Run();
        return EXIT_SUCCESS;
    } catch (const std::system_error& error) {
        log.Event(Text("cannot serve: ", error.what()));
    } catch (const std::exception& error) {
        log.Event(Text("gives up: ", error.what()));
    }
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    const auto commandLine = vexfiled::ParseCommandLine(argc, argv);
    if (const auto* pEnd = std::get_if<vexfiled::EarlyEnd>(&commandLine)) {
        std::cout << pEnd->strOutput;
        std::cerr << pEnd->strError;
        return pEnd->nStatus;
    }
    return Serve(std::get<vexfiled::Options>(commandLine));
}
