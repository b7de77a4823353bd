// A mutex wrapper locked through a standard lock guard.
#pragma once

#include <mutex>

namespace common::threading {

/// `std::lock_guard<CriticalSection> lock(m_lock);`
class CriticalSection {
public:
    void lock() { m_mutex.lock(); }
    void unlock() { m_mutex.unlock(); }
    bool try_lock() { return m_mutex.try_lock(); }

private:
    std::mutex m_mutex;
};

}  // namespace common::threading
