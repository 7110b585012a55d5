// The file server without its connections: the input is a sequence of route messages. The target checks their headers
// and carries out the requests, in a new directory for each input.
//
// For any input, each request gets a reply of a known form, the number of open files stays within its limit, and
// nothing outside the root changes. The root contains links that lead outside.
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "FileTable.h"
#include "RequestHandler.h"
#include "RequestHeader.h"
#include "Require.h"
#include "Root.h"
#include "RouteMessage.h"
#include "TempDirectory.h"

namespace {

namespace fs = std::filesystem;

constexpr USHORT kPort = 8766;
constexpr std::size_t kMaxMessage = 0x10000;
constexpr std::size_t kMaxFiles = 4;

// The directory that contains the root and, beside it, a directory that must not change.
struct Surroundings {
    Surroundings() {
        std::signal(SIGXFSZ, SIG_IGN);
        fs::create_directory(directory.Path("outside"));
        directory.Write("outside/secret", "untouched");
    }

    void MakeRoot() const {
        const std::string strRoot = directory.Path("root");
        fs::create_directory(strRoot);
        fs::create_symlink("../outside", strRoot + "/d");
        fs::create_symlink("../outside/secret", strRoot + "/l");
        fs::create_hard_link(directory.Path("outside/secret"), strRoot + "/h");
    }

    void RequireOutsideUntouched() const {
        Require(ReadWholeFile(directory.Path("outside/secret")) == "untouched");
        const fs::directory_iterator outside(directory.Path("outside"));
        Require(std::distance(fs::begin(outside), fs::end(outside)) == 1);
        const fs::directory_iterator all(directory.Path());
        Require(std::distance(fs::begin(all), fs::end(all)) == 1);
    }

    TempDirectory directory;
};

void RequireKnownForm(const vexfiled::Reply& reply) {
    constexpr std::size_t cbTransfer = 12;
    const std::size_t cb = reply.bytes.size();
    Require(cb == 8 || cb == 16 || cb == 24 || (cb >= cbTransfer && cb <= kMaxMessage));
    Require(!reply.strAccount.empty());
    // All replies except that of an open begin with the result.
    Require(cb == 24 || reply.bytes[0] == (reply.bDone ? 1 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    static const Surroundings s_surroundings;
    s_surroundings.MakeRoot();
    {
        const vexfiled::Root root(s_surroundings.directory.Path("root"));
        std::uint64_t uLastId = 0;
        std::chrono::steady_clock::time_point now{};
        vexfiled::FileTable files(
            {kMaxFiles, std::chrono::seconds(10)}, [&uLastId] { return ++uLastId; }, [&now] { return now; });
        vexfiled::RequestHandler handler(root, files, kMaxMessage);

        std::span<const BYTE> rest(pbData, cbData);
        RouteMessageHeader header{};
        while (rest.size() >= sizeof header) {
            std::memcpy(&header, rest.data(), sizeof header);
            rest = rest.subspan(sizeof header);
            if (!vexfiled::FaultOf(header, kPort, kMaxMessage).empty() || header.MessageLen > rest.size()) {
                break;
            }
            Require(header.MessageLen > 0 && (header.Paramter & MSG_ISREQUESTPACK) != 0);
            const std::size_t cbPayload = header.MessageLen;
            RequireKnownForm(handler.Handle(rest.first(cbPayload)));
            Require(files.Count() <= kMaxFiles);
            rest = rest.subspan(cbPayload);
            now += std::chrono::seconds(1);
        }
    }
    fs::remove_all(s_surroundings.directory.Path("root"));
    s_surroundings.RequireOutsideUntouched();
    return 0;
}
