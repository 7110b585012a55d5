// Compressed logs, as logrotate leaves them: gzip is read, other formats are recognised.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <optional>
#include <string_view>

namespace vexlog {

enum class Compression {
    kNone,
    kGzip,
    kOther,  // Inflater cannot read it
};

struct CompressionFound {
    Compression kind = Compression::kNone;
    const char* pszName = "";     // of kOther: "xz"
    const char* pszProgram = "";  // of kOther: prints the content, "xzcat"
};

// So many bytes of a file's beginning decide.
inline constexpr std::size_t kCompressionBytes = 6;

CompressionFound FindCompression(std::string_view begin);

// Decompresses gzip in pieces of any size: one or several members, and zeros behind the last, as tapes leave them. One
// thread at a time.
class Inflater {
public:
    // Throws std::bad_alloc.
    Inflater();
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater();

    // Continues with these bytes, which must stay valid until NeedsInput() is true. Call this only then.
    void SetInput(std::string_view compressed);
    bool NeedsInput() const { return m_stream.avail_in == 0 && !m_bMoreOutput && !m_bDamaged; }

    // Decompresses at most cbBuffer bytes. 0: needs input. Nothing: the input is damaged, and all bytes before the
    // damage have been returned.
    std::optional<std::size_t> Read(char* pchBuffer, std::size_t cbBuffer);

    // Whether the input may end here. False: a part is missing.
    bool MayEnd() const { return m_bBetween; }

private:
    bool NextMember();

    z_stream m_stream = {};
    bool m_bBetween = false;     // behind a member
    bool m_bMoreOutput = false;  // the last output filled its buffer
    bool m_bDamaged = false;
};

}  // namespace vexlog
