#include "FakeJniEnv.h"

#include <string.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CallText.h"

// Every function of the table, in the order of the table.
// clang-format off
#define VEX_JNI_FUNCTIONS(X) \
    X(GetVersion) X(DefineClass) X(FindClass) X(FromReflectedMethod) X(FromReflectedField) X(ToReflectedMethod) \
    X(GetSuperclass) X(IsAssignableFrom) X(ToReflectedField) X(Throw) X(ThrowNew) X(ExceptionOccurred) \
    X(ExceptionDescribe) X(ExceptionClear) X(FatalError) X(PushLocalFrame) X(PopLocalFrame) X(NewGlobalRef) \
    X(DeleteGlobalRef) X(DeleteLocalRef) X(IsSameObject) X(NewLocalRef) X(EnsureLocalCapacity) X(AllocObject) \
    X(NewObject) X(NewObjectV) X(NewObjectA) X(GetObjectClass) X(IsInstanceOf) X(GetMethodID) X(CallObjectMethod) \
    X(CallObjectMethodV) X(CallObjectMethodA) X(CallBooleanMethod) X(CallBooleanMethodV) X(CallBooleanMethodA) \
    X(CallByteMethod) X(CallByteMethodV) X(CallByteMethodA) X(CallCharMethod) X(CallCharMethodV) X(CallCharMethodA) \
    X(CallShortMethod) X(CallShortMethodV) X(CallShortMethodA) X(CallIntMethod) X(CallIntMethodV) X(CallIntMethodA) \
    X(CallLongMethod) X(CallLongMethodV) X(CallLongMethodA) X(CallFloatMethod) X(CallFloatMethodV) \
    X(CallFloatMethodA) X(CallDoubleMethod) X(CallDoubleMethodV) X(CallDoubleMethodA) X(CallVoidMethod) \
    X(CallVoidMethodV) X(CallVoidMethodA) X(CallNonvirtualObjectMethod) X(CallNonvirtualObjectMethodV) \
    X(CallNonvirtualObjectMethodA) X(CallNonvirtualBooleanMethod) X(CallNonvirtualBooleanMethodV) \
    X(CallNonvirtualBooleanMethodA) X(CallNonvirtualByteMethod) X(CallNonvirtualByteMethodV) \
    X(CallNonvirtualByteMethodA) X(CallNonvirtualCharMethod) X(CallNonvirtualCharMethodV) \
    X(CallNonvirtualCharMethodA) X(CallNonvirtualShortMethod) X(CallNonvirtualShortMethodV) \
    X(CallNonvirtualShortMethodA) X(CallNonvirtualIntMethod) X(CallNonvirtualIntMethodV) \
    X(CallNonvirtualIntMethodA) X(CallNonvirtualLongMethod) X(CallNonvirtualLongMethodV) \
    X(CallNonvirtualLongMethodA) X(CallNonvirtualFloatMethod) X(CallNonvirtualFloatMethodV) \
    X(CallNonvirtualFloatMethodA) X(CallNonvirtualDoubleMethod) X(CallNonvirtualDoubleMethodV) \
    X(CallNonvirtualDoubleMethodA) X(CallNonvirtualVoidMethod) X(CallNonvirtualVoidMethodV) \
    X(CallNonvirtualVoidMethodA) X(GetFieldID) X(GetObjectField) X(GetBooleanField) X(GetByteField) X(GetCharField) \
    X(GetShortField) X(GetIntField) X(GetLongField) X(GetFloatField) X(GetDoubleField) X(SetObjectField) \
    X(SetBooleanField) X(SetByteField) X(SetCharField) X(SetShortField) X(SetIntField) X(SetLongField) \
    X(SetFloatField) X(SetDoubleField) X(GetStaticMethodID) X(CallStaticObjectMethod) X(CallStaticObjectMethodV) \
    X(CallStaticObjectMethodA) X(CallStaticBooleanMethod) X(CallStaticBooleanMethodV) X(CallStaticBooleanMethodA) \
    X(CallStaticByteMethod) X(CallStaticByteMethodV) X(CallStaticByteMethodA) X(CallStaticCharMethod) \
    X(CallStaticCharMethodV) X(CallStaticCharMethodA) X(CallStaticShortMethod) X(CallStaticShortMethodV) \
    X(CallStaticShortMethodA) X(CallStaticIntMethod) X(CallStaticIntMethodV) X(CallStaticIntMethodA) \
    X(CallStaticLongMethod) X(CallStaticLongMethodV) X(CallStaticLongMethodA) X(CallStaticFloatMethod) \
    X(CallStaticFloatMethodV) X(CallStaticFloatMethodA) X(CallStaticDoubleMethod) X(CallStaticDoubleMethodV) \
    X(CallStaticDoubleMethodA) X(CallStaticVoidMethod) X(CallStaticVoidMethodV) X(CallStaticVoidMethodA) \
    X(GetStaticFieldID) X(GetStaticObjectField) X(GetStaticBooleanField) X(GetStaticByteField) \
    X(GetStaticCharField) X(GetStaticShortField) X(GetStaticIntField) X(GetStaticLongField) X(GetStaticFloatField) \
    X(GetStaticDoubleField) X(SetStaticObjectField) X(SetStaticBooleanField) X(SetStaticByteField) \
    X(SetStaticCharField) X(SetStaticShortField) X(SetStaticIntField) X(SetStaticLongField) X(SetStaticFloatField) \
    X(SetStaticDoubleField) X(NewString) X(GetStringLength) X(GetStringChars) X(ReleaseStringChars) X(NewStringUTF) \
    X(GetStringUTFLength) X(GetStringUTFChars) X(ReleaseStringUTFChars) X(GetArrayLength) X(NewObjectArray) \
    X(GetObjectArrayElement) X(SetObjectArrayElement) X(NewBooleanArray) X(NewByteArray) X(NewCharArray) \
    X(NewShortArray) X(NewIntArray) X(NewLongArray) X(NewFloatArray) X(NewDoubleArray) X(GetBooleanArrayElements) \
    X(GetByteArrayElements) X(GetCharArrayElements) X(GetShortArrayElements) X(GetIntArrayElements) \
    X(GetLongArrayElements) X(GetFloatArrayElements) X(GetDoubleArrayElements) X(ReleaseBooleanArrayElements) \
    X(ReleaseByteArrayElements) X(ReleaseCharArrayElements) X(ReleaseShortArrayElements) X(ReleaseIntArrayElements) \
    X(ReleaseLongArrayElements) X(ReleaseFloatArrayElements) X(ReleaseDoubleArrayElements) X(GetBooleanArrayRegion) \
    X(GetByteArrayRegion) X(GetCharArrayRegion) X(GetShortArrayRegion) X(GetIntArrayRegion) X(GetLongArrayRegion) \
    X(GetFloatArrayRegion) X(GetDoubleArrayRegion) X(SetBooleanArrayRegion) X(SetByteArrayRegion) \
    X(SetCharArrayRegion) X(SetShortArrayRegion) X(SetIntArrayRegion) X(SetLongArrayRegion) X(SetFloatArrayRegion) \
    X(SetDoubleArrayRegion) X(RegisterNatives) X(UnregisterNatives) X(MonitorEnter) X(MonitorExit) X(GetJavaVM) \
    X(GetStringRegion) X(GetStringUTFRegion) X(GetPrimitiveArrayCritical) X(ReleasePrimitiveArrayCritical) \
    X(GetStringCritical) X(ReleaseStringCritical) X(NewWeakGlobalRef) X(DeleteWeakGlobalRef) X(ExceptionCheck) \
    X(NewDirectByteBuffer) X(GetDirectBufferAddress) X(GetDirectBufferCapacity) X(GetObjectRefType) X(GetModule)
