// The owning handle of object-model objects.
//
//   common::ComPtr<zel::RawInputDriver> driver = zel::RawInputDriver::create();  // born with one reference
//   common::ComPtr<zel::RawInputDriver> copy = driver;                           // addRef
//   common::ComPtr<IRefCounted> base = driver;             // converting copy: asks the object through `as`
//   IRefCounted* raw = base.giveup();                      // the caller now owns that reference
//   common::ComPtr<IRefCounted> again{common::com::TakeOwnership<IRefCounted>(raw)};  // adopted, no addRef
#pragma once

#include <cstddef>
#include <typeinfo>
#include <utility>

#include "common/com/refcounted.h"
#include "common/diagnostics/log.h"
#include "common/diagnostics/runtimecheck.h"

namespace common::com {

/// Tells the `ComPtr` constructor to adopt a reference instead of adding one.
template <typename T>
struct TakeOwnership {
    explicit TakeOwnership(T* pointer) : m_pointer(pointer) {}
    T* m_pointer;
};

}  // namespace common::com

namespace common::com_internal {

inline constexpr const char* kComPtrFile = "../common/include/common/com/comptr";

/// The object's `IRefCounted` view, adjusted through the virtual base (no run-time test).
template <typename T>
IRefCounted& asRefCounted(T& object) {
    return static_cast<IRefCounted&>(object);
}

}  // namespace common::com_internal

namespace common {

/// Owns one strong reference to an object-model object whenever it is non-null.
template <typename T>
class ComPtr {
public:
    using element_type = T;

    ComPtr() = default;
    ComPtr(std::nullptr_t) {}                                             // NOLINT(google-explicit-constructor)
    ComPtr(com::TakeOwnership<T> owned) : m_instance(owned.m_pointer) {}  // NOLINT(google-explicit-constructor)
    ComPtr(const ComPtr& other) : m_instance(other.m_instance) {
        if (m_instance)
            com_internal::asRefCounted(*m_instance).addRef();
    }
    /// Asks the other handle's object for `T`; stays empty (with a warning) when it does not answer.
    template <typename U>
    ComPtr(const ComPtr<U>& other) {  // NOLINT(google-explicit-constructor)
        acquire<U>(other.get());
    }
    ComPtr(ComPtr&& other) noexcept : m_instance(other.giveup()) {}
    ~ComPtr() { release(); }

    ComPtr& operator=(const ComPtr& other) {
        acquire(other.m_instance);
        return *this;
    }
    ComPtr& operator=(ComPtr&& other) noexcept {
        moveAcquire(other.giveup());
        return *this;
    }

    T* get() const { return m_instance; }
    explicit operator bool() const { return m_instance != nullptr; }
    T* operator->() const {
        COMMON_CHECK_AT(com_internal::kComPtrFile, __LINE__, m_instance, "ComPtr<%1> is not dereferencible", typeid(T));
        return m_instance;
    }
    T& operator*() const { return *operator->(); }

    /// Returns the pointer and leaves the handle empty without releasing.
    [[nodiscard]] T* giveup() { return std::exchange(m_instance, nullptr); }

    /// Empties the handle first, then releases the reference it held.
    void release() {
        if (T* instance = std::exchange(m_instance, nullptr))
            com_internal::asRefCounted(*instance).release();
    }

    /// Holds `pointer` with a new reference; safe when it is the object already held.
    void acquire(T* pointer) {
        T* old = m_instance;
        m_instance = pointer;
        if (pointer)
            com_internal::asRefCounted(*pointer).addRef();
        if (old)
            com_internal::asRefCounted(*old).release();
    }

    /// Holds `pointer`'s `T` view (asked through `IAnything::as`) with a new reference.
    template <typename U>
    void acquire(U* pointer) {
        release();
        if (!pointer)
            return;
        if (T* instance = static_cast<IAnything&>(*pointer).template as<T*>()) {
            m_instance = instance;
            com_internal::asRefCounted(*instance).addRef();
            return;
        }
        COMMON_LOG_AT(diagnostics::Log::Level::Warning, com_internal::kComPtrFile, __LINE__,
                      "Expected API not exposed: (%2). Source type (%1)", typeid(U), typeid(T));
    }

    /// Releases what is held, then adopts `pointer` without adding a reference.
    void moveAcquire(T* pointer) {
        release();
        m_instance = pointer;
    }

    void reset(T* pointer = nullptr) { acquire(pointer); }

    friend bool operator==(const ComPtr& a, const ComPtr& b) { return a.m_instance == b.m_instance; }
    friend bool operator==(const ComPtr& a, std::nullptr_t) { return a.m_instance == nullptr; }

private:
    T* m_instance = nullptr;
};

}  // namespace common
