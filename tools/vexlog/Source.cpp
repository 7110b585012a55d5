#include "Source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/FileIdentity.h"
#include "posix/FileIo.h"

namespace vexlog {
namespace {

constexpr std::size_t kBuffer = std::size_t{64} * 1024;

}  // namespace

void ThrowReadError(const std::string& strPath, int nError) {
    throw ReadError(strPath + ": " + std::generic_category().message(nError));
}

vexposix::FileDescriptor OpenLog(const std::string& strPath) {
    vexposix::FileDescriptor file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        ThrowReadError(strPath, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        ThrowReadError(strPath, EISDIR);
    }
    return file;
}

Source::Source(const std::string& strPath)
    : m_file(strPath == kStandardInput ? vexposix::FileDescriptor() : OpenLog(strPath)),
      m_nDescriptor(strPath == kStandardInput ? STDIN_FILENO : m_file.Get()),
      m_strName(tools::ShownName(strPath, "standard input")) {
    Begin();
}

Source::Source(int nDescriptor, std::string strName) : m_nDescriptor(nDescriptor), m_strName(std::move(strName)) {
    Begin();
}

void Source::Begin() {
    struct stat status = {};
    m_bFile = fstat(m_nDescriptor, &status) == 0 && S_ISREG(status.st_mode);
    m_cbTotal = m_bFile ? static_cast<std::uint64_t>(status.st_size) : 0;
    m_piece.resize(kBuffer);
    // A pipe may give its first bytes one by one.
    std::size_t cb = 0;
    while (cb < kCompressionBytes) {
        const ssize_t cbMore = vexposix::ReadSome(m_nDescriptor, m_piece.data() + cb, m_piece.size() - cb);
        if (cbMore < 0 && cb == 0) {
            ThrowReadError(m_strName, errno);
        }
        if (cbMore <= 0) {
            break;  // an error comes again after these bytes
        }
        cb += static_cast<std::size_t>(cbMore);
    }
    m_cbRead = cb;
    m_begin = {m_piece.data(), cb};
    m_bMayWait = !m_bFile && cb < m_piece.size();
    const CompressionFound found = FindCompression(m_begin);
    if (found.kind == Compression::kOther) {
        throw ReadError(m_strName + ": compressed with " + found.pszName + "; use \"" + found.pszProgram +
                        " FILE | vexlog -\"");
    }
    if (found.kind == Compression::kGzip) {
        m_inflater.emplace();
    }
}

std::size_t Source::Read(char* pchBuffer, std::size_t cbBuffer) {
    if (m_inflater) {
        return ReadGzip(pchBuffer, cbBuffer);
    }
    if (!m_begin.empty()) {
        const std::size_t cb = m_begin.copy(pchBuffer, cbBuffer);
        m_begin.remove_prefix(cb);
        return cb;
    }
    const ssize_t cb = vexposix::ReadSome(m_nDescriptor, pchBuffer, cbBuffer);
    if (cb < 0) {
        ThrowReadError(m_strName, errno);
    }
    const auto cbRead = static_cast<std::size_t>(cb);
    m_cbRead += cbRead;
    m_bMayWait = !m_bFile && cbRead < cbBuffer;
    return cbRead;
}

// Empty: the end.
std::string_view Source::ReadPiece() {
    if (!m_begin.empty()) {
        return std::exchange(m_begin, {});
    }
    const ssize_t cb = vexposix::ReadSome(m_nDescriptor, m_piece.data(), m_piece.size());
    if (cb < 0) {
        ThrowReadError(m_strName, errno);
    }
    m_cbRead += static_cast<std::size_t>(cb);
    m_bMayWait = !m_bFile && static_cast<std::size_t>(cb) < m_piece.size();
    return {m_piece.data(), static_cast<std::size_t>(cb)};
}

std::size_t Source::ReadGzip(char* pchBuffer, std::size_t cbBuffer) {
    for (;;) {
        if (m_inflater->NeedsInput()) {
            const std::string_view piece = ReadPiece();
            if (piece.empty() && !m_inflater->MayEnd()) {
                throw ReadError(m_strName + ": the compressed data ends too early; a part is missing");
            }
            if (piece.empty()) {
                return 0;
            }
            m_inflater->SetInput(piece);
        }
        const std::optional<std::size_t> cb = m_inflater->Read(pchBuffer, cbBuffer);
        if (!cb) {
            throw ReadError(m_strName + ": the compressed data is damaged");
        }
        if (*cb > 0) {
            return *cb;
        }
    }
}

}  // namespace vexlog
