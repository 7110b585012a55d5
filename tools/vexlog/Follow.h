// Reads a log and then the records that are added to it, also when it is cut from the front, emptied or replaced.
//
// The caller polls, which works on every file system. The follower remembers the last bytes that it read. If they are
// no longer in their place, the file was cut: it searches for them and reads on after them. While the writer holds its
// lock, the cut is not finished.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "RecordParser.h"
#include "posix/FileDescriptor.h"

namespace vexlog {

class Follower {
public:
    // The file need not exist yet. The sink must outlive the follower.
    Follower(std::string strPath, RecordSink& sink) : m_strPath(std::move(strPath)), m_parser(sink) {}

    // Reads a piece of the new bytes. True: there were some, and there may be more. Throws ReadError.
    bool Poll();

    // Whether the file has existed at any time so far.
    bool HasFile() const { return m_file.IsOpen(); }

    // Call this at the end: hands over the rest.
    void Finish() { m_parser.Finish(); }

    // Whether records may be missing, because the last bytes were not found after a cut. Resets the answer.
    bool TakeLost() { return std::exchange(m_bLost, false); }

private:
    bool ReadOn();
    bool Reopen();
    bool IsAbsent(int nErrno) const;
    bool Resynchronize();
    std::size_t FindLast(std::string_view file) const;
    static std::size_t EndOfCutText(std::string_view file, std::string_view text);
    void StartAgain();
    std::string ReadFrom(std::uint64_t nPosition, std::size_t cbMost) const;
    bool IsInPlace() const;
    void Take(std::string_view bytes);

    std::string m_strPath;
    RecordParser m_parser;
    vexposix::FileDescriptor m_file;
    std::uint64_t m_nPosition = 0;  // of the next byte to read
    std::string m_strLast;          // the last bytes before m_nPosition
    int m_cQuiet = 0;               // looks without new bytes
    int m_cRefused = 0;             // looks that found the file locked by its writer
    bool m_bLost = false;
};

}  // namespace vexlog
