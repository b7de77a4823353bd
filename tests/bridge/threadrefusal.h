// Makes the creation of threads sized from the stack limit fail, for as long as a ThreadRefusal lives.
#pragma once

#include <sys/resource.h>

namespace zel_test {

/// libuv sizes a new thread's stack from RLIMIT_STACK: while this object lives, the soft limit is far beyond the
/// address space, so every capture's reader thread (and any other libuv thread) cannot be created. `active()` says
/// whether the limit could be raised; the destructor restores it.
class ThreadRefusal {
public:
    ThreadRefusal() {
        constexpr rlim_t kHuge = rlim_t(1) << 46;
        if (::getrlimit(RLIMIT_STACK, &m_saved) != 0 || (m_saved.rlim_max != RLIM_INFINITY && m_saved.rlim_max < kHuge))
            return;
        rlimit huge = m_saved;
        huge.rlim_cur = kHuge;
        m_active = ::setrlimit(RLIMIT_STACK, &huge) == 0;
    }
    ~ThreadRefusal() {
        if (m_active)
            ::setrlimit(RLIMIT_STACK, &m_saved);
    }
    ThreadRefusal(const ThreadRefusal&) = delete;
    ThreadRefusal& operator=(const ThreadRefusal&) = delete;

    bool active() const { return m_active; }

private:
    rlimit m_saved{};
    bool m_active = false;
};

}  // namespace zel_test
