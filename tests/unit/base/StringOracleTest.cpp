// Random sequences of operations on the counted strings, compared with the same operations on std::basic_string.
// Several strings of a sequence share blocks, so a write that wrongly changes a sharer is found.
#include <array>
#include <random>

#include "StringKinds.h"

namespace {

constexpr unsigned SEED = 20240305;
constexpr int SEQUENCES = 100000;
constexpr int STEPS = 12;

template <typename TKind>
class StringOracle : public CStringKindTest<TKind> {
public:
    using F = CStringKindTest<TKind>;
    using String = typename F::StringT;
    using Text = typename F::Text;
    using Char = typename F::CharT;

    struct Pair {
        String str;
        Text text;
    };

    int Number(int nLeast, int nMost) { return std::uniform_int_distribution<int>(nLeast, nMost)(m_random); }
    // Few different characters, so that searches succeed.
    Char Letter() { return static_cast<Char>('a' + Number(0, 2)); }
    Text Word() {
        Text text(static_cast<std::size_t>(Number(0, 6)), Char(0));
        for (Char& ch : text) {
            ch = Letter();
        }
        return text;
    }
    Pair& Any() { return m_pairs[static_cast<std::size_t>(Number(0, static_cast<int>(m_pairs.size()) - 1))]; }

    void Step() {
        Pair& pair = Any();
        const Pair& other = Any();
        const Text word = Word();
        const int nLength = static_cast<int>(pair.text.size());
        const int nIndex = Number(-2, nLength + 2);
        const std::size_t nClamped = static_cast<std::size_t>(std::clamp(nIndex, 0, nLength));
        switch (m_nOperation = Number(0, 18)) {
            case 0:
                pair.str = other.str;
                pair.text = other.text;
                break;
            case 1:
                pair.str = word.c_str();
                pair.text = word;
                break;
            case 2:
                pair.str += other.str;
                pair.text += Text(other.text);
                break;
            case 3:
                pair.str += word.c_str();
                pair.text += word;
                break;
            case 4:
                pair.str += Letter(m_chLast);
                pair.text += m_chLast;
                break;
            case 5:
                pair.str = other.str.Mid(nIndex, Number(0, 5, m_nLast));
                pair.text = Cut(other.text, nIndex, m_nLast);
                break;
            case 6:
                pair.str = other.str.Left(nIndex);
                pair.text = Cut(other.text, 0, std::max(nIndex, 0));
                break;
            case 7: {
                const std::size_t nCount = std::min(static_cast<std::size_t>(std::max(nIndex, 0)), other.text.size());
                pair.str = other.str.Right(nIndex);
                pair.text = Text(other.text.substr(other.text.size() - nCount));
                break;
            }
            case 8:
                ASSERT_EQ(pair.str.Insert(nIndex, word.c_str()), nLength + static_cast<int>(word.size()));
                pair.text.insert(nClamped, word);
                break;
            case 9:
                pair.str.Insert(nIndex, Letter(m_chLast));
                pair.text.insert(nClamped, 1, m_chLast);
                break;
            case 10: {
                const Text from = Word().substr(0, 2);
                ASSERT_EQ(pair.str.Replace(from.c_str(), word.c_str()), ReplaceAll(pair.text, from, word));
                break;
            }
            case 11:
                pair.str.SetAt(nIndex, Letter(m_chLast));
                if (nIndex >= 0 && nIndex < nLength) {
                    pair.text[static_cast<std::size_t>(nIndex)] = m_chLast;
                }
                break;
            case 12:
                ASSERT_EQ(pair.str.Find(word.c_str(), nIndex), FindFrom(pair.text, word, nIndex));
                Letter(m_chLast);
                ASSERT_EQ(pair.str.Find(m_chLast, nIndex), FindFrom(pair.text, Text(1, m_chLast), nIndex));
                break;
            case 13:
                Letter(m_chLast);
                ASSERT_EQ(pair.str.ReverseFind(m_chLast), static_cast<int>(pair.text.rfind(m_chLast)));
                break;
            case 14:
                ASSERT_EQ(Sign(pair.str.Compare(other.str.GetString())), Sign(pair.text.compare(other.text)));
                break;
            case 15: {
                // A direct write into requested room.
                Char* const pch = pair.str.GetBuffer(nLength + 4);
                std::copy(word.begin(),
                          word.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(word.size(), 4)),
                          pch + nLength);
                const int nNew = nLength + static_cast<int>(std::min<std::size_t>(word.size(), 4));
                pair.str.ReleaseBuffer(nNew);
                pair.text += word.substr(0, 4);
                break;
            }
            case 16:
                // The next append may use this room.
                pair.str.GetBuffer(nLength + Number(0, 8));
                break;
            case 17:
                pair.str = pair.str.GetString() + nClamped;
                pair.text = Text(pair.text.substr(nClamped));
                break;
            default:
                pair.str.Empty();
                pair.text.clear();
                break;
        }
    }

    void Check() {
        for (const Pair& pair : m_pairs) {
            ASSERT_EQ(pair.str.GetLength(), static_cast<int>(pair.text.size()));
            ASSERT_EQ(F::Counted(pair.str), pair.text);
            ASSERT_EQ(pair.str.GetString()[pair.text.size()], 0);
            ASSERT_LE(pair.str.GetLength(), pair.str.GetAllocLength());
            long nSharers = 0;
            for (const Pair& sharer : m_pairs) {
                nSharers += sharer.str.GetData() == pair.str.GetData() ? 1 : 0;
            }
            ASSERT_EQ(F::Refs(pair.str), F::IsEmptyBlock(pair.str) ? -1 : nSharers);
        }
    }

    void Reset() {
        for (Pair& pair : m_pairs) {
            pair = Pair();
        }
    }

    int m_nOperation = -1;

private:
    Char Letter(Char& ch) { return ch = Letter(); }
    int Number(int nLeast, int nMost, int& nNumber) { return nNumber = Number(nLeast, nMost); }

    static Text Cut(const Text& text, int nFirst, int nCount) {
        const std::size_t nFrom = std::min(static_cast<std::size_t>(std::max(nFirst, 0)), text.size());
        return text.substr(nFrom, static_cast<std::size_t>(nCount));
    }
    static int FindFrom(const Text& text, const Text& what, int nStart) {
        return static_cast<int>(text.find(what, static_cast<std::size_t>(std::max(nStart, 0))));
    }
    static int ReplaceAll(Text& text, const Text& from, const Text& to) {
        int nReplaced = 0;
        std::size_t nPosition = 0;
        while (!from.empty() && (nPosition = text.find(from, nPosition)) != Text::npos) {
            text.replace(nPosition, from.size(), to);
            nPosition += to.size();
            ++nReplaced;
        }
        return nReplaced;
    }
    static int Sign(int nOrder) { return (nOrder > 0) - (nOrder < 0); }

    std::mt19937 m_random{SEED};
    std::array<Pair, 4> m_pairs;
    Char m_chLast = 0;
    int m_nLast = 0;
};
TYPED_TEST_SUITE(StringOracle, StringKinds, StringKindNames);

TYPED_TEST(StringOracle, RandomSequencesAgree) {
    for (int nSequence = 0; nSequence < SEQUENCES; ++nSequence) {
        this->Reset();
        for (int nStep = 0; nStep < STEPS; ++nStep) {
            this->Step();
            this->Check();
            if (this->HasFatalFailure()) {
                FAIL() << "sequence " << nSequence << ", step " << nStep << ", operation " << this->m_nOperation;
            }
        }
    }
}

}  // namespace
