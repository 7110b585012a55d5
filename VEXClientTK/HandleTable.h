// Handles of shared objects. A handle is a number, not a pointer. No number is used twice, so a stale or invented
// handle finds nothing. A removed object lives until the last call on it has returned.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "VEXType.h"

namespace vextk {

// Any thread may call any member.
template <typename T>
class HandleTable {
public:
    // nFirst: the number of the first handle. Tables start far apart, so that no table accepts another one's handles.
    explicit HandleTable(std::uintptr_t nFirst) : m_nNext(nFirst) {}

    HANDLE Add(std::shared_ptr<T> pObject) {
        const CVEXLock lock(m_mutex);
        if (m_spare.empty()) {
            m_objects.emplace(m_nNext, std::move(pObject));
        } else {
            m_spare.key() = m_nNext;
            m_spare.mapped() = std::move(pObject);
            m_objects.insert(std::move(m_spare));
        }
        const std::uintptr_t nHandle = m_nNext;
        m_nNext += kStep;
        return reinterpret_cast<HANDLE>(nHandle);
    }

    // Null: the handle names no object.
    std::shared_ptr<T> Find(HANDLE hObject) const {
        const CVEXLock lock(m_mutex);
        const auto found = m_objects.find(reinterpret_cast<std::uintptr_t>(hObject));
        return found == m_objects.end() ? nullptr : found->second;
    }

    // Takes the object out of the table and returns it. Null: the handle names no object.
    std::shared_ptr<T> Remove(HANDLE hObject) {
        const CVEXLock lock(m_mutex);
        auto node = m_objects.extract(reinterpret_cast<std::uintptr_t>(hObject));
        if (node.empty()) {
            return nullptr;
        }
        std::shared_ptr<T> pObject = std::move(node.mapped());
        m_spare = std::move(node);
        return pObject;
    }

    // Called before a fork, and after it in the parent and in the child. The child finds the table complete and
    // unlocked.
    void LockForFork() VEX_ACQUIRE(m_mutex) { m_mutex.Enter(); }
    void UnlockAfterFork() VEX_RELEASE(m_mutex) { m_mutex.Leave(); }

    // For fork handlers, between these two calls.
    template <typename Function>
    void ForEach(Function function) VEX_REQUIRES(m_mutex) {
        for (const auto& [nHandle, pObject] : m_objects) {
            function(*pObject);
        }
    }

    // Calls function with the table locked, so function must not use the table.
    template <typename Function>
    void ForEachLocked(Function function) {
        const CVEXLock lock(m_mutex);
        ForEach(function);
    }

private:
    // Multiples of 4, like the platform's handles: never 0 and never all ones.
    static constexpr std::uintptr_t kStep = 4;

    using Map = std::unordered_map<std::uintptr_t, std::shared_ptr<T>>;

    mutable CVEXMutex m_mutex;
    std::uintptr_t m_nNext VEX_GUARDED_BY(m_mutex);
    Map m_objects VEX_GUARDED_BY(m_mutex);
    // Of the object removed last. Add uses it again, because the log opens and closes its file for every record.
    typename Map::node_type m_spare VEX_GUARDED_BY(m_mutex);
};

}  // namespace vextk
