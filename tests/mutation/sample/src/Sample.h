// Functions with a place for each kind of mutant.
#pragma once

inline constexpr int kLeast = 3;

#define SAMPLE_TWICE(n) ((n) + (n))

constexpr int Doubled(int n) {
    return n * 2;
}
static_assert(Doubled(2) == 4);

class Exact {
public:
    explicit Exact(int n) : m_n(n) {}
    int Value() const { return m_n; }

private:
    int m_n;
};

int Clamped(int n);
int Counted(const char* pszText);
Exact Wrapped(int n);
int Tested(int n);
int NotChecked(int n);
int NotExecuted(int n);
