#include "RequestHandler.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <variant>

#include "Text.h"
#include "VEXCltpmCommProtocolDef.h"
#include "VEXCompat.h"

namespace vexfiled {

// The rest of a request.
class RequestHandler::Fields {
public:
    explicit Fields(std::span<const BYTE> bytes) : m_bytes(bytes) {}

    std::span<const BYTE> Rest() const { return m_bytes; }

    // False: the rest is shorter, and nothing is taken.
    template <typename Record>
    bool Take(Record& record) {
        static_assert(std::is_trivially_copyable_v<Record>);
        if (m_bytes.size() < sizeof record) {
            return false;
        }
        std::memcpy(&record, m_bytes.data(), sizeof record);
        m_bytes = m_bytes.subspan(sizeof record);
        return true;
    }

    // Takes the numbers. False: the rest is not exactly these numbers.
    template <typename... Numbers>
    bool AreExactly(Numbers&... numbers) {
        return (Take(numbers) && ...) && m_bytes.empty();
    }

private:
    std::span<const BYTE> m_bytes;
};

namespace {

template <typename... Values>
std::vector<BYTE> Pack(const Values&... values) {
    std::vector<BYTE> bytes((sizeof values + ...));
    BYTE* pbNext = bytes.data();
    const auto add = [&pbNext](const auto& value) {
        std::memcpy(pbNext, &value, sizeof value);
        pbNext += sizeof value;
    };
    (add(values), ...);
    return bytes;
}

constexpr DWORD kDone = 1;
constexpr DWORD kNotDone = 0;

Reply NotUnderstood(std::string_view strWhy) {
    return {Pack(kNotDone), false, Text("not understood: ", strWhy)};
}

Reply Misshapen(const char* pszOperation) {
    return NotUnderstood(Text("wrong fields of ", pszOperation));
}

std::string NoSuchFile(const char* pszOperation) {
    return Text(pszOperation, ": unknown file ID; it was never given out, is closed or has expired");
}

std::string Account(std::string_view strOperation, const OpenFile& file, int nErrno) {
    std::string strAccount = Text(strOperation, ' ', file.Name());
    return nErrno == 0 ? strAccount : Text(strAccount, ": ", std::generic_category().message(nErrno));
}

// The reply to an operation that only succeeds or fails. operation(file) returns errno.
template <typename Operation>
Reply OnFile(FileTable& files, DWORD dwFileID, const char* pszOperation, Operation operation) {
    OpenFile* pFile = files.Use(dwFileID);
    if (pFile == nullptr) {
        return {Pack(kNotDone), false, NoSuchFile(pszOperation)};
    }
    const int nErrno = operation(*pFile);
    return {Pack(nErrno == 0 ? kDone : kNotDone), nErrno == 0, Account(pszOperation, *pFile, nErrno)};
}

// The head of the replies to read and write, which transfer bytes.
struct [[gnu::packed]] TransferResult {
    BOOL bResult;
    DWORD dwCount;
};
static_assert(sizeof(TransferResult) == 12);

}  // namespace

Reply RequestHandler::Handle(std::span<const BYTE> request) {
    Fields fields(request);
    _tagVEX_COMM_PROTOCOL header{};
    if (!fields.Take(header)) {
        return NotUnderstood("no command header");
    }
    const DWORD dwCommand = header.dwCmd;
    if (header.dwExtendSize != fields.Rest().size()) {
        return NotUnderstood(Text("wrong size in the header of command ", dwCommand));
    }
    switch (dwCommand) {
        case VEX_FILE_OPEN:
            return Open(fields);
        case VEX_FILE_SEEK_TO:
            return SeekTo(fields);
        case VEX_FILE_SEEK_TO_BEGIN:
            return SeekToBegin(fields);
        case VEX_FILE_SEEK_TO_END:
            return SeekToEnd(fields);
        case VEX_FILE_GET_SIZE:
            return GetSize(fields);
        case VEX_FILE_CLOSE:
            return Close(fields);
        case VEX_FILE_READ:
            return Read(fields);
        case VEX_FILE_WRITE:
            return Write(fields);
        case VEX_FILE_FLUSH:
            return Flush(fields);
        case VEX_FILE_END_OF_FILE:
            return EndOfFile(fields);
        default:
            return NotUnderstood(Text("unknown command ", dwCommand));
    }
}

Reply RequestHandler::Open(Fields fields) {
    DWORD cbName = 0;
    if (!fields.Take(cbName) || cbName != fields.Rest().size()) {
        return Misshapen("open");
    }
    const auto rest = fields.Rest();
    const std::string_view strName(reinterpret_cast<const char*>(rest.data()), rest.size());
    const std::string strAccount = Text("open ", Quoted(strName));
    const auto refuse = [&strAccount](const Refusal& refusal) {
        constexpr DWORD kNoFile = 0;
        return Reply{Pack(kNoFile, kNotDone, refusal.dwError), false, Text(strAccount, ": ", refusal.strReason)};
    };

    // Checked first, so that no file is created that cannot be opened.
    if (!m_files.HasRoom()) {
        return refuse({ERROR_TOO_MANY_OPEN_FILES, "too many open files; raise --max-files"});
    }
    auto result = m_root.Open(strName);
    if (const auto* pRefusal = std::get_if<Refusal>(&result)) {
        return refuse(*pRefusal);
    }
    auto& opened = std::get<vexposix::OpenedFile>(result);
    const DWORD dwCreated = opened.bCreated ? 1 : 0;
    const DWORD dwFileID = m_files.Add(std::move(opened.descriptor), Quoted(strName));
    return {Pack(dwFileID, dwCreated, ERROR_SUCCESS), true, strAccount};
}

Reply RequestHandler::SeekTo(Fields fields) {
    DWORD dwFileID = 0;
    DWORD dwPosition = 0;
    if (!fields.AreExactly(dwFileID, dwPosition)) {
        return Misshapen("seek to");
    }
    return OnFile(m_files, dwFileID, "seek to", [dwPosition](OpenFile& file) {
        if (dwPosition > static_cast<DWORD>(std::numeric_limits<off_t>::max())) {
            return EINVAL;
        }
        file.SeekTo(static_cast<off_t>(dwPosition));
        return 0;
    });
}

Reply RequestHandler::SeekToBegin(Fields fields) {
    DWORD dwFileID = 0;
    if (!fields.AreExactly(dwFileID)) {
        return Misshapen("seek to begin");
    }
    return OnFile(m_files, dwFileID, "seek to begin", [](OpenFile& file) {
        file.SeekTo(0);
        return 0;
    });
}

Reply RequestHandler::SeekToEnd(Fields fields) {
    DWORD dwFileID = 0;
    if (!fields.AreExactly(dwFileID)) {
        return Misshapen("seek to end");
    }
    return OnFile(m_files, dwFileID, "seek to end", [](OpenFile& file) {
        file.SeekToEnd();
        return 0;
    });
}

Reply RequestHandler::GetSize(Fields fields) {
    DWORD dwFileID = 0;
    if (!fields.AreExactly(dwFileID)) {
        return Misshapen("size");
    }
    off_t cbSize = 0;
    Reply reply = OnFile(m_files, dwFileID, "size", [&cbSize](OpenFile& file) { return file.GetSize(cbSize); });
    reply.bytes = Pack(reply.bDone ? kDone : kNotDone, static_cast<DWORD>(cbSize));
    return reply;
}

Reply RequestHandler::Close(Fields fields) {
    DWORD dwFileID = 0;
    if (!fields.AreExactly(dwFileID)) {
        return Misshapen("close");
    }
    Reply reply = OnFile(m_files, dwFileID, "close", [](OpenFile&) { return 0; });
    m_files.Close(dwFileID);
    return reply;
}

Reply RequestHandler::Read(Fields fields) {
    DWORD dwFileID = 0;
    DWORD dwCount = 0;
    if (!fields.AreExactly(dwFileID, dwCount)) {
        return Misshapen("read");
    }
    OpenFile* pFile = m_files.Use(dwFileID);
    if (pFile == nullptr) {
        return {Pack(TransferResult{FALSE, 0}), false, NoSuchFile("read")};
    }

    // The reply grows with the bytes of the file, not with the number that the client asks for.
    constexpr std::size_t kStep = 0x100000;
    constexpr std::size_t kHeadSize = sizeof(TransferResult);
    const std::size_t cbWanted = std::min<DWORD>(dwCount, m_cbMaxReply - kHeadSize);
    std::vector<BYTE> bytes(kHeadSize);
    vexposix::Transfer transfer;
    std::size_t cbStep = 0;
    do {
        const std::size_t cbBefore = bytes.size();
        cbStep = std::min(kStep, cbWanted - (cbBefore - kHeadSize));
        bytes.resize(cbBefore + cbStep);
        transfer = pFile->Read(bytes.data() + cbBefore, cbStep);
        bytes.resize(cbBefore + transfer.cb);
    } while (transfer.nErrno == 0 && transfer.cb == kStep);

    const bool bDone = transfer.nErrno == 0;
    const TransferResult head{bDone ? TRUE : FALSE, bytes.size() - kHeadSize};
    std::memcpy(bytes.data(), &head, kHeadSize);
    std::string strAccount = Account(Text("read ", bytes.size() - kHeadSize, " bytes of"), *pFile, transfer.nErrno);
    return {std::move(bytes), bDone, std::move(strAccount)};
}

Reply RequestHandler::Write(Fields fields) {
    DWORD dwFileID = 0;
    DWORD dwCount = 0;
    if (!fields.Take(dwFileID) || !fields.Take(dwCount) || dwCount != fields.Rest().size()) {
        return Misshapen("write");
    }
    OpenFile* pFile = m_files.Use(dwFileID);
    if (pFile == nullptr) {
        return {Pack(TransferResult{FALSE, 0}), false, NoSuchFile("write")};
    }
    const vexposix::Transfer transfer = pFile->Write(fields.Rest().data(), dwCount);
    const bool bDone = transfer.nErrno == 0;
    return {Pack(TransferResult{bDone ? TRUE : FALSE, transfer.cb}), bDone,
            Account(Text("write ", transfer.cb, " bytes of ", dwCount, " to"), *pFile, transfer.nErrno)};
}

Reply RequestHandler::Flush(Fields fields) {
    DWORD dwFileID = 0;
    if (!fields.AreExactly(dwFileID)) {
        return Misshapen("flush");
    }
    // The kernel has all bytes already. Waiting for the disk would delay all clients.
    return OnFile(m_files, dwFileID, "flush", [](OpenFile&) { return 0; });
}

Reply RequestHandler::EndOfFile(Fields fields) {
    DWORD dwFileID = 0;
    if (!fields.AreExactly(dwFileID)) {
        return Misshapen("end of file");
    }
    return OnFile(m_files, dwFileID, "end of file", [](OpenFile& file) { return file.EndAtPosition(); });
}

}  // namespace vexfiled