// clang-format on

namespace {

template <size_t N>
struct FunctionName {
    constexpr FunctionName(const char (&szName)[N]) { std::copy_n(szName, N, sz); }
    char sz[N];
};

[[noreturn]] void EndUnexpected(const char* pszFunction) {
    std::fprintf(stderr, "FakeJniEnv: the bridge called %s\n", pszFunction);
    std::abort();
}

template <FunctionName Name, typename Result, typename... Arguments>
Result JNICALL Forbidden(Arguments...) {
    EndUnexpected(Name.sz);
}
template <FunctionName Name, typename Result, typename... Arguments>
Result JNICALL ForbiddenVariadic(Arguments..., ...) {
    EndUnexpected(Name.sz);
}

// Sets the table entry of a function that the bridge must not call.
template <FunctionName Name, typename Result, typename... Arguments>
void Forbid(Result(JNICALL*& entry)(Arguments...)) {
    entry = Forbidden<Name, Result, Arguments...>;
}
template <FunctionName Name, typename Result, typename... Arguments>
void Forbid(Result(JNICALL*& entry)(Arguments..., ...)) {
    entry = ForbiddenVariadic<Name, Result, Arguments...>;
}

}  // namespace

struct FakeJniEnv::Hooks {
    static FakeJniEnv& Of(JNIEnv* pEnv) { return *static_cast<FakeJniEnv*>(pEnv); }

    static jsize JNICALL GetStringUTFLength(JNIEnv* pEnv, jstring text) {
        FakeJniEnv& env = Of(pEnv);
        const auto nLength = static_cast<jsize>(env.Get(text).bytes.size());
        env.m_fnRecord("GetStringUTFLength(" + env.Name(text) + ") = " + std::to_string(nLength));
        return nLength;
    }

