// A new directory for a test. The process that created it removes it with its contents.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

class TempDirectory {
public:
    TempDirectory() {
        std::string strPattern = (std::filesystem::temp_directory_path() / "vextest.XXXXXX").string();
        if (mkdtemp(strPattern.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        m_path = strPattern;
    }
    ~TempDirectory() {
        if (getpid() == m_nOwner) {
            std::error_code ignored;
            std::filesystem::remove_all(m_path, ignored);
        }
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string Path() const { return m_path.string(); }
    std::string Path(const std::string& strName) const { return (m_path / strName).string(); }

    // Writes a file and returns its path.
    std::string Write(const std::string& strName, std::string_view bytes) const {
        std::ofstream(Path(strName), std::ios::binary) << bytes;
        return Path(strName);
    }

private:
    std::filesystem::path m_path;
    pid_t m_nOwner = getpid();
};

// The bytes of a file; empty when it cannot be read.
inline std::string ReadWholeFile(const std::string& strPath) {
    const std::ifstream file(strPath, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return std::move(bytes).str();
}
