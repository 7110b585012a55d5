// Reads a log and what is added to it, through cuts from its front, truncation, and its replacement by another file.
//
// The file is looked at five times a second, which works on every file system. What was read last is remembered: where
// it no longer stands in its place, the file was cut, and reading goes on behind the place where it stands now. A cut
// in progress is told from one that is done by the lock that its writer holds.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "RecordParser.h"
#include "posix/FileDescriptor.h"

namespace vexlog {

class Follower {
public:
    // A file that is not there yet is waited for. Sink as for RecordParser.
    Follower(std::string strPath, RecordSink& sink) : m_strPath(std::move(strPath)), m_parser(sink) {}

    // Reads a piece of what is new. True: there was something, and there may be more. Throws ReadError.
    bool Poll();

    // Whether there has been a file at all.
    bool HasFile() const { return m_file.IsOpen(); }

    // Hands over what is left.
    void Finish() { m_parser.Finish(); }

    // What of the log was not to be found again after a cut; asked and forgotten.
    bool TakeLost() { return std::exchange(m_bLost, false); }

private:
    bool ReadOn();
    bool Reopen();
    bool IsAbsent() const;
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
    std::uint64_t m_nPosition = 0;  // how much of the file was read
    std::string m_strLast;          // the last bytes before that
    int m_cQuiet = 0;               // looks since something was new
    int m_cRefused = 0;             // looks in vain for the end of a cut
    bool m_bLost = false;
};

}  // namespace vexlog
