#include "Compression.h"

#include <new>

namespace vexlog {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kGzipBegin = "\x1F\x8B";

struct Other {
    std::string_view begin;
    CompressionFound found;
};

constexpr Other kOthers[] = {
    {"\xFD"
     "7zXZ\0"sv,
     {Compression::kOther, "xz", "xzcat"}},
    {"\x28\xB5\x2F\xFD", {Compression::kOther, "zstd", "zstdcat"}},
    {"BZh", {Compression::kOther, "bzip2", "bzcat"}},
    {"\x04\x22\x4D\x18", {Compression::kOther, "lz4", "lz4cat"}},
    {"\x1F\x9D", {Compression::kOther, "compress", "zcat"}},
    {"PK\x03\x04", {Compression::kOther, "zip", "unzip -p"}},
};

}  // namespace

CompressionFound FindCompression(std::string_view begin) {
    if (begin.starts_with(kGzipBegin)) {
        return {Compression::kGzip, "gzip", "zcat"};
    }
    for (const Other& other : kOthers) {
        if (begin.starts_with(other.begin)) {
            return other.found;
        }
    }
    return {};
}

Inflater::Inflater() {
    constexpr int kGzipOnly = 16;
    if (inflateInit2(&m_stream, MAX_WBITS + kGzipOnly) != Z_OK) {
        throw std::bad_alloc();
    }
}

Inflater::~Inflater() {
    inflateEnd(&m_stream);
}

void Inflater::SetInput(std::string_view compressed) {
    // zlib does not write to its input, but its older versions declare no const.
    m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    m_stream.avail_in = static_cast<uInt>(compressed.size());
}

// Skips zeros behind a member. False: no other member follows in this input.
bool Inflater::NextMember() {
    while (m_stream.avail_in > 0 && *m_stream.next_in == 0) {
        ++m_stream.next_in;
        --m_stream.avail_in;
    }
    if (m_stream.avail_in == 0) {
        return false;
    }
    m_bBetween = false;
    inflateReset(&m_stream);
    return true;
}

std::optional<std::size_t> Inflater::Read(char* pchBuffer, std::size_t cbBuffer) {
    m_stream.next_out = reinterpret_cast<Bytef*>(pchBuffer);
    m_stream.avail_out = static_cast<uInt>(cbBuffer);
    m_bMoreOutput = false;
    while (m_stream.avail_out > 0 && !m_bDamaged) {
        if (m_bBetween && !NextMember()) {
            break;
        }
        const int nResult = inflate(&m_stream, Z_NO_FLUSH);
        if (nResult == Z_STREAM_END) {
            m_bBetween = true;
        } else if (nResult == Z_MEM_ERROR) {
            throw std::bad_alloc();
        } else if (nResult == Z_BUF_ERROR) {
            break;  // needs input
        } else if (nResult != Z_OK) {
            m_bDamaged = true;
        }
    }
    m_bMoreOutput = m_stream.avail_out == 0 && !m_bBetween;
    const std::size_t cb = cbBuffer - m_stream.avail_out;
    return m_bDamaged && cb == 0 ? std::nullopt : std::optional(cb);
}

}  // namespace vexlog
