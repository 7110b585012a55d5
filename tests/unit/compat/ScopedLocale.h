// Sets the locale of the process as long as the object exists.
#pragma once

#include <clocale>
#include <stdexcept>
#include <string>

class ScopedLocale {
public:
    explicit ScopedLocale(const std::string& strName) : m_strBefore(std::setlocale(LC_ALL, nullptr)) {
        if (std::setlocale(LC_ALL, strName.c_str()) == nullptr) {
            throw std::runtime_error("no locale " + strName);
        }
    }
    ~ScopedLocale() { std::setlocale(LC_ALL, m_strBefore.c_str()); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

private:
    std::string m_strBefore;
};