    static jsize JNICALL GetStringLength(JNIEnv* pEnv, jstring text) {
        FakeJniEnv& env = Of(pEnv);
        const auto isFirstByte = [](char ch) { return (static_cast<unsigned char>(ch) & 0xC0) != 0x80; };
        const std::string& bytes = env.Get(text).bytes;
        const auto nLength = static_cast<jsize>(std::count_if(bytes.begin(), bytes.end(), isFirstByte));
        env.m_fnRecord("GetStringLength(" + env.Name(text) + ") = " + std::to_string(nLength));
        return nLength;
    }

    static const char* JNICALL GetStringUTFChars(JNIEnv* pEnv, jstring text, jboolean* pIsCopy) {
        FakeJniEnv& env = Of(pEnv);
        Object& object = env.Get(text);
        const std::string strIsCopy = pIsCopy == nullptr ? "null" : *pIsCopy == JNI_FALSE ? "&false" : "&true";
        const bool bFails = env.m_failing.contains("GetStringUTFChars");
        env.m_fnRecord("GetStringUTFChars(" + env.Name(text) + ", " + strIsCopy + ") = " + (bFails ? "null" : "chars"));
        if (bFails) {
            return nullptr;
        }
        // A separate block, so that a sanitizer sees a read behind it.
        object.pszChars = std::make_unique<char[]>(object.bytes.size() + 1);
        std::memcpy(object.pszChars.get(), object.bytes.c_str(), object.bytes.size() + 1);
        ++env.m_nUnreleasedChars;
        if (pIsCopy != nullptr) {
            *pIsCopy = JNI_TRUE;
        }
        return object.pszChars.get();
    }

    static void JNICALL ReleaseStringUTFChars(JNIEnv* pEnv, jstring text, const char* pszChars) {
        FakeJniEnv& env = Of(pEnv);
        const bool bHandedOut = pszChars != nullptr && pszChars == env.Get(text).pszChars.get();
        env.m_fnRecord("ReleaseStringUTFChars(" + env.Name(text) + ", " + (bHandedOut ? "chars" : "others") + ")");
        if (bHandedOut) {
            Object& object = env.Get(text);
            explicit_bzero(object.pszChars.get(), object.bytes.size() + 1);
            object.pszChars.reset();
            --env.m_nUnreleasedChars;
        }
    }

    // Copies the units as bytes: they may be the storage of wide characters.
    static jstring JNICALL NewString(JNIEnv* pEnv, const jchar* pUnits, jsize nLength) {
        FakeJniEnv& env = Of(pEnv);
        env.m_fnNewString(pUnits, nLength);
        Object text{.strName = "text"};
        std::string strUnits;
        text.units.resize(static_cast<std::size_t>(nLength));
        std::memcpy(text.units.data(), pUnits, text.units.size() * sizeof(jchar));
        for (const char16_t unit : text.units) {
            strUnits += (strUnits.empty() ? "" : " ") + Hexadecimal(unit);
        }
        Object* const pText = env.Make("NewString", std::move(text));
        env.Record("NewString([" + strUnits + "], " + std::to_string(nLength) + ")", pText);
        return reinterpret_cast<jstring>(pText);
    }

    static jclass JNICALL FindClass(JNIEnv* pEnv, const char* pszName) {
        FakeJniEnv& env = Of(pEnv);
        Object* const pClass = env.Make("FindClass", {.strName = "class"});
        env.Record("FindClass(" + Quoted(pszName) + ")", pClass);
        return reinterpret_cast<jclass>(pClass);
    }

    static jmethodID JNICALL GetMethodID(JNIEnv* pEnv, jclass type, const char* pszName, const char* pszSignature) {
        FakeJniEnv& env = Of(pEnv);
        Object* pMethod = nullptr;
        if (type != nullptr) {
            pMethod = env.Make("GetMethodID", {.strName = "constructor"});
        }
        env.Record("GetMethodID(" + env.Name(type) + ", " + Quoted(pszName) + ", " + Quoted(pszSignature) + ")",
                   pMethod);
        return reinterpret_cast<jmethodID>(pMethod);
    }

    static jbyteArray JNICALL NewByteArray(JNIEnv* pEnv, jsize nLength) {
        FakeJniEnv& env = Of(pEnv);
        std::string bytes(static_cast<size_t>(std::max(nLength, 0)), '\0');
        Object* const pArray = env.Make("NewByteArray", {.strName = "array", .bytes = std::move(bytes)});
        env.Record("NewByteArray(" + std::to_string(nLength) + ")", pArray);
        return reinterpret_cast<jbyteArray>(pArray);
    }

