// Turns the bytes of a request into the bytes of its reply. Uses no sockets. For one thread.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "FileTable.h"
#include "Root.h"
#include "VEXType.h"

namespace vexfiled {

struct Reply {
    std::vector<BYTE> bytes;  // never empty
    bool bDone = false;       // whether the request succeeded
    std::string strAccount;   // for the log: what was done, or why not
};

class RequestHandler {
public:
    // root and files must outlive the handler. cbMaxReply: the longest reply, which limits a read; at least
    // kMinMaxReply.
    RequestHandler(const Root& root, FileTable& files, std::size_t cbMaxReply)
        : m_root(root), m_files(files), m_cbMaxReply(cbMaxReply) {}

    // Accepts any bytes: a request that is not understood has a reply too. May throw std::bad_alloc.
    Reply Handle(std::span<const BYTE> request);

    static constexpr std::size_t kMinMaxReply = 64;

private:
    const Root& m_root;
    FileTable& m_files;
    std::size_t m_cbMaxReply;

    class Fields;
    Reply Open(Fields fields);
    Reply SeekTo(Fields fields);
    Reply SeekToBegin(Fields fields);
    Reply SeekToEnd(Fields fields);
    Reply GetSize(Fields fields);
    Reply Close(Fields fields);
    Reply Read(Fields fields);
    Reply Write(Fields fields);
    Reply Flush(Fields fields);
    Reply EndOfFile(Fields fields);
};

}  // namespace vexfiled
