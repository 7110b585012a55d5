// A file server with its own directory and its own port.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FileRequests.h"
#include "FileServerClient.h"
#include "FileServerProcess.h"
#include "TempDirectory.h"

class FileServerFixture : public testing::Test {
protected:
    FileServerFixture() { std::filesystem::create_directory(Root()); }

    std::string Root() const { return m_directory.Path("root"); }
    std::string Content(const std::string& strName) const { return ReadWholeFile(Root() + '/' + strName); }

    // Starts on any free port unless the arguments name one.
    void Start(std::vector<std::string> arguments = {}, const std::string& strLimit = {}) {
        arguments.insert(arguments.begin(), {"--root", Root(), "--port", "0"});
        m_server = std::make_unique<FileServerProcess>(arguments, strLimit);
        m_uPort = m_server->Port();
        ASSERT_NE(m_uPort, 0) << m_server->Log();
    }

    // Sends one request on a new connection.
    std::string Ask(const std::string& strPayload) const { return ::Ask(m_uPort, strPayload); }

    std::uint64_t Open(const std::string& strName) const { return NumberAt(Ask(OpenRequest(strName)), 0); }

    const TempDirectory m_directory;
    std::unique_ptr<FileServerProcess> m_server;
    std::uint16_t m_uPort = 0;
};
