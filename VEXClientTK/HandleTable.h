// Handles that are not pointers: numbers under which shared objects are kept. A number is never used twice, so a stale
// or invented handle finds nothing, and an object that is removed lives on until the last call on it has returned.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "VEXType.h"

namespace vextk {

// Any thread may call any member.
template <typename T>
class HandleTable {
public:
    // nFirst: the first handle's number. Tables that start far apart do not take each other's handles for their own.
    explicit HandleTable(std::uintptr_t nFirst) : m_nNext(nFirst) {}

    HANDLE Add(std::shared_ptr<T> pObject) {
        const std::lock_guard lock(m_mutex);
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

    // Null when the handle names no object.
    std::shared_ptr<T> Find(HANDLE hObject) const {
        const std::lock_guard lock(m_mutex);
        const auto found = m_objects.find(reinterpret_cast<std::uintptr_t>(hObject));
        return found == m_objects.end() ? nullptr : found->second;
    }

    // Takes the object out and returns it; null when the handle names no object.
    std::shared_ptr<T> Remove(HANDLE hObject) {
        const std::lock_guard lock(m_mutex);
        auto node = m_objects.extract(reinterpret_cast<std::uintptr_t>(hObject));
        if (node.empty()) {
            return nullptr;
        }
        std::shared_ptr<T> pObject = std::move(node.mapped());
        m_spare = std::move(node);
        return pObject;
    }

    // Around a fork, in the thread that forks and in the one that it becomes: the new process does not find the table
    // half changed, nor locked by a thread that it has not.
    void LockForFork() { m_mutex.lock(); }
    void UnlockAfterFork() { m_mutex.unlock(); }

    // Between the two.
    template <typename Function>
    void ForEach(Function function) {
        for (const auto& [nHandle, pObject] : m_objects) {
            function(*pObject);
        }
    }

    // With the table locked: function must not use it.
    template <typename Function>
    void ForEachLocked(Function function) {
        const std::lock_guard lock(m_mutex);
        ForEach(function);
    }

private:
    // Multiples of 4, like the platform's handles: never 0 and never all ones.
    static constexpr std::uintptr_t kStep = 4;

    mutable std::mutex m_mutex;
    using Map = std::unordered_map<std::uintptr_t, std::shared_ptr<T>>;

    std::uintptr_t m_nNext;  // guarded by m_mutex, as the next two
    Map m_objects;
    typename Map::node_type m_spare;  // of the object removed last: the log opens and closes its file for every record
};

}  // namespace vextk
