#include "OutputGuard.h"

#include <sys/stat.h>

#include <string_view>
#include <vector>

#include "RecordParser.h"
#include "Source.h"
#include "common/FileIdentity.h"
#include "posix/FileIo.h"
#include "posix/OpenFile.h"

namespace vexlog {
namespace {

// The beginning of a page. A page is no log, but may quote records in the names of functions.
constexpr std::string_view kPageBegin = "<!DOCTYPE html>";

class RecordSeen : public RecordSink {
public:
    void OnRecord(const Record& record) override {
        m_bSeen = m_bSeen || record.kind == Kind::kRecord || record.kind == Kind::kMinimal;
    }
    bool IsSeen() const { return m_bSeen; }

private:
    bool m_bSeen = false;
};

// Refuses a file that Source cannot decompress.
void RefuseOtherCompression(int nDescriptor, const std::string& strName) {
    char szBegin[kCompressionBytes] = {};
    const vexposix::Transfer transfer = vexposix::ReadAt(nDescriptor, szBegin, sizeof szBegin, 0);
    const CompressionFound found = FindCompression({szBegin, transfer.cb});
    if (found.kind == Compression::kOther) {
        throw OutputRefused(strName + ": this file is compressed with " + found.pszName +
                            " and may hold a log; remove it first, or choose another output");
    }
}

bool HoldsALog(int nDescriptor, const std::string& strName) {
    constexpr std::size_t kPiece = std::size_t{256} * 1024;
    RecordSeen seen;
    RecordParser parser(seen);
    Source source(nDescriptor, strName);
    std::vector<char> piece(kPiece);
    for (bool bFirst = true; !seen.IsSeen(); bFirst = false) {
        const std::string_view bytes(piece.data(), source.Read(piece.data(), piece.size()));
        if (bFirst && (bytes.starts_with(kByteOrderMark) || bytes.starts_with(kPageBegin))) {
            return bytes.starts_with(kByteOrderMark);
        }
        if (bytes.empty()) {
            parser.Finish();
            break;
        }
        parser.Feed(bytes);
    }
    return seen.IsSeen();
}

}  // namespace

void RefuseInputAsOutput(const std::string& strOutput, const std::string& strInput) {
    if (tools::FileIdentity::OfOutput(strOutput).IsSameFile(tools::FileIdentity::OfInput(strInput))) {
        throw OutputRefused(tools::ShownName(strOutput, "standard output") +
                            ": this is the log that is read; choose another output");
    }
}

void RefuseLogAsOutput(const std::string& strOutput) {
    const tools::OutputName name = tools::ResolveOutput(strOutput);
    const std::string strPath = name.descriptor ? "/proc/self/fd/" + std::to_string(*name.descriptor) : name.strPath;
    struct stat status = {};
    if (stat(strPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    const std::string strShown = tools::ShownName(strOutput, "standard output");
    const vexposix::OpenedFile file = vexposix::OpenFile(AT_FDCWD, strPath.c_str(), vexposix::kInput);
    if (!file.descriptor.IsOpen()) {
        ThrowReadError(strShown, file.nErrno);
    }
    RefuseOtherCompression(file.descriptor.Get(), strShown);
    if (HoldsALog(file.descriptor.Get(), strShown)) {
        throw OutputRefused(strShown + ": this file is a log; remove it first, or choose another output");
    }
}

}  // namespace vexlog
