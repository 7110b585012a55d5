// Which file a name means, so that an output is never the file that is being read.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace tools {

inline constexpr const char* kStandardStream = "-";

// An output's name, behind its symbolic links.
struct OutputName {
    std::string strPath;
    // An open descriptor of this process: "-" (standard output), /dev/stdout, /dev/fd/3.
    std::optional<int> descriptor;
    // Another process's descriptor, which has a link in /proc that no file need stand behind.
    bool bInProc = false;
};

// The last link of a chain may lead to a file that is not there. Throws std::system_error for a chain without an end.
OutputName ResolveOutput(const std::string& strPath);

// A file by device and inode, or one that is not there by its place below a directory that is.
class FileIdentity {
public:
    static FileIdentity OfOutput(const std::string& strPath);
    // "-" is standard input.
    static FileIdentity OfInput(const std::string& strPath);

    // An output to the one destroys the other. Devices, pipes and sockets cannot be destroyed.
    bool IsSameFile(const FileIdentity& other) const;
    // Two outputs would mix. To a terminal they may.
    bool IsSameOutput(const FileIdentity& other) const;

private:
    explicit FileIdentity(const OutputName& name);
    bool Equals(const FileIdentity& other) const;

    std::optional<int> m_descriptor;
    bool m_bKnown = false;  // the fields below say which file it is
    mode_t m_nMode = 0;     // 0: it is not there
    dev_t m_nDevice = 0;    // its own, or its directory's
    ino_t m_nInode = 0;
    std::string m_strName;  // of a file that is not there
};

}  // namespace tools
