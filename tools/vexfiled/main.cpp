// vexfiled: the file server for the logs of programs on this machine.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Log.h"
#include "Options.h"
#include "Root.h"
#include "Server.h"
#include "Text.h"
#include "common/Process.h"
#include "common/ShellWord.h"

namespace {

using vexfiled::Text;

void RaiseDescriptorLimit(std::size_t cWanted, vexfiled::Log& log) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= cWanted) {
        return;
    }
    const rlim_t cAllowed = limit.rlim_cur;
    limit.rlim_cur = std::min<rlim_t>(cWanted, limit.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        limit.rlim_cur = cAllowed;
    }
    if (limit.rlim_cur < cWanted) {
        log.Event(Text("only ", limit.rlim_cur, " descriptors are allowed, but all files and connections need ",
                       cWanted, "; raise the limit (ulimit -n, LimitNOFILE=)"));
    }
}

vexfiled::Root OpenRoot(const std::string& strRoot) {
    try {
        return vexfiled::Root(strRoot);
    } catch (const std::system_error& error) {
        std::string strText = error.what();
        if (error.code() == std::errc::no_such_file_or_directory) {
            strText += Text("; make it: install -d -m 0700 -o ", geteuid(), " ", tools::ShellWord(strRoot));
        } else if (error.code() == std::errc::permission_denied) {
            strText += Text("; give it to user ", geteuid(), ", with mode 0700");
        }
        throw std::runtime_error(strText);
    }
}

void WarnOfUsers(const std::string& strRoot, const vexfiled::Root& root, vexfiled::Log& log) {
    if (geteuid() == 0) {
        log.Event("runs as root without need; start it as a separate user");
    }
    if (root.Owner() != geteuid()) {
        log.Event(
            Text(strRoot, " belongs to user ", root.Owner(), ", who can move its files; give it to the server's user"));
    }
    if (root.IsWritableByOthers()) {
        log.Event(Text("other users may write to ", strRoot, "; change its mode to 0700"));
    }
}

int Serve(const vexfiled::Options& options) {
    vexfiled::Log log(options.bVerbose);
    const char* pszFailed = "cannot serve: ";
    try {
        log.Event("version " VEX_VERSION);
        const vexfiled::Root root = OpenRoot(options.strRoot);
        WarnOfUsers(options.strRoot, root, log);
        RaiseDescriptorLimit(vexfiled::Server::MaxDescriptors(options), log);
        vexfiled::Server server(options, root, log);
        pszFailed = "ends after an error: ";
        server.Run();
        return EXIT_SUCCESS;
    } catch (const std::bad_alloc&) {
        log.Event(Text(pszFailed, "out of memory"));
    } catch (const std::exception& error) {
        log.Event(Text(pszFailed, error.what()));
    }
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    tools::SetUpProcess();
    // Only the server's own user gets rights to new files.
    umask(S_IRWXG | S_IRWXO);
    int nExit = EXIT_SUCCESS;
    const std::optional<vexfiled::Options> options = vexfiled::ParseOptions(argc, argv, nExit);
    return options ? Serve(*options) : nExit;
}
