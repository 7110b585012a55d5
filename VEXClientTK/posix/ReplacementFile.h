// A new file that replaces another one in the same directory when it is complete. One thread at a time.
#pragma once

#include <sys/types.h>

#include <string>

#include "posix/FileDescriptor.h"

namespace vexposix {

class ReplacementFile {
public:
    // Creates strName, which must not exist, with nMode, less the bits of the umask. nDirectory: as for openat; the
    // caller still owns it. On failure the file is not open, and errno says why.
    ReplacementFile(int nDirectory, std::string strName, mode_t nMode) noexcept;
    // Removes the file unless it has moved.
    ~ReplacementFile();
    ReplacementFile(const ReplacementFile&) = delete;
    ReplacementFile& operator=(const ReplacementFile&) = delete;

    bool IsOpen() const { return m_file.IsOpen(); }
    // Whether it has replaced the other file.
    bool HasMoved() const { return !m_bThere; }
    int Descriptor() const { return m_file.Get(); }
    const std::string& Name() const { return m_strName; }

    // Waits until the file is on the disk, closes it and renames it to pszTarget, in the same directory. Readers see
    // the old file or the complete new one. Returns errno.
    int MoveTo(const char* pszTarget) noexcept;
    // The same for a file that the caller has already brought to the disk (syncfs).
    int MoveSyncedTo(const char* pszTarget) noexcept;

private:
    int m_nDirectory;
    std::string m_strName;
    FileDescriptor m_file;
    bool m_bThere;  // the file still has the name m_strName
};

}  // namespace vexposix
