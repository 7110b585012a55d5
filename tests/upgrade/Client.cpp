// A program of a user of an earlier release. It is compiled with the headers of that release and run with libraries of
// both.
//
//   client contract STORE DIRECTORY    calls each function of the toolkit and prints what it returned
//   client sign STORE FILE TYPE VALUE  writes FILE.p1, FILE.p7 and FILE.p7a (attached) with the certificate that passes
//   client log COUNT LIMIT SIZE        writes records to the log, which is cut above LIMIT bytes; waits until the last
//   one
//                                      is in the file, or the file has SIZE bytes
//   client bridge LIBRARY              writes a record with the bridge's minimal logger
//   client server NAME LINE            appends a line to a file of the file server
#include <dlfcn.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "DebugLogMgr.h"
#include "VCTK.h"
#include "VCTKFilter.h"
#include "VEXCompat.h"
#include "VexFile.h"

namespace {

constexpr char kText[] = "A text to sign, \xe6\xbc\xa2\xe5\xad\x97.";

void Print(const char* pszName, const std::string& strValue) {
    std::printf("%s: %s\n", pszName, strValue.c_str());
}

void Print(const char* pszName, long nValue) {
    Print(pszName, std::to_string(nValue));
}

// The text of an operation with a size query, or "error N".
template <typename Get>
std::string Text(HANDLE hObject, Get get) {
    int nLength = 0;
    if (get(static_cast<char*>(nullptr), &nLength) != 0) {
        return "error " + std::to_string(VCTK_GetLastError(hObject));
    }
    std::string strText(static_cast<size_t>(nLength), '\0');
    if (get(strText.data(), &nLength) != 0) {
        return "error " + std::to_string(VCTK_GetLastError(hObject));
    }
    return strText.c_str();
}

std::string P1(HANDLE hObject) {
    return Text(hObject,
                [=](char* pszBuffer, int* pnLength) { return VCTK_GetP1SignResult(hObject, pszBuffer, pnLength); });
}

std::string P7(HANDLE hObject) {
    return Text(hObject,
                [=](char* pszBuffer, int* pnLength) { return VCTK_GetP7SignResult(hObject, pszBuffer, pnLength); });
}

// ---- contract ----

void Sign(HANDLE hObject, const char* pszDigest) {
    Print(pszDigest, VCTK_SetDigestAlg(hObject, pszDigest));
    Print(" P1", VCTK_P1Sign(hObject, kText, 0));
    Print(" P1 result", P1(hObject));  // of an RSA key, so it is always the same
    Print(" P1 of Base64", VCTK_P1Sign(hObject, "QSB0ZXh0", 1));
    Print(" P1 result", P1(hObject));
    Print(" P7", VCTK_P7Sign(hObject, kText, 0, 1, 1));
    Print(" P7 result is long", P7(hObject).size() > 1000 ? 1 : 0);
}

void Filters(HANDLE hObject, const std::string& strList) {
    const std::string strSerial = strList.substr(0, strList.find(' '));
    const std::string strFingerprint = strList.substr(strSerial.size() + 1, 64);
    const struct {
        ULONG ulType;
        std::string strValue;
    } filters[] = {{VCTK_FILTER_ISSUER, "upgrade"},
                   {VCTK_FILTER_SUBJECT, "nobody"},
                   {VCTK_FILTER_SERIAL, strSerial},
                   {VCTK_FILTER_FINGERPRINT, strFingerprint},
                   {VCTK_FILTER_KEY_USAGE, "digitalSignature"},
                   {VCTK_FILTER_KEY_USAGE_ALL, "digitalSignature"},
                   {VCTK_FILTER_EXTENDED_KEY_USAGE, "clientAuth"},
                   {VCTK_FILTER_VALID_AT, "2001-01-01T00:00:00Z"},
                   {VCTK_FILTER_POLICY, "1.2.3.4"},
                   {VCTK_FILTER_KEY_SIZE, "2048"},
                   {VCTK_FILTER_SUBJECT_NAME, "CN=upgrade"},
                   {VCTK_FILTER_ISSUER_NAME, "CN=Upgrade"},
                   {VCTK_FILTER_KEY_ALGORITHM, "rsa"},
                   {99, "x"},
                   {VCTK_FILTER_KEY_SIZE, "many"}};
    for (const auto& filter : filters) {
        Print(("filter " + std::to_string(filter.ulType)).c_str(),
              VCTK_AddFilter(hObject, filter.ulType, filter.strValue.c_str()));
        Print(" error", VCTK_GetLastError(hObject));
        Print(" list", Text(hObject, [=](char* pszBuffer, int* pnLength) {
                  return VCTK_GetCertList(hObject, "|", ";", pszBuffer, pnLength);
              }));
        Print(" sign", VCTK_P1Sign(hObject, kText, 0));
        Print(" clear", VCTK_ClearFilter(hObject));
    }
}

void Operations(const char* pszStore) {
    Print("no store", VCTK_Initialize("file:/no/such/file") == nullptr ? 1 : 0);
    Print(" error", VCTK_GetLastError(nullptr));
    const HANDLE hObject = VCTK_Initialize(pszStore);
    if (hObject == nullptr) {
        Print("initialise: error", VCTK_GetLastError(nullptr));
        std::exit(1);
    }
    Print("call queue", VCTK_CallQueueEnable(hObject, 0, 1));
    Print("single", VCTK_SetChooseSingleCert(hObject, 1));
    Print("certificate", Text(hObject, [=](char* pszBuffer, int* pnLength) {
              return VCTK_GetSignCert(hObject, pszBuffer, pnLength);
          }));
    const std::string strList = Text(hObject, [=](char* pszBuffer, int* pnLength) {
        return VCTK_GetCertList(hObject, "|", " ", pszBuffer, pnLength);
    });
    Print("list", strList);
    for (const char* pszDigest : {"SHA256", "SHA-384", "sha512", "SHA3-256", "SHA-1", "MD5", "none"}) {
        Sign(hObject, pszDigest);
    }
    Print("not Base64", VCTK_P1Sign(hObject, "!", 1));
    Print(" error", VCTK_GetLastError(hObject));
    Print(" message", Text(hObject, [=](char* pszBuffer, int* pnLength) {
                          return VCTK_GetLastErrorMessage(hObject, pszBuffer, pnLength);
                      }).substr(0, 29));
    Print("empty", VCTK_P1Sign(hObject, "", 0));
    Print(" error", VCTK_GetLastError(hObject));
    Filters(hObject, strList);
    Print("finalise", VCTK_Finalize(hObject));
    Print("finalise again", VCTK_Finalize(hObject));
}

void Heap() {
    const HANDLE hHeap = GetProcessHeap();
    auto* pbBlock = static_cast<char*>(HeapAlloc(hHeap, HEAP_ZERO_MEMORY, 5));
    Print("HeapAlloc", std::string(pbBlock, 5) == std::string(5, '\0') ? 1 : 0);
    std::memcpy(pbBlock, "block", 5);
    pbBlock = static_cast<char*>(HeapReAlloc(hHeap, HEAP_ZERO_MEMORY, pbBlock, 9));
    Print("HeapReAlloc", std::string(pbBlock));
    Print("HeapSize", static_cast<long>(HeapSize(hHeap, 0, pbBlock)));
    Print("HeapFree", HeapFree(hHeap, 0, pbBlock));
}

void Texts() {
    wchar_t szWide[64] = {};
    char szNarrow[64] = {};
    const int cch = MultiByteToWideChar(CP_UTF8, 0, kText, -1, szWide, 64);
    Print("MultiByteToWideChar", cch);
    Print("WideCharToMultiByte", WideCharToMultiByte(CP_UTF8, 0, szWide, cch, szNarrow, 64, nullptr, nullptr));
    Print(" text", szNarrow);
    Print("no room", MultiByteToWideChar(CP_UTF8, 0, kText, -1, szWide, 3));
    Print(" error", static_cast<long>(GetLastError()));
    Print("malformed", MultiByteToWideChar(CP_UTF8, 0, "\xff", 1, szWide, 64));
    Print(" error", static_cast<long>(GetLastError()));
    Print("lstrlenW", lstrlenW(L"abc"));
    Print("wcscpy_s", wcscpy_s(szWide, 64, L"abc"));
    Print("wcscpy_s too long", wcscpy_s(szWide, 3, L"abc"));
    Print("memcpy_x", memcpy_x(szNarrow, 64, "xy", 3));
    Print("memcpy_x too long", memcpy_x(szNarrow, 2, "xyz", 3));
}

void Files(const std::string& strDirectory) {
    Print("SHCreateDirectoryExW",
          SHCreateDirectoryExW(nullptr, std::wstring(strDirectory.begin(), strDirectory.end()).c_str(), nullptr));
    Print("PathIsDirectoryW", PathIsDirectoryW(std::wstring(strDirectory.begin(), strDirectory.end()).c_str()));
    wchar_t szPath[] = L"/a/b/c.txt";
    Print("PathRemoveFileSpecW", PathRemoveFileSpecW(szPath));
    Print(" length", lstrlenW(szPath));
    const std::string strFile = strDirectory + "/file";
    for (int i = 0; i < 2; ++i) {
        const HANDLE hFile = VexCreateFile(strFile.c_str());
        Print("VexCreateFile", static_cast<long>(GetLastError()));
        DWORD dwCount = 0;
        Print("WriteFile", WriteFile(hFile, "0123456789", 10, &dwCount, nullptr));
        Print(" bytes", static_cast<long>(dwCount));
        LARGE_INTEGER position{};
        position.LowPart = 4;
        Print("SetFilePointerEx", SetFilePointerEx(hFile, position, nullptr, FILE_BEGIN));
        char szRead[16] = {};
        Print("ReadFile", ReadFile(hFile, szRead, 3, &dwCount, nullptr));
        Print(" text", szRead);
        Print("SetEndOfFile", SetEndOfFile(hFile));
        LONGLONG llSize = 0;
        Print("GetFileSizeEx", GetFileSizeEx(hFile, &llSize));
        Print(" size", static_cast<long>(llSize));
        Print("FlushFileBuffers", FlushFileBuffers(hFile));
        Print("CloseHandle", CloseHandle(hFile));
        Print("CloseHandle again", CloseHandle(hFile));
        Print(" error", static_cast<long>(GetLastError()));
    }
    Print("a file in no directory", VexCreateFile("/no/such/directory/file") == INVALID_HANDLE_VALUE ? 1 : 0);
    Print(" error", static_cast<long>(GetLastError()));
    const std::string strProfile = strDirectory + "/log.ini";
    std::ofstream(strProfile) << "; a comment\r\n[loginfo]\r\nlogLevel = 2\r\nother=\r\n[x]\nlogLevel=7\n";
    for (const char* pszKey : {"logLevel", "LOGLEVEL", "other", "none"}) {
        Print(pszKey, GetPrivateProfileIntA("loginfo", pszKey, -3, strProfile.c_str()));
    }
    Print("GetTickCount", GetTickCount() > 0 ? 1 : 0);
}

// ---- sign ----

int WriteSignatures(const char* pszStore, const std::string& strFile, ULONG ulType, const char* pszValue) {
    const HANDLE hObject = VCTK_Initialize(pszStore);
    const bool bSigned = hObject != nullptr && VCTK_AddFilter(hObject, ulType, pszValue) == 0 &&
                         VCTK_P1Sign(hObject, kText, 0) == 0 && VCTK_P7Sign(hObject, kText, 0, 1, 1) == 0;
    if (!bSigned) {
        std::fprintf(stderr, "error %d\n", VCTK_GetLastError(hObject));
        return 1;
    }
    std::ofstream(strFile + ".p1") << P1(hObject) << '\n';
    std::ofstream(strFile + ".p7") << P7(hObject) << '\n';
    if (VCTK_P7Sign(hObject, kText, 0, 0, 1) != 0) {
        return 1;
    }
    std::ofstream(strFile + ".p7a") << P7(hObject) << '\n';
    std::ofstream(strFile + ".txt") << kText;
    return VCTK_Finalize(hObject);
}

// ---- log, bridge, server ----

std::string LogContent() {
    std::string strContent;
    if (std::FILE* const pFile = std::fopen("/tmp/PILog.txt", "r"); pFile != nullptr) {
        for (int ch = 0; (ch = std::fgetc(pFile)) != EOF;) {
            strContent += static_cast<char>(ch);
        }
        std::fclose(pFile);
    }
    return strContent;
}

int WriteLog(int nCount, DWORD dwLimit, size_t cbLargest) {
    CDebugLogMgr::GetInstance()->SetTruncate(dwLimit, 20);
    for (int i = 1; i <= nCount; ++i) {
        CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"Client.cpp", L"WriteLog", 4711)(L"record %d: %s \u6f22", i, L"text");
    }
    const std::string strProcess = "[P" + std::to_string(getpid()) + "]";
    const std::string strLast = "record " + std::to_string(nCount) + ": text \xe6\xbc\xa2\r\n\r\n";
    for (int nTry = 0; nTry < 600; ++nTry) {
        const std::string strContent = LogContent();
        const size_t nOwn = strContent.rfind(strProcess);
        if (strContent.size() >= cbLargest ||
            (nOwn != std::string::npos && strContent.find(strLast, nOwn) != std::string::npos)) {
            return 0;
        }
        usleep(50'000);
    }
    return 1;
}

int WriteWithBridge(const char* pszLibrary) {
    void* const pBridge = dlopen(pszLibrary, RTLD_NOW);
    if (pBridge == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    reinterpret_cast<void (*)(int, const wchar_t*, ...)>(dlsym(pBridge, "pv_log"))(2, L"a warning: %d", 42);
    return 0;
}

int AppendThroughServer(const std::wstring& strName, const std::string& strLine) {
    CVexFile file;
    file.EnableServerSupport(TRUE);
    DWORD dwError = 0;
    if (!file.OpenFile(strName.c_str(), dwError)) {
        std::fprintf(stderr, "error %lu\n", dwError);
        return 1;
    }
    DWORD dwCount = strLine.size();
    const bool bSent = file.SeekToEnd() && file.Write(reinterpret_cast<const BYTE*>(strLine.data()), dwCount);
    return bSent && !file.IsServerLost() && dwCount == strLine.size() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const std::string strCommand = argc > 1 ? argv[1] : "";
    if (strCommand == "contract" && argc == 4) {
        Operations(argv[2]);
        Heap();
        Texts();
        Files(argv[3]);
        return 0;
    }
    if (strCommand == "sign" && argc == 6) {
        return WriteSignatures(argv[2], argv[3], std::strtoul(argv[4], nullptr, 10), argv[5]);
    }
    if (strCommand == "log" && argc == 5) {
        return WriteLog(std::atoi(argv[2]), static_cast<DWORD>(std::atol(argv[3])), std::strtoul(argv[4], nullptr, 10));
    }
    if (strCommand == "bridge" && argc == 3) {
        return WriteWithBridge(argv[2]);
    }
    if (strCommand == "server" && argc == 4) {
        const std::string strName = argv[2];
        return AppendThroughServer(std::wstring(strName.begin(), strName.end()), std::string(argv[3]) + "\n");
    }
    std::fputs("wrong command line\n", stderr);
    return 2;
}
