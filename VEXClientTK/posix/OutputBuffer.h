// Output to a descriptor through one large buffer. One thread at a time.
#pragma once

#include <charconv>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace vexposix {

// Nobody reads the output any more. This is no error: the program ends quietly.
struct OutputClosed {};

class OutputBuffer {
public:
    // The caller still owns the descriptor. strName: for messages.
    explicit OutputBuffer(int nDescriptor, std::string strName = "standard output")
        : m_nDescriptor(nDescriptor), m_strName(std::move(strName)) {
        m_strBytes.reserve(kCapacity + kSlack);
    }
    OutputBuffer(const OutputBuffer&) = delete;
    OutputBuffer& operator=(const OutputBuffer&) = delete;

    void Append(std::string_view text) { m_strBytes.append(text); }
    void Append(char ch) { m_strBytes.push_back(ch); }

    template <typename Integer>
    void AppendNumber(Integer nValue) {
        char szNumber[24];
        const auto result = std::to_chars(szNumber, szNumber + sizeof szNumber, nValue);
        m_strBytes.append(szNumber, static_cast<std::size_t>(result.ptr - szNumber));
    }

    // Padded on its left.
    template <typename Integer>
    void AppendPadded(Integer nValue, std::size_t cWidth, char chPad) {
        char szNumber[24];
        const auto result = std::to_chars(szNumber, szNumber + sizeof szNumber, nValue);
        const auto cDigits = static_cast<std::size_t>(result.ptr - szNumber);
        m_strBytes.append(cWidth > cDigits ? cWidth - cDigits : 0, chPad);
        m_strBytes.append(szNumber, cDigits);
    }

    // What has been appended since the last write.
    std::string_view Pending() const { return m_strBytes; }
    void Discard() { m_strBytes.clear(); }

    // The length of Pending(), to pad columns.
    std::size_t Length() const { return m_strBytes.size(); }
    void PadTo(std::size_t nLength) { m_strBytes.append(nLength > Length() ? nLength - Length() : 0, ' '); }

    // To be called between records: writes when the buffer is full. Throws like Flush.
    void WriteWhenFull() {
        if (m_strBytes.size() >= kCapacity) {
            Flush();
        }
    }

    // Throws OutputClosed, or std::system_error for any other failure.
    void Flush();

    // To be called at the end. Some file systems report a failed write only when a descriptor of the file is closed, so
    // a copy of the descriptor is closed. Throws like Flush.
    void Finish();

private:
    static constexpr std::size_t kCapacity = std::size_t{256} * 1024;
    static constexpr std::size_t kSlack = std::size_t{64} * 1024;

    int m_nDescriptor;
    std::string m_strName;
    std::string m_strBytes;
};

}  // namespace vexposix
