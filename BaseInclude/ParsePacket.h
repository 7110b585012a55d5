// Packets: the payloads of messages, values one after another. Integers are in host byte order.
//
// CCommUnPacket reads them and CCommPacket writes them. Neither reads or writes texts or TLV records: their form in a
// packet is not defined.
#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "SmartBuffer.h"
#include "VEXType.h"

// The head of a record, in memory as in a packet.
typedef struct tag_VEX_Packet_TLV {
    USHORT usType;
    USHORT usChildCount;  // child records
    DWORD dwDataLen;      // bytes of data; 4 bytes of padding come before it
} VEX_Packet_TLV, *PVEX_Packet_TLV;

static_assert(std::is_trivially_copyable_v<VEX_Packet_TLV> && sizeof(VEX_Packet_TLV) == 16);
static_assert(offsetof(VEX_Packet_TLV, usType) == 0 && offsetof(VEX_Packet_TLV, usChildCount) == 2);
static_assert(offsetof(VEX_Packet_TLV, dwDataLen) == 8);

// Reads a packet from its beginning to its end.
class CCommUnPacket {
public:
    // Result of a read when too few bytes are left. Such a read changes nothing.
    static constexpr DWORD TOO_SHORT = 0xFFFFFFFF;

    // Copies the bytes. The packet is empty when memory runs out.
    explicit CCommUnPacket(const CSmartBuffer& objBuffer) { SetBuffer(objBuffer); }

    // Starts again with a copy of other bytes.
    void SetBuffer(const void* pBuffer, DWORD dwSize) {
        m_smBuffer.SetBuffer(pBuffer, dwSize);
        m_dwCurrentPos = 0;
    }
    void SetBuffer(const CSmartBuffer& objBuffer) { SetBuffer(objBuffer.GetAddress(), objBuffer.GetSize()); }
    void ReleaseBuffer() { SetBuffer(nullptr, 0); }

    // Reads the next dwSize bytes. Returns dwSize or TOO_SHORT. Reading 0 bytes always succeeds.
    DWORD ReadBuffer(void* pBuffer, DWORD dwSize) {
        if (m_smBuffer.GetSize() - m_dwCurrentPos < dwSize) {
            return TOO_SHORT;
        }
        if (dwSize != 0) {
            std::memcpy(pBuffer, m_smBuffer.GetBytes() + m_dwCurrentPos, dwSize);
            m_dwCurrentPos += dwSize;
        }
        return dwSize;
    }

    // Read a number of the width of its type; results as those of ReadBuffer.
    DWORD ReadBOOL(BOOL& bValue) { return ReadBuffer(&bValue, sizeof bValue); }
    DWORD ReadDWORD(DWORD& dwValue) { return ReadBuffer(&dwValue, sizeof dwValue); }
    DWORD ReadULONG(ULONG& ulValue) { return ReadBuffer(&ulValue, sizeof ulValue); }
    DWORD ReadULONGLONG(ULONGLONG& ullValue) { return ReadBuffer(&ullValue, sizeof ullValue); }
    DWORD ReadLONG(LONG& lValue) { return ReadBuffer(&lValue, sizeof lValue); }
    DWORD ReadInt(int& nValue) { return ReadBuffer(&nValue, sizeof nValue); }
    DWORD ReadShort(short& sValue) { return ReadBuffer(&sValue, sizeof sValue); }
    DWORD ReadUShort(USHORT& usValue) { return ReadBuffer(&usValue, sizeof usValue); }

protected:
    CSmartBuffer m_smBuffer;
    DWORD m_dwCurrentPos = 0;   // at most the size
    DWORD m_dwTlvStartPos = 0;  // for TLV records, like the next
    VEX_Packet_TLV m_stCurrentTLV = {};
};

// Writes a packet. Each write appends and returns the new size in bytes; 0 when memory ran out, the packet is then
// empty.
class CCommPacket {
public:
    // Null or 0 bytes append nothing.
    DWORD WriteBuffer(const void* pBuffer, DWORD dwSize) {
        m_smBuffer.AppendBuffer(pBuffer, dwSize);
        return GetSize();
    }

    DWORD WriteDWORD(DWORD dwValue) { return WriteBuffer(&dwValue, sizeof dwValue); }
    DWORD WriteULONG(ULONG ulValue) { return WriteBuffer(&ulValue, sizeof ulValue); }
    DWORD WriteULONGLONG(ULONGLONG ullValue) { return WriteBuffer(&ullValue, sizeof ullValue); }
    DWORD WriteLONG(LONG lValue) { return WriteBuffer(&lValue, sizeof lValue); }
    DWORD WriteInt(int nValue) { return WriteBuffer(&nValue, sizeof nValue); }
    DWORD WriteShort(short sValue) { return WriteBuffer(&sValue, sizeof sValue); }
    DWORD WriteUShort(USHORT usValue) { return WriteBuffer(&usValue, sizeof usValue); }
    DWORD WriteBOOL(BOOL bValue) { return WriteBuffer(&bValue, sizeof bValue); }

    // The packet so far. It belongs to this object and is valid until the next write.
    const CSmartBuffer& GetBuffer() const { return m_smBuffer; }
    void* GetAddress() const { return m_smBuffer.GetAddress(); }
    BYTE* GetBytes() const { return m_smBuffer.GetBytes(); }
    DWORD GetSize() const { return m_smBuffer.GetSize(); }
    void ReleaseBuffer() { m_smBuffer.Free(); }

    // There is never an open TLV record.
    LONG GetCurrentFillTLVLen() const { return m_lCurrentTLVlen; }
    PVEX_Packet_TLV GetCurrentPackTLV() const { return m_CurrentPackTLV; }

private:
    CSmartBuffer m_smBuffer;
    LONG m_lCurrentTLVlen = 0;
    PVEX_Packet_TLV m_CurrentPackTLV = nullptr;
};
