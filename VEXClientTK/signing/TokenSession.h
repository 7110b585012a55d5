// A session of a token, borrowed from a connection. For one thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "signing/TokenConnection.h"

namespace vextk {

// The destructor returns the session to the connection.
class TokenSession {
public:
    explicit TokenSession(TokenConnection& connection) : m_connection(connection), m_hSession(connection.Take()) {}
    ~TokenSession() { m_connection.Return(m_hSession, m_bUsable); }
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    TokenConnection& Owner() const { return m_connection; }
    CK_SESSION_HANDLE Handle() const { return m_hSession; }

    template <typename Function>
    CK_RV Call(Function function) const {
        return m_connection.Module().Call([&](auto& functions) { return function(functions, m_hSession); });
    }

    template <typename Function>
    CK_RV CallParallel(Function function) const {
        return m_connection.Module().CallParallel([&](auto& functions) { return function(functions, m_hSession); });
    }

    void NoteUsable() { m_bUsable = true; }

    // The objects that have all these attributes.
    std::vector<CK_OBJECT_HANDLE> Find(std::vector<CK_ATTRIBUTE> attributes) const;

    // The bytes of an attribute; nothing if the object does not have it or does not show it.
    std::optional<std::string> Attribute(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType);

    template <typename T>
    std::optional<T> Number(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType) {
        const std::optional<std::string> bytes = Attribute(hObject, nType);
        T number{};
        if (!bytes || bytes->size() != sizeof number) {
            return std::nullopt;
        }
        bytes->copy(reinterpret_cast<char*>(&number), sizeof number);
        return number;
    }

    // Also true if the token does not say: then signing will tell.
    bool MaySign(CK_OBJECT_HANDLE hKey) { return Number<CK_BBOOL>(hKey, CKA_SIGN).value_or(CK_TRUE) != CK_FALSE; }

private:
    TokenConnection& m_connection;
    const CK_SESSION_HANDLE m_hSession;
    bool m_bUsable = false;
    size_t m_cbRead = 0;  // in all attributes
};

}  // namespace vextk
