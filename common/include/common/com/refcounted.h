// Root interfaces of the object model and the three reference-count policies.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <typeinfo>

#include "common/diagnostics/runtimecheck.h"

struct IWeakReference;

/// The root of every object-model interface: destruction and run-time interface queries.
struct IAnything {
    virtual ~IAnything() = default;
    /// True when the object declares the interface `type` (its own concrete type excluded).
    virtual bool is(const std::type_info& type) const = 0;
    /// The object viewed as `type`, or null.
    virtual void* as(const std::type_info& type) = 0;

    /// Typed form of `as`: `object->as<IFoo*>()`.
    template <typename P>
    P as() {
        static_assert(std::is_pointer_v<P>, "as<P>() takes a pointer type");
        return static_cast<P>(as(typeid(std::remove_cv_t<std::remove_pointer_t<P>>)));
    }
};

/// Strong and weak reference counting; every interface of the system derives from it virtually.
struct IRefCounted : public virtual IAnything {
    virtual void addRef() = 0;
    virtual void release() = 0;
    /// A new weak reference, owned by the caller.
    virtual IWeakReference* getWeakRef() = 0;
    virtual uint32_t refsCount() const = 0;
};

/// A weak reference to an object-model object; implemented only by the class shared state.
struct IWeakReference {
    virtual void addWeakRef() = 0;
    virtual void release() = 0;
    /// A new strong reference owned by the caller, or null once the object is dead.
    virtual IRefCounted* acquire() = 0;
    virtual bool isDead() const = 0;

protected:
    ~IWeakReference() = default;
};

namespace common {

/// Marks objects that need an explicit disposal when their script wrapper dies.
struct Disposable {
    virtual void dispose() = 0;

protected:
    virtual ~Disposable() = default;
};

namespace com_internal {
inline constexpr const char* kRefCountedFile = "../common/include/common/com/refcounted";
}

/// Unsynchronised count for objects used from one thread at a time.
struct SingleThreadRC {
    /// Increments; returns the count before.
    uint32_t addRef() {
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_counter > 0);
        return m_counter++;
    }
    /// Decrements; returns the count before.
    uint32_t removeRef() {
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_counter > 0);
        return m_counter--;
    }
    bool noRefs() const { return m_counter == 0; }

    uint32_t m_counter = 1;
};

/// Atomic, sequentially consistent count, safe from any thread.
struct ConcurrentRC {
    uint32_t addRef() {
        const uint32_t prev = m_counter.fetch_add(1);
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, prev > 0);
        return prev;
    }
    uint32_t removeRef() {
        const uint32_t prev = m_counter.fetch_sub(1);
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, prev > 0);
        return prev;
    }
    bool noRefs() const { return m_counter.load() == 0; }
    /// Increments unless the count is 0; never revives a dead count.
    bool tryAddRef() {
        uint32_t value = m_counter.load();
        while (value != 0) {
            if (m_counter.compare_exchange_weak(value, value + 1))
                return true;
        }
        return false;
    }

    std::atomic<uint32_t> m_counter{1};
};

/// Unsynchronised count bound to the thread that constructed it; every operation checks that thread.
struct StrictSingleThreadRC {
    uint32_t addRef() {
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_ownerThreadId == std::this_thread::get_id());
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_counter > 0);
        return m_counter++;
    }
    uint32_t removeRef() {
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_ownerThreadId == std::this_thread::get_id());
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_counter > 0);
        return m_counter--;
    }
    bool noRefs() const {
        COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, m_ownerThreadId == std::this_thread::get_id());
        return m_counter == 0;
    }

    uint32_t m_counter = 1;
    std::thread::id m_ownerThreadId = std::this_thread::get_id();
};

/// The current count.
inline uint32_t refsCount(const SingleThreadRC& rc) { return rc.m_counter; }
inline uint32_t refsCount(const ConcurrentRC& rc) { return rc.m_counter.load(); }
inline uint32_t refsCount(const StrictSingleThreadRC& rc_) {
    COMMON_CHECK_AT(com_internal::kRefCountedFile, __LINE__, rc_.m_ownerThreadId == std::this_thread::get_id());
    return rc_.m_counter;
}

/// Increments only a count that is not 0; returns whether it did.
template <typename RC>
bool tryAddRef(RC& rc) {
    if (rc.noRefs())
        return false;
    rc.addRef();
    return true;
}
inline bool tryAddRef(ConcurrentRC& rc) { return rc.tryAddRef(); }

}  // namespace common
