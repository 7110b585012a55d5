// What a native has to do with Java's values and the log, by hand: only the steps that the contract requires.
#pragma once

#include <jni.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>

#include "RecordFloor.h"
#include "WriterFloor.h"

namespace bench {

// Decodes one character of well-formed UTF-8.
inline wchar_t DecodeOne(const unsigned char*& pb) {
    const unsigned nLead = *pb++;
    if (nLead < 0x80) {
        return static_cast<wchar_t>(nLead);
    }
    const int nMore = nLead < 0xE0 ? 1 : nLead < 0xF0 ? 2 : 3;
    unsigned uChar = nLead & (0x3FU >> nMore);
    for (int i = 0; i < nMore; ++i) {
        uChar = uChar << 6 | (*pb++ & 0x3FU);
    }
    return static_cast<wchar_t>(uChar);
}

// The text of a Java string in wide characters. It uses a buffer of four times the size.
inline std::wstring HandWideText(JNIEnv* pEnv, jstring jText) {
    if (jText == nullptr) {
        return {};
    }
    const jsize cb = pEnv->GetStringUTFLength(jText);
    pEnv->GetStringLength(jText);
    const char* const pszText = pEnv->GetStringUTFChars(jText, nullptr);
    const auto* const pbBegin = reinterpret_cast<const unsigned char*>(pszText);
    int nSize = 0;
    for (const unsigned char *pb = pbBegin, *pbEnd = pbBegin + cb; pb < pbEnd; ++pb) {
        nSize += (*pb & 0xC0U) != 0x80 ? 1 : 0;
    }
    if (nSize < 1) {
        return {};
    }
    const auto nRoom = static_cast<std::size_t>(nSize) * 4 + 4;
    const auto szWide = std::make_unique_for_overwrite<wchar_t[]>(nRoom);
    std::memset(szWide.get(), 0, nRoom);
    wchar_t* pch = szWide.get();
    for (const unsigned char *pb = pbBegin, *pbEnd = pbBegin + cb; pb < pbEnd;) {
        *pch++ = DecodeOne(pb);
    }
    pEnv->ReleaseStringUTFChars(jText, pszText);
    return szWide.get();
}

// Encodes in the locale's encoding: first the length, then the text.
inline std::string HandNarrowText(const std::wstring& strWide) {
    const std::size_t cb = std::wcstombs(nullptr, strWide.c_str(), 0);
    std::string strNarrow(cb == static_cast<std::size_t>(-1) ? 0 : cb, 0);
    std::wcstombs(strNarrow.data(), strWide.c_str(), strNarrow.size());
    return strNarrow;
}

inline jstring HandJavaText(JNIEnv* pEnv, const char* pszText) {
    const jclass jString = pEnv->FindClass("Ljava/lang/String;");
    const jmethodID constructor = pEnv->GetMethodID(jString, "<init>", "([BLjava/lang/String;)V");
    const auto cb = static_cast<jsize>(std::strlen(pszText));
    const jbyteArray jBytes = pEnv->NewByteArray(cb);
    pEnv->SetByteArrayRegion(jBytes, 0, cb, reinterpret_cast<const jbyte*>(pszText));
    return static_cast<jstring>(pEnv->NewObject(jString, constructor, jBytes, pEnv->NewStringUTF("utf-8")));
}

// The natives' log by hand, with its own writer thread. One per process.
class HandLog {
public:
    // Null before Start.
    static HandLog*& Instance() {
        static HandLog* s_pLog = nullptr;
        return s_pLog;
    }

    static void Start(const char* pszFile) {
        const std::string strFile(pszFile);
        Instance() = new HandLog(std::wstring(strFile.begin(), strFile.end()));
        pthread_t writer = {};
        pthread_create(&writer, nullptr, Write, Instance());
    }

    // Does nothing before Start.
    static void Trace(const wchar_t* pszFunction, const char* pszNarrowFunction, int nLine, const wchar_t* pszFormat) {
        if (HandLog* const pLog = Instance()) {
            // The format expects wide text but gets narrow text, so one character holds four.
            alignas(wchar_t) char szName[64] = {};
            std::strncpy(szName, pszNarrowFunction, sizeof szName - sizeof(wchar_t));
            pLog->m_log.Record(L"[INFO] ", L"TAVClientJNI/vex_jni_TAVClientJNI.cpp", pszFunction, nLine, pszFormat,
                               szName);
        }
    }

private:
    explicit HandLog(const std::wstring& strFile) : m_log(strFile.c_str()), m_writer(strFile, 0x200000) {}

    static void* Write(void* pThis) {
        for (HandLog& log = *static_cast<HandLog*>(pThis);;) {
            log.m_log.Queue().Wait();
            while (const auto pLine = log.m_log.Queue().Take()) {
                log.m_writer.Write(pLine->strText);
            }
        }
    }

    FloorLog m_log;
    FloorWriter m_writer;
};

}  // namespace bench
