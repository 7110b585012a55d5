#include "Follow.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "Source.h"
#include "posix/FileIo.h"
#include "posix/LockFile.h"
#include "posix/OpenFile.h"

namespace vexlog {
namespace {

constexpr std::size_t kRemembered = 1024;
constexpr std::size_t kReadAtOnce = std::size_t{256} * 1024;
// Logs that are cut stay smaller than this. No more is searched.
constexpr std::size_t kLargestSearch = std::size_t{64} * 1024 * 1024;
constexpr std::string_view kLineEnds = "\r\n";
// After this many looks reading goes on even if a writer still holds its lock: some writers never release it.
constexpr int kMostRefused = 5;

// A lock that readers share. Writers wait until it is released.
class SharedLock {
public:
    explicit SharedLock(int nDescriptor) : m_nDescriptor(nDescriptor) {
        // A busy writer holds its lock most of the time, but each time only for a short while.
        constexpr std::chrono::milliseconds kLongestWait(100);
        m_bHeld = vexposix::LockFile(nDescriptor, LOCK_SH, kLongestWait) == 0;
    }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;
    ~SharedLock() {
        if (m_bHeld) {
            flock(m_nDescriptor, LOCK_UN);
        }
    }
    bool IsHeld() const { return m_bHeld; }

private:
    int m_nDescriptor;
    bool m_bHeld = false;
};

std::uint64_t SizeOf(int nDescriptor) {
    struct stat status = {};
    return fstat(nDescriptor, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

bool Follower::Poll() {
    const bool bNew = (m_file.IsOpen() && ReadOn()) || Reopen();
    m_cQuiet = bNew ? 0 : m_cQuiet + 1;
    // The first quiet look follows the last piece without a pause, so the writer may not be done yet.
    if (m_cQuiet == 2) {
        m_parser.Flush();
    }
    return bNew;
}

bool Follower::ReadOn() {
    if (!IsInPlace()) {
        return Resynchronize();
    }
    const std::string strBytes = ReadFrom(m_nPosition, kReadAtOnce);
    // A cut moves all bytes. If the bytes before these have changed, these cannot be trusted.
    if (strBytes.empty() || !IsInPlace()) {
        return false;
    }
    Take(strBytes);
    return true;
}

// If the name leads to another file, reads that file from its beginning.
bool Follower::Reopen() {
    struct stat byName = {};
    struct stat current = {};
    if (stat(m_strPath.c_str(), &byName) != 0) {
        return IsAbsent(errno);
    }
    if (m_file.IsOpen() && fstat(m_file.Get(), &current) == 0 && current.st_ino == byName.st_ino &&
        current.st_dev == byName.st_dev) {
        return false;
    }
    vexposix::OpenedFile file = vexposix::OpenFile(AT_FDCWD, m_strPath.c_str(), vexposix::kInput);
    if (file.nErrno == EINVAL || file.nErrno == EISDIR) {
        throw ReadError(m_strPath + ": only a regular file can be followed; read it without --follow");
    }
    if (!file.descriptor.IsOpen()) {
        return IsAbsent(file.nErrno);
    }
    if (m_file.IsOpen()) {
        while (ReadOn()) {  // what was added to the old file since the last look
        }
        m_parser.Finish();
    }
    m_file = std::move(file.descriptor);
    StartAgain();
    if (FindCompression(ReadFrom(0, kCompressionBytes)).kind != Compression::kNone) {
        throw ReadError(m_strPath + ": a compressed log does not grow; read it without --follow");
    }
    return ReadOn();
}

// False: the file does not exist, but may be created. Throws for any other error.
bool Follower::IsAbsent(int nErrno) const {
    if (nErrno != ENOENT && nErrno != ENOTDIR) {
        ThrowReadError(m_strPath, nErrno);
    }
    return false;
}

// Finds the place to read on after a cut. False: the cut may not be finished.
bool Follower::Resynchronize() {
    const SharedLock lock(m_file.Get());
    if (!lock.IsHeld() && ++m_cRefused < kMostRefused) {
        return false;
    }
    m_cRefused = 0;
    const std::string strFile = ReadFrom(0, kLargestSearch);
    const std::size_t nFound = FindLast(strFile);
    if (nFound == std::string::npos) {
        m_parser.Finish();
        m_bLost = m_bLost || !m_strLast.empty();
        StartAgain();
        Take(strFile);
        return true;
    }
    m_nPosition = nFound;
    m_strLast = strFile.substr(0, m_nPosition);
    m_strLast.erase(0, m_strLast.size() - std::min(m_strLast.size(), kRemembered));
    Take(std::string_view(strFile).substr(m_nPosition));
    return true;
}

// The place after the bytes that were read last.
std::size_t Follower::FindLast(std::string_view file) const {
    std::string_view last = m_strLast;
    if (last.starts_with(kByteOrderMark)) {
        last.remove_prefix(kByteOrderMark.size());  // a cut does not move it
    }
    // A cut drops the last line end of the file.
    const std::size_t cbText = last.find_last_not_of(kLineEnds) + 1;
    const std::string_view text = last.substr(0, cbText);
    if (text.empty()) {
        return std::string_view::npos;
    }
    std::size_t nFound = file.rfind(text);
    if (nFound != std::string_view::npos) {
        nFound += cbText;
    } else {
        nFound = EndOfCutText(file, text);
    }
    // Skips the line ends that were already read.
    for (std::size_t i = cbText; nFound < file.size() && i < last.size() && file[nFound] == last[i]; ++i) {
        ++nFound;
    }
    return nFound;
}

// The end of the text in a file that was cut in the middle of the text.
std::size_t Follower::EndOfCutText(std::string_view file, std::string_view text) {
    constexpr std::size_t kLeast = 32;
    const std::size_t cbMark = file.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0;
    file.remove_prefix(cbMark);
    for (; text.size() >= kLeast; text.remove_prefix(1)) {
        if (file.starts_with(text)) {
            return cbMark + text.size();
        }
    }
    return std::string_view::npos;
}

void Follower::StartAgain() {
    m_nPosition = 0;
    m_strLast.clear();
}

std::string Follower::ReadFrom(std::uint64_t nPosition, std::size_t cbMost) const {
    const std::uint64_t cbFile = SizeOf(m_file.Get());
    std::string strBytes(
        static_cast<std::size_t>(std::min<std::uint64_t>(cbFile - std::min(cbFile, nPosition), cbMost)), '\0');
    const vexposix::Transfer transfer =
        vexposix::ReadAt(m_file.Get(), strBytes.data(), strBytes.size(), static_cast<off_t>(nPosition));
    if (transfer.nErrno != 0) {
        ThrowReadError(m_strPath, transfer.nErrno);
    }
    strBytes.resize(transfer.cb);
    return strBytes;
}

bool Follower::IsInPlace() const {
    return ReadFrom(m_nPosition - m_strLast.size(), m_strLast.size()) == m_strLast;
}

void Follower::Take(std::string_view bytes) {
    for (std::string_view rest = bytes; !rest.empty(); rest.remove_prefix(std::min(rest.size(), kReadAtOnce))) {
        m_parser.Feed(rest.substr(0, kReadAtOnce));
    }
    m_nPosition += bytes.size();
    m_strLast.append(bytes.substr(bytes.size() - std::min(bytes.size(), kRemembered)));
    m_strLast.erase(0, m_strLast.size() - std::min(m_strLast.size(), kRemembered));
}

}  // namespace vexlog