    static void JNICALL SetByteArrayRegion(JNIEnv* pEnv, jbyteArray array, jsize nStart, jsize nLength,
                                           const jbyte* pBytes) {
        FakeJniEnv& env = Of(pEnv);
        const std::string bytes(reinterpret_cast<const char*>(pBytes), static_cast<size_t>(nLength));
        env.m_fnRecord("SetByteArrayRegion(" + env.Name(array) + ", " + std::to_string(nStart) + ", " +
                       std::to_string(nLength) + ", " + Quoted(bytes) + ")");
        if (array != nullptr && !env.m_failing.contains("SetByteArrayRegion")) {
            env.Get(array).bytes.replace(static_cast<size_t>(nStart), bytes.size(), bytes);
        }
    }

    static jstring JNICALL NewStringUTF(JNIEnv* pEnv, const char* pszText) {
        FakeJniEnv& env = Of(pEnv);
        Object* const pText = env.Make("NewStringUTF", {.strName = "encoding", .bytes = pszText});
        env.Record("NewStringUTF(" + Quoted(pszText) + ")", pText);
        return reinterpret_cast<jstring>(pText);
    }

    // The only constructor: String(byte[], String).
    static jobject JNICALL NewObjectV(JNIEnv* pEnv, jclass type, jmethodID constructor, va_list arguments) {
        FakeJniEnv& env = Of(pEnv);
        const jobject array = va_arg(arguments, jobject);
        const jobject encoding = va_arg(arguments, jobject);
        Object* pText = nullptr;
        if (type != nullptr && constructor != nullptr && array != nullptr && encoding != nullptr) {
            pText = env.Make("NewObjectV", {.strName = "text", .bytes = env.Get(array).bytes});
        }
        env.Record("NewObjectV(" + env.Name(type) + ", " + env.Name(constructor) + ", " + env.Name(array) + ", " +
                       env.Name(encoding) + ")",
                   pText);
        return reinterpret_cast<jobject>(pText);
    }

    static JNINativeInterface_ MakeTable() {
        JNINativeInterface_ table{};
#define VEX_FORBID(Name) Forbid<FunctionName(#Name)>(table.Name);
        VEX_JNI_FUNCTIONS(VEX_FORBID)
#undef VEX_FORBID
        table.GetStringUTFLength = GetStringUTFLength;
        table.GetStringLength = GetStringLength;
        table.GetStringUTFChars = GetStringUTFChars;
        table.ReleaseStringUTFChars = ReleaseStringUTFChars;
        table.NewString = NewString;
        table.FindClass = FindClass;
        table.GetMethodID = GetMethodID;
        table.NewByteArray = NewByteArray;
        table.SetByteArrayRegion = SetByteArrayRegion;
        table.NewStringUTF = NewStringUTF;
        table.NewObjectV = NewObjectV;
        return table;
    }
};

// The list above has all functions except the four reserved entries in front and later additions to JNI at the end.
#define VEX_COUNT(Name) +1
static_assert(offsetof(JNINativeInterface_, GetModule) == (4 + 0 VEX_JNI_FUNCTIONS(VEX_COUNT) - 1) * sizeof(void*));
#undef VEX_COUNT

const JNINativeInterface_ FakeJniEnv::s_functions = Hooks::MakeTable();

FakeJniEnv::FakeJniEnv(std::function<void(std::string)> fnRecord)
    : JNIEnv{&s_functions}, m_fnRecord(std::move(fnRecord)) {}

FakeJniEnv::~FakeJniEnv() = default;

jstring FakeJniEnv::MakeString(std::string bytes, std::string strName) {
    m_objects.push_back({.strName = std::move(strName), .bytes = std::move(bytes)});
    return reinterpret_cast<jstring>(&m_objects.back());
}

void FakeJniEnv::Forget(jstring text) {
    std::string& bytes = Get(text).bytes;
    explicit_bzero(bytes.data(), bytes.size());
    bytes.clear();
}

std::u16string FakeJniEnv::Units(jstring text) {
    return Get(text).units;
}

std::string FakeJniEnv::Bytes(jstring text) {
    return Get(text).bytes;
}

FakeJniEnv::Object* FakeJniEnv::Make(const char* pszFunction, Object object) {
    if (m_failing.contains(pszFunction)) {
        return nullptr;
    }
    m_objects.push_back(std::move(object));
    return &m_objects.back();
}

void FakeJniEnv::Record(const std::string& strCall, const void* pResult) {
    m_fnRecord(strCall + " = " + Name(pResult));
}

std::string FakeJniEnv::Name(const void* reference) {
    return reference == nullptr ? "null" : Get(reference).strName;
}

FakeJniEnv::Object& FakeJniEnv::Get(const void* reference) {
    const auto found = std::find_if(m_objects.begin(), m_objects.end(),
                                    [reference](const Object& object) { return &object == reference; });
    if (found == m_objects.end()) {
        std::fprintf(stderr, "FakeJniEnv: %p is no reference\n", reference);
        std::abort();
    }
    return *found;
}
