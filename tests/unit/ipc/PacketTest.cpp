// Reading and writing the values of packets.
#include <gtest/gtest.h>

#include <string>

#include "ParsePacket.h"

namespace {

constexpr DWORD kTooShort = 0xFFFFFFFF;

CSmartBuffer BufferOf(std::string_view bytes) {
    return {bytes.data(), bytes.size()};
}

TEST(UnPacket, AShortReadChangesNothing) {
    CCommUnPacket packet(BufferOf("abcdefg"));
    DWORD dwValue = 0x1122334455667788;
    EXPECT_EQ(packet.ReadDWORD(dwValue), kTooShort);
    EXPECT_EQ(dwValue, 0x1122334455667788U);
    int nValue = 0;
    EXPECT_EQ(packet.ReadInt(nValue), 4U);
    EXPECT_EQ(nValue, 0x64636261);
}

TEST(UnPacket, ReadsToTheLastByte) {
    CCommUnPacket packet(BufferOf("abcde"));
    char text[5] = {};
    EXPECT_EQ(packet.ReadBuffer(text, 5), 5U);
    EXPECT_EQ(std::string(text, 5), "abcde");
    EXPECT_EQ(packet.ReadBuffer(text, 1), kTooShort);
    EXPECT_EQ(packet.ReadBuffer(text, 0), 0U);
}

TEST(UnPacket, RefusesEveryByteOfAnEmptyPacket) {
    CCommUnPacket packet{CSmartBuffer()};
    char ch = 'x';
    EXPECT_EQ(packet.ReadBuffer(&ch, 1), kTooShort);
    EXPECT_EQ(packet.ReadBuffer(nullptr, 0), 0U);
    EXPECT_EQ(ch, 'x');
}

TEST(UnPacket, RefusesCountsThatOverflow) {
    CCommUnPacket packet(BufferOf("abcd"));
    char text[4] = {};
    EXPECT_EQ(packet.ReadBuffer(text, 2), 2U);
    for (const DWORD dwCount : {DWORD{3}, DWORD{0x100000002}, ~DWORD{0}, ~DWORD{0} - 1}) {
        EXPECT_EQ(packet.ReadBuffer(text, dwCount), kTooShort) << dwCount;
    }
    EXPECT_EQ(packet.ReadBuffer(text, 2), 2U);
    EXPECT_EQ(std::string(text, 2), "cd");
}

TEST(UnPacket, KeepsItsOwnCopy) {
    CSmartBuffer source = BufferOf("abcd");
    CCommUnPacket packet(source);
    source.GetBytes()[0] = 'X';
    char ch = 0;
    packet.ReadBuffer(&ch, 1);
    EXPECT_EQ(ch, 'a');
    EXPECT_EQ(source.GetSize(), 4U);
}

// A buffer of a derived class may have its bytes elsewhere.
class CViewBuffer : public CSmartBuffer {
public:
    explicit CViewBuffer(std::string& text) : m_text(text) {}
    DWORD GetSize() const override { return m_text.size(); }
    void* GetAddress() const override { return m_text.data(); }

private:
    std::string& m_text;
};

TEST(UnPacket, AsksItsSourceForSizeAndAddress) {
    std::string text = "abcd";
    const CViewBuffer source(text);
    CCommUnPacket constructed(source);
    CCommUnPacket set{CSmartBuffer()};
    set.SetBuffer(source);
    for (CCommUnPacket* pPacket : {&constructed, &set}) {
        char read[4] = {};
        EXPECT_EQ(pPacket->ReadBuffer(read, 4), 4U);
        EXPECT_EQ(std::string(read, 4), "abcd");
        EXPECT_EQ(pPacket->ReadBuffer(read, 1), kTooShort);
    }
}

TEST(UnPacket, StartsAgainWithOtherBytes) {
    CCommUnPacket packet(BufferOf("abcd"));
    char text[4] = {};
    packet.ReadBuffer(text, 3);
    packet.SetBuffer("xyz", 3);
    EXPECT_EQ(packet.ReadBuffer(text, 3), 3U);
    EXPECT_EQ(std::string(text, 3), "xyz");
    packet.SetBuffer(BufferOf("uv"));
    EXPECT_EQ(packet.ReadBuffer(text, 3), kTooShort);
    EXPECT_EQ(packet.ReadBuffer(text, 2), 2U);
    packet.ReleaseBuffer();
    EXPECT_EQ(packet.ReadBuffer(text, 1), kTooShort);
}

// Values are read back as written, with the widths of their types.
TEST(Packet, WritesAndReadsAllTypes) {
    CCommPacket packet;
    EXPECT_EQ(packet.GetSize(), 0U);
    EXPECT_EQ(packet.GetAddress(), nullptr);
    EXPECT_EQ(packet.WriteDWORD(0xF122334455667788), 8U);
    EXPECT_EQ(packet.WriteULONG(2), 16U);
    EXPECT_EQ(packet.WriteULONGLONG(3), 24U);
    EXPECT_EQ(packet.WriteLONG(-4), 32U);
    EXPECT_EQ(packet.WriteInt(-5), 36U);
    EXPECT_EQ(packet.WriteShort(-6), 38U);
    EXPECT_EQ(packet.WriteUShort(0xFFF9), 40U);
    EXPECT_EQ(packet.WriteBOOL(TRUE), 44U);
    EXPECT_EQ(packet.WriteBuffer("ab", 2), 46U);
    EXPECT_EQ(packet.WriteBuffer(nullptr, 5), 46U);
    EXPECT_EQ(packet.WriteBuffer("ab", 0), 46U);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(packet.GetBytes()), 8), "\x88\x77\x66\x55\x44\x33\x22\xF1");

    CCommUnPacket reader(packet.GetBuffer());
    DWORD dwValue = 0;
    ULONG ulValue = 0;
    ULONGLONG ullValue = 0;
    LONG lValue = 0;
    int nValue = 0;
    short sValue = 0;
    USHORT usValue = 0;
    BOOL bValue = FALSE;
    char text[2] = {};
    EXPECT_EQ(reader.ReadDWORD(dwValue), 8U);
    EXPECT_EQ(reader.ReadULONG(ulValue), 8U);
    EXPECT_EQ(reader.ReadULONGLONG(ullValue), 8U);
    EXPECT_EQ(reader.ReadLONG(lValue), 8U);
    EXPECT_EQ(reader.ReadInt(nValue), 4U);
    EXPECT_EQ(reader.ReadShort(sValue), 2U);
    EXPECT_EQ(reader.ReadUShort(usValue), 2U);
    EXPECT_EQ(reader.ReadBOOL(bValue), 4U);
    EXPECT_EQ(reader.ReadBuffer(text, 2), 2U);
    EXPECT_EQ(dwValue, 0xF122334455667788U);
    EXPECT_EQ(ulValue, 2U);
    EXPECT_EQ(ullValue, 3U);
    EXPECT_EQ(lValue, -4);
    EXPECT_EQ(nValue, -5);
    EXPECT_EQ(sValue, -6);
    EXPECT_EQ(usValue, 0xFFF9);
    EXPECT_EQ(bValue, TRUE);
    EXPECT_EQ(std::string(text, 2), "ab");

    EXPECT_EQ(packet.GetCurrentFillTLVLen(), 0);
    EXPECT_EQ(packet.GetCurrentPackTLV(), nullptr);
    packet.ReleaseBuffer();
    EXPECT_EQ(packet.GetSize(), 0U);
}

}  // namespace
