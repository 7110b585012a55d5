// The toolkit's fifteen functions. They translate handles and C types into calls of SigningObject.

#include <array>
#include <climits>
#include <cstring>
#include <new>

#include "HandleTable.h"
#include "VCTK.h"
#include "VEXThreadSafety.h"
#include "posix/ForkPhases.h"
#include "signing/MutexPool.h"
#include "signing/OpenSsl.h"
#include "signing/SigningObject.h"
#include "signing/StackWiper.h"
#include "signing/Store.h"
#include "signing/StoreUri.h"

namespace vextk {
namespace {

using Objects = HandleTable<SigningObject>;

Objects& OpenObjects() noexcept;

ThreadId s_nForkingThread = 0;  // used only by the fork handlers, which hold the objects' lock

// A forked child can use the open objects. There, the toolkit's own locks are free, and no thread of the parent has a
// turn. OpenSSL's locks are not taken here. If another thread of the parent was signing or opening a store, such a lock
// may stay held in the child for ever, and the child hangs when it signs. A fork cannot wait for those threads: one may
// wait for a person at a PIN pad, and a token's module that starts a program would wait for itself. Not analysed, like
// the other two handlers: the locks are held from one handler to the next.
void BeforeFork() VEX_NO_THREAD_SAFETY_ANALYSIS {
    OpenObjects().LockForFork();
    s_nForkingThread = CurrentThreadIdIfAny();
    MutexPool::LockAll();
}

void Unlock() VEX_NO_THREAD_SAFETY_ANALYSIS {
    MutexPool::UnlockAll();
    OpenObjects().UnlockAfterFork();
}

void AfterForkThere() VEX_NO_THREAD_SAFETY_ANALYSIS {
    OpenObjects().ForEach([](SigningObject& object) { object.ForgetOtherThreads(s_nForkingThread); });
    Unlock();
}

// Frees what the thread has left in the objects. That may be large signatures.
void ForgetThread(ThreadId nThread) noexcept {
    OpenObjects().ForEachLocked([=](SigningObject& object) { object.ForgetThread(nThread); });
}

Objects& MakeOpenObjects() {
    constexpr std::uintptr_t kFirstHandle = 0x56430004;
    Objects& objects = *new Objects(kFirstHandle);
    vexposix::AddToFork(vexposix::ForkPhase::kHandles, {BeforeFork, Unlock, AfterForkThere});
    OnThreadEnd(ForgetThread);
    return objects;
}

// Never destroyed: threads of the host may still sign while its exit handlers run. If memory runs out here, at load
// time, the process ends.
Objects& OpenObjects() noexcept {
    static Objects& s_objects = MakeOpenObjects();
    return s_objects;
}

// Created at load time, so that no fork can interrupt its creation.
[[maybe_unused]] const Objects& s_objectsAtLoadTime = OpenObjects();

// Why the thread's last initialisation failed. It has no destructor, so that it can be read at any time. A longer
// detail is cut.
struct InitialisationError {
    VCTKError nNumber = VCTK_OK;
    std::array<char, 512> szDetail{};

    void Note(VCTKError nError, std::string_view strDetail) {
        nNumber = nError;
        const size_t cch = strDetail.copy(szDetail.data(), szDetail.size() - 1);
        szDetail[cch] = '\0';
    }
};
thread_local InitialisationError t_initialisationError;

template <typename Operation>
INT CallObject(HANDLE hObject, Operation operation) {
    const std::shared_ptr<SigningObject> object = OpenObjects().Find(hObject);
    return object ? object->Call(operation) : VCTK_E_INVALID_HANDLE;
}

// What the initialisation text names. Throws the URI's numbers, VCTK_E_INVALID_HANDLE, and what OpenStore throws.
OpenedStorePtr FindOrOpenStore(std::string_view text) {
    StoreUri uri = ParseStoreUri(text);
    if (uri.kind != StoreUri::Kind::kHandle) {
        return OpenStore(std::move(uri));
    }
    const std::shared_ptr<SigningObject> object = OpenObjects().Find(reinterpret_cast<HANDLE>(uri.nHandle));
    if (!object) {
        throw Failure(VCTK_E_INVALID_HANDLE);
    }
    return object->Store();
}

std::string_view RequireText(const char* pszText) {
    if (pszText == nullptr) {
        throw Failure(VCTK_E_INVALID_ARGUMENT, "a text is null");
    }
    return pszText;
}

// Sets the needed size, and copies the text unless the buffer is null.
void HandOut(const std::string& strText, char* pszBuffer, int* pnLength) {
    if (pnLength == nullptr) {
        throw Failure(VCTK_E_INVALID_ARGUMENT, "the length is null");
    }
    if (strText.size() >= static_cast<size_t>(INT_MAX)) {
        throw Failure(VCTK_E_TOO_LARGE);
    }
    const int cbNeeded = static_cast<int>(strText.size()) + 1;
    const int cbRoom = *pnLength;
    *pnLength = cbNeeded;
    if (pszBuffer == nullptr) {
        return;
    }
    if (cbRoom < cbNeeded) {
        throw Failure(VCTK_E_BUFFER_TOO_SMALL, std::to_string(cbNeeded) + " bytes are needed");
    }
    std::memcpy(pszBuffer, strText.c_str(), strText.size() + 1);
}

// The message of the handle's last error. A handle that names no object has one, too.
std::string LastErrorMessage(HANDLE hObject) {
    if (hObject == nullptr) {
        return ErrorText(t_initialisationError.nNumber, t_initialisationError.szDetail.data());
    }
    const std::shared_ptr<SigningObject> object = OpenObjects().Find(hObject);
    return object ? object->LastErrorMessage() : ErrorText(VCTK_E_INVALID_HANDLE, {});
}

}  // namespace
}  // namespace vextk

