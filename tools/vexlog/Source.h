// A log to be read, decompressed if it is compressed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Compression.h"
#include "posix/FileDescriptor.h"

namespace vexlog {

class ReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr const char* kStandardInput = "-";

// Opens a file for reading. Throws ReadError, also for a directory.
vexposix::FileDescriptor OpenLog(const std::string& strPath);

// nError: an errno value.
[[noreturn]] void ThrowReadError(const std::string& strPath, int nError);

// One thread at a time.
class Source {
public:
    // strPath: "-" is standard input. Throws ReadError, also for a format of compression that cannot be read. Waits for
    // the first bytes of a pipe.
    explicit Source(const std::string& strPath);
    // Of an open file that the caller owns, from its position. strName: for messages.
    Source(int nDescriptor, std::string strName);

    // Reads at most cbBuffer bytes; 0: the end. Throws ReadError after all bytes before the error are read.
    std::size_t Read(char* pchBuffer, std::size_t cbBuffer);

    // The bytes read so far and those of the whole file, before decompression. 0: it is no regular file.
    std::uint64_t BytesRead() const { return m_cbRead; }
    std::uint64_t TotalBytes() const { return m_cbTotal; }
    // Whether the next bytes may take long to arrive.
    bool MayWait() const { return m_bMayWait; }

private:
    void Begin();
    std::string_view ReadPiece();
    std::size_t ReadGzip(char* pchBuffer, std::size_t cbBuffer);

    vexposix::FileDescriptor m_file;
    int m_nDescriptor;
    std::string m_strName;
    std::uint64_t m_cbRead = 0;
    std::uint64_t m_cbTotal = 0;
    bool m_bFile = false;
    bool m_bMayWait = false;
    std::vector<char> m_piece;
    std::string_view m_begin;  // bytes in m_piece that Read has not returned
    std::optional<Inflater> m_inflater;
};

}  // namespace vexlog
