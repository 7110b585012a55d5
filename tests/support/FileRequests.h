// The payloads of file server requests and replies, byte by byte. They share no code with the server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// A number in little-endian order.
inline std::string Number(std::uint64_t uValue, std::size_t cb = 8) {
    std::string strBytes;
    for (std::size_t i = 0; i < cb; ++i) {
        strBytes += static_cast<char>(uValue >> (8 * i) & 0xFF);
    }
    return strBytes;
}

inline std::uint64_t NumberAt(const std::string& strBytes, std::size_t nPosition, std::size_t cb = 8) {
    std::uint64_t uValue = 0;
    for (std::size_t i = 0; i < cb; ++i) {
        uValue |= std::uint64_t{static_cast<unsigned char>(strBytes.at(nPosition + i))} << (8 * i);
    }
    return uValue;
}

inline std::string FileRequest(std::uint64_t uCommand, const std::string& strFields) {
    return Number(uCommand) + Number(0) + Number(strFields.size()) + strFields;
}

inline std::string OpenRequest(const std::string& strName) {
    return FileRequest(1, Number(strName.size()) + strName);
}
inline std::string SeekToRequest(std::uint64_t uId, std::uint64_t uPosition) {
    return FileRequest(4, Number(uId) + Number(uPosition));
}
inline std::string SeekToBeginRequest(std::uint64_t uId) {
    return FileRequest(5, Number(uId));
}
inline std::string SeekToEndRequest(std::uint64_t uId) {
    return FileRequest(6, Number(uId));
}
inline std::string SizeRequest(std::uint64_t uId) {
    return FileRequest(7, Number(uId));
}
inline std::string CloseRequest(std::uint64_t uId) {
    return FileRequest(8, Number(uId));
}
inline std::string ReadRequest(std::uint64_t uId, std::uint64_t uCount) {
    return FileRequest(9, Number(uId) + Number(uCount));
}
inline std::string WriteRequest(std::uint64_t uId, const std::string& strData) {
    return FileRequest(10, Number(uId) + Number(strData.size()) + strData);
}
inline std::string FlushRequest(std::uint64_t uId) {
    return FileRequest(11, Number(uId));
}
inline std::string EndOfFileRequest(std::uint64_t uId) {
    return FileRequest(12, Number(uId));
}

inline const std::string kDoneReply = Number(1);
inline const std::string kNotDoneReply = Number(0);

inline std::string OpenedReply(std::uint64_t uId, bool bCreated) {
    return Number(uId) + Number(bCreated ? 1 : 0) + Number(0);
}
inline std::string NotOpenedReply(std::uint64_t uError) {
    return Number(0) + Number(0) + Number(uError);
}
inline std::string SizeReply(bool bDone, std::uint64_t uSize) {
    return Number(bDone ? 1 : 0) + Number(uSize);
}
inline std::string ReadReply(bool bDone, const std::string& strData) {
    return Number(bDone ? 1 : 0, 4) + Number(strData.size()) + strData;
}
inline std::string WriteReply(bool bDone, std::uint64_t uWritten) {
    return Number(bDone ? 1 : 0, 4) + Number(uWritten);
}