using namespace vextk;

VEXTK_CLEAR_REGISTERS HANDLE VCTK_Initialize(const char* pszAuxParam) {
    const StackWiper wiper(StackWiper::kAnyDepth);
    try {
        BeginOperation();
        InitialiseOpenSsl();
        const ErrorMark mark;
        const OpenedStorePtr store = FindOrOpenStore(RequireText(pszAuxParam));
        const HANDLE hObject = OpenObjects().Add(std::make_shared<SigningObject>(store));
        if (store->failure) {
            t_initialisationError.Note(store->failure->Number(), store->failure->Detail());
        } else {
            t_initialisationError.Note(VCTK_OK, {});
        }
        return hObject;
    } catch (const Failure& failure) {
        t_initialisationError.Note(failure.Number(), failure.Detail());
    } catch (const std::bad_alloc&) {
        t_initialisationError.Note(VCTK_E_OUT_OF_MEMORY, {});
    }
    return nullptr;
}

INT VCTK_SetDigestAlg(HANDLE hObject, const char* pszDigestAlg) {
    return CallObject(hObject, [=](SigningObject& object) { object.SetDigest(RequireText(pszDigestAlg)); });
}

INT VCTK_SetChooseSingleCert(HANDLE hObject, int nChoose) {
    return CallObject(hObject, [=](SigningObject& object) { object.SetChooseSingle(nChoose != 0); });
}

INT VCTK_AddFilter(HANDLE hObject, ULONG ulType, const char* pszValue) {
    return CallObject(hObject, [=](SigningObject& object) { object.AddFilter(ulType, RequireText(pszValue)); });
}

INT VCTK_ClearFilter(HANDLE hObject) {
    return CallObject(hObject, [](SigningObject& object) { object.ClearFilters(); });
}

VEXTK_CLEAR_REGISTERS INT VCTK_P1Sign(HANDLE hObject, const char* pszData, int nInputForm) {
    const StackWiper wiper(StackWiper::kSigningDepth);
    return CallObject(hObject, [=](SigningObject& object) { object.SignP1(RequireText(pszData), nInputForm); });
}

INT VCTK_GetP1SignResult(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return CallObject(hObject, [=](SigningObject& object) { HandOut(object.P1Signature(), pszBuffer, pnLength); });
}

VEXTK_CLEAR_REGISTERS INT VCTK_P7Sign(HANDLE hObject, const char* pszData, int nInputForm, int nDetached,
                                      int nIncludeCert) {
    const StackWiper wiper(StackWiper::kSigningDepth);
    return CallObject(hObject, [=](SigningObject& object) {
        object.SignP7(RequireText(pszData), nInputForm, nDetached != 0, nIncludeCert);
    });
}

INT VCTK_GetP7SignResult(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return CallObject(hObject, [=](SigningObject& object) { HandOut(object.P7Signature(), pszBuffer, pnLength); });
}

VEXTK_CLEAR_REGISTERS INT VCTK_Finalize(HANDLE hObject) {
    const StackWiper wiper(StackWiper::kAnyDepth);
    return OpenObjects().Remove(hObject) ? VCTK_OK : VCTK_E_INVALID_HANDLE;
}

INT VCTK_GetSignCert(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return CallObject(hObject, [=](SigningObject& object) {
        HandOut(*object.Answer("certificate", pszBuffer != nullptr, [&] { return object.SignCertificate(); }),
                pszBuffer, pnLength);
    });
}

INT VCTK_GetLastError(HANDLE hObject) {
    if (hObject == nullptr) {
        return t_initialisationError.nNumber;
    }
    const std::shared_ptr<SigningObject> object = OpenObjects().Find(hObject);
    return object ? object->LastError() : VCTK_E_INVALID_HANDLE;
}

INT VCTK_GetLastErrorMessage(HANDLE hObject, char* pszBuffer, int* pnLength) {
    try {
        HandOut(LastErrorMessage(hObject), pszBuffer, pnLength);
        return VCTK_OK;
    } catch (const Failure& failure) {
        return failure.Number();
    } catch (const std::bad_alloc&) {
        return VCTK_E_OUT_OF_MEMORY;
    }
}

INT VCTK_CallQueueEnable(HANDLE hObject, int nQueue, int nEnable) {
    return CallObject(hObject, [=](SigningObject& object) {
        if (nQueue != 0) {
            throw Failure(VCTK_E_INVALID_ARGUMENT, "unknown call queue; an object has only queue 0");
        }
        object.Queue().Enable(nEnable != 0);
    });
}

INT VCTK_GetCertList(HANDLE hObject, const char* pszRecordSeparator, const char* pszFieldSeparator, char* pszBuffer,
                     int* pnLength) {
    return CallObject(hObject, [=](SigningObject& object) {
        const std::string strRecordSeparator(RequireText(pszRecordSeparator));
        const std::string strFieldSeparator(RequireText(pszFieldSeparator));
        const std::string strName =
            "list\n" + std::to_string(strRecordSeparator.size()) + strRecordSeparator + strFieldSeparator;
        HandOut(*object.Answer(strName, pszBuffer != nullptr,
                               [&] { return object.CertificateList(strRecordSeparator, strFieldSeparator); }),
                pszBuffer, pnLength);
    });
}
