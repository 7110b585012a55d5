// The requests to the file server: their command header and codes, and the server's address. Integers are in host byte
// order. docs/wire-protocol.md has the fields after the header, and the replies, which have no command header.
#pragma once

#include <cstddef>
#include <type_traits>

#include "VEXType.h"

#pragma pack(push, 1)

struct _tagVEX_COMM_PROTOCOL {
    DWORD dwCmd;         // operation code
    DWORD dwResult;      // 0 in a request
    DWORD dwExtendSize;  // bytes of the request after this header
};

#pragma pack(pop)

static_assert(std::is_trivially_copyable_v<_tagVEX_COMM_PROTOCOL> && sizeof(_tagVEX_COMM_PROTOCOL) == 24);
static_assert(offsetof(_tagVEX_COMM_PROTOCOL, dwCmd) == 0 && offsetof(_tagVEX_COMM_PROTOCOL, dwResult) == 8);
static_assert(offsetof(_tagVEX_COMM_PROTOCOL, dwExtendSize) == 16);

inline constexpr USHORT VEX_FILE_SERVER_SESSION = 0;
inline constexpr USHORT VEX_FILE_SERVER_OBJECT = 101;  // TCP port 8766

// Operation codes.
inline constexpr DWORD VEX_FILE_OPEN = 1;
inline constexpr DWORD VEX_FILE_SEEK_TO = 4;
inline constexpr DWORD VEX_FILE_SEEK_TO_BEGIN = 5;
inline constexpr DWORD VEX_FILE_SEEK_TO_END = 6;
inline constexpr DWORD VEX_FILE_GET_SIZE = 7;
inline constexpr DWORD VEX_FILE_CLOSE = 8;
inline constexpr DWORD VEX_FILE_READ = 9;
inline constexpr DWORD VEX_FILE_WRITE = 10;
inline constexpr DWORD VEX_FILE_FLUSH = 11;
inline constexpr DWORD VEX_FILE_END_OF_FILE = 12;

// Milliseconds for the server's reply.
inline constexpr DWORD VEX_FILE_OPEN_TIMEOUT = 20000;
inline constexpr DWORD VEX_FILE_TIMEOUT = 10000;
