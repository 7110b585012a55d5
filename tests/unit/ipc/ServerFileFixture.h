// A CVexFile, and a file server that gives it prepared answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "IpcTest.h"
#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "VexFile.h"

inline constexpr std::uint64_t kFileID = 0x1122334455667788;

// A file server that sends prepared answers and records its requests.
class AnsweringServer {
public:
    AnsweringServer() : m_peer([this](PeerConnection& connection) { Serve(connection); }), m_port(m_peer.Port()) {}

    // The payload of all further replies. Without a value the connection ends without a reply.
    void Answer(std::optional<std::string> answer) {
        const CVEXLock lock(m_mutex);
        m_answer = std::move(answer);
    }
    // The requests since the last call.
    std::vector<PeerMessage> Requests() {
        const CVEXLock lock(m_mutex);
        return std::exchange(m_requests, {});
    }
    std::string OnlyRequest() {
        const std::vector<PeerMessage> requests = Requests();
        EXPECT_EQ(requests.size(), 1U);
        return requests.empty() ? "" : requests[0].strPayload;
    }

private:
    void Serve(PeerConnection& connection) {
        const std::optional<PeerMessage> request = connection.AcceptRequestIfAny();
        if (!request) {
            return;
        }
        std::optional<std::string> answer;
        {
            const CVEXLock lock(m_mutex);
            m_requests.push_back(*request);
            answer = m_answer;
        }
        if (answer) {
            connection.Reply(*request, *answer);
        }
    }

    CVEXMutex m_mutex;
    std::optional<std::string> m_answer VEX_GUARDED_BY(m_mutex);
    std::vector<PeerMessage> m_requests VEX_GUARDED_BY(m_mutex);
    ScriptedPeer m_peer;
    socket_calls::FileServerPort m_port;
};

inline std::string Command(std::uint64_t uCommand, const std::string& strFields) {
    return Bytes64(uCommand) + Bytes64(0) + Bytes64(strFields.size()) + strFields;
}

class ServerFile : public IpcTest {
protected:
    // Opens a file, to which the server gives kFileID.
    static void Open(AnsweringServer& server, CVexFile& file) {
        file.EnableServerSupport(TRUE);
        server.Answer(Bytes64(kFileID) + Bytes64(1) + Bytes64(0));
        DWORD dwError = 0;
        EXPECT_TRUE(file.OpenFile(L"/tmp/PILog.txt", dwError));
        EXPECT_EQ(file.GetFileID(), kFileID);
        server.Requests();
    }

    const socket_calls::UserCommand m_user{nullptr};  // saves the time of the command
};

class OpenServerFile : public ServerFile {
protected:
    OpenServerFile() { Open(m_server, m_file); }
    void TearDown() override { m_server.Answer(Bytes64(1)); }  // the answer to the close request

    AnsweringServer m_server;
    CVexFile m_file;
};
