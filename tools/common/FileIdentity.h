// Tells whether two names mean the same file, so that no output overwrites an input.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>

namespace tools {

inline constexpr const char* kStandardStream = "-";

// The name as messages show it; pszStandardStream stands for "-".
std::string ShownName(const std::string& strName, const char* pszStandardStream);

// Whether the name of an input means standard input: "-", /dev/stdin, /dev/fd/0.
bool IsStandardInput(const std::string& strName);

// Whether the name means standard input, output or error: "-", /dev/stdout, /dev/fd/2.
bool IsStandardStream(const std::string& strName);

// The name of an output after its symbolic links are resolved.
struct OutputName {
    std::string strPath;
    // Set if the name means an open descriptor of this process: "-" (standard output), /dev/stdout, /dev/fd/3.
    std::optional<int> descriptor;
    // The name is in /proc: it means a descriptor, and its file may have no other name.
    bool bInProc = false;
    // Of the file, unless it is that of a descriptor. The mode is 0 if the file does not exist.
    struct stat status = {};
};

// The file itself need not exist. Throws std::system_error if there are too many symbolic links.
OutputName ResolveOutput(const std::string& strPath);

// Identifies a file by device and inode; a file that does not exist, by its path below an existing directory.
class FileIdentity {
public:
    static FileIdentity OfOutput(const std::string& strPath);
    // "-" is standard input.
    static FileIdentity OfInput(const std::string& strPath);

    // Whether writing to one destroys the other. Terminals, pipes and sockets cannot be destroyed.
    bool IsSameFile(const FileIdentity& other) const;
    // Whether two outputs would mix: they use one descriptor, or one file that is no character device. A terminal that
    // is opened twice may take both.
    bool IsSameOutput(const FileIdentity& other) const;

    // Identities for which one of the two is true have the same hash.
    std::size_t Hash() const;

private:
    explicit FileIdentity(const OutputName& name);
    bool Equals(const FileIdentity& other) const;

    std::optional<int> m_descriptor;
    bool m_bKnown = false;  // the fields below say which file it is
    mode_t m_nMode = 0;     // 0: it does not exist
    dev_t m_nDevice = 0;    // of the file, or of the directory above it
    ino_t m_nInode = 0;
    std::string m_strName;  // path below that directory, if the file does not exist
};

}  // namespace tools
