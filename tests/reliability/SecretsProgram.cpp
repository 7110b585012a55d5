// Signs through the natives and waits at each stage, so that the test that started it can search its memory. The
// secrets come from standard input, because arguments stay in memory. Each line is the initialisation text of a store.
// The first store signs, the others are refused. The program overwrites its own copies of the secrets.
#include <jni.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FakeJniEnv.h"
#include "ToolkitClient.h"
#include "WaitForTest.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

// Reads a line of standard input byte by byte, so that no later line is in memory.
class Line {
public:
    Line() {
        for (char ch = 0; m_nLength < m_text.size() && read(STDIN_FILENO, &ch, 1) == 1 && ch != '\n';) {
            m_text[m_nLength++] = ch;
        }
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { explicit_bzero(m_text.data(), m_text.size()); }

    bool IsEmpty() const { return m_nLength == 0; }
    std::string Text() const { return {m_text.data(), m_nLength}; }

    // Leaves the text in memory in every form that could remain, like code that forgets to overwrite it.
    void LeaveCopies(std::array<std::array<wchar_t, 4096>, 2>& copies) const {
        auto* const pUtf16 = reinterpret_cast<char16_t*>(copies[1].data());
        for (size_t i = 0; i < m_nLength; ++i) {
            copies[0][i] = static_cast<unsigned char>(m_text[i]);
            pUtf16[i] = static_cast<unsigned char>(m_text[i]);
        }
    }

private:
    std::array<char, 4096> m_text{};
    size_t m_nLength = 0;
};

void Wait(const char* pszStage) {
    std::printf("%s\n", pszStage);
    std::fflush(stdout);
    WaitForTest();
}

[[noreturn]] void Fail(const char* pszWhat) {
    std::printf("FAILED: %s: %s\n", pszWhat, ErrorMessage(nullptr).c_str());
    std::exit(1);
}

// An initialisation text as a Java string, overwritten when it goes out of scope.
class JavaText {
public:
    JavaText(FakeJniEnv& env, const Line& line) : m_env(env), m_text(env.MakeString(line.Text())) {}
    JavaText(const JavaText&) = delete;
    JavaText& operator=(const JavaText&) = delete;
    ~JavaText() { m_env.Forget(m_text); }

    jlong Initialize() { return Java_vex_jni_TAVClientJNI_Initialize(&m_env, nullptr, nullptr, m_text); }

private:
    FakeJniEnv& m_env;
    jstring m_text;
};

jlong SignWithStore(FakeJniEnv& env) {
    const Line line;
    {
        static std::array<std::array<wchar_t, 4096>, 2> s_copies;
        line.LeaveCopies(s_copies);
        Wait("control");
        explicit_bzero(&s_copies, sizeof(s_copies));
    }
    const jlong handle = JavaText(env, line).Initialize();
    if (handle == 0) {
        Fail("Initialize");
    }
    const jstring text = env.MakeString("a text to sign");
    if (Java_vex_jni_TAVClientJNI_P1SignString(&env, nullptr, handle, text) == nullptr ||
        Java_vex_jni_TAVClientJNI_P7SignString(&env, nullptr, handle, text, 1, 1) == nullptr) {
        Fail("signing");
    }
    return handle;
}

// Reports the error of a store that cannot be opened; false when there is no further line.
bool RefuseStore(FakeJniEnv& env) {
    const Line line;
    if (line.IsEmpty()) {
        return false;
    }
    if (JavaText(env, line).Initialize() != 0) {
        Fail("a store was opened");
    }
    std::printf("refused: %s\n", ErrorMessage(nullptr).c_str());
    return true;
}

}  // namespace

int main() {
    FakeJniEnv env;
    const jlong handle = SignWithStore(env);
    Wait("signed");
    if (Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, handle) != 0) {
        Fail("Finalize");
    }
    Wait("finalized");
    while (RefuseStore(env)) {
    }
    Wait("refused");
    return 0;
}
