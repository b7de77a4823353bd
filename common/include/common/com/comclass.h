// Class storage: one block per object holding its shared state (counts, weak side) and the object;
// interface casts over a class's declared list; creation into `ComPtr`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "common/com/comptr.h"
#include "common/com/refcounted.h"
#include "common/utils/allocator.h"
#include "common/utils/functor.h"

namespace common::com_internal {

inline constexpr const char* kComClassFile = "../common/include/common/com/comclass";

/// The alignment of every block and the largest object alignment the storage supports.
inline constexpr size_t kBlockAlignment = 16;

template <typename RC>
class ComClassStorage;

/// The control block in front of every object: strong and weak counts, the block's allocator and size.
/// `m_stateRC` counts the references to the block, one per strong reference plus one per weak reference.
template <typename RC>
class alignas(kBlockAlignment) ComClassSharedState final : public IWeakReference {
public:
    ComClassSharedState(ComPtr<Allocator> allocator, IRefCounted* (*acquire)(void*), void (*destructor)(void*),
                        uint64_t size)
        : m_allocator(std::move(allocator)), m_acquire(acquire), m_destructor(destructor), m_size(size) {
        COMMON_CHECK_AT(kComClassFile, __LINE__, m_acquire);
        COMMON_CHECK_AT(kComClassFile, __LINE__, m_destructor);
    }

    void addInstanceRef() {
        m_instanceRC.addRef();
        m_stateRC.addRef();
    }
    void releaseInstanceRef() {
        if (m_instanceRC.removeRef() == 1)
            m_destructor(instance());
        releaseStorageRef();
    }
    IWeakReference* acquireWeakRef() {
        m_stateRC.addRef();
        return this;
    }
    uint32_t instanceRefsCount() const { return refsCount(m_instanceRC); }

    void addWeakRef() override { m_stateRC.addRef(); }
    void release() override { releaseStorageRef(); }
    IRefCounted* acquire() override {
        if (!tryAddRef(m_instanceRC))
            return nullptr;
        m_stateRC.addRef();
        return m_acquire(instance());
    }
    bool isDead() const override {
        COMMON_CHECK_AT(kComClassFile, __LINE__, !m_stateRC.noRefs());
        return m_instanceRC.noRefs();
    }

    /// Drops one reference to the block; the last one destroys the state and frees the block.
    void releaseStorageRef() {
        if (m_stateRC.removeRef() != 1)
            return;
        COMMON_CHECK_AT(kComClassFile, __LINE__, m_stateRC.noRefs());
        COMMON_CHECK_AT(kComClassFile, __LINE__, m_instanceRC.noRefs());
        ComPtr<Allocator> allocator = std::move(m_allocator);
        const uint64_t size = m_size;
        void* block = this;
        this->~ComClassSharedState();
        if (allocator)
            allocator->free(block, size);
    }

private:
    void* instance() { return ComClassStorage<RC>::instancePtr(*this); }

    ComPtr<Allocator> m_allocator;
    IRefCounted* (*m_acquire)(void*);
    void (*m_destructor)(void*);
    uint64_t m_size;
    RC m_stateRC;
    RC m_instanceRC;
};

}  // namespace common::com_internal

namespace common::com {

/// Compile-time conversion of an object to an interface or base it declares (or `IAnything`, `IRefCounted`).
template <typename Itf, typename T>
Itf* cast(T& object) {
    return static_cast<Itf*>(&object);
}

}  // namespace common::com

namespace common::com_internal {

/// The interface list a class declares itself (not one inherited from a base), or an empty list.
template <typename T, typename = void>
struct DeclaredInterfaces {
    using type = TypeList<>;
};
template <typename T>
struct DeclaredInterfaces<T, std::enable_if_t<std::is_same_v<typename T::ComSelf__, T>>> {
    using type = typename T::ComInterfaces__;
};

template <typename T, typename List = typename DeclaredInterfaces<T>::type>
struct InterfaceWalk;

/// Depth-first walk over a class's declared interfaces and theirs.
template <typename T, typename... Bases>
struct InterfaceWalk<T, TypeList<Bases...>> {
    /// True when `type` is one of the declared bases, flattened recursively (the class itself excluded).
    static bool declares(const std::type_info& type) {
        return ((type == typeid(Bases) || InterfaceWalk<Bases>::declares(type)) || ...);
    }
    /// The object as `type`: its own type first, then each declared base, depth first.
    static void* find(T& object, const std::type_info& type) {
        if (type == typeid(T))
            return static_cast<void*>(&object);
        void* result = nullptr;
        (void)((result = InterfaceWalk<Bases>::find(static_cast<Bases&>(object), type)) || ...);
        return result;
    }
};

template <typename T, typename... Bases>
void* rtCast__(T& object, const std::type_info& type) {
    return InterfaceWalk<T, TypeList<Bases...>>::find(object, type);
}

}  // namespace common::com_internal

namespace common::com {

/// Whether a class answers `is(type)`: `IAnything`, `IRefCounted` or a declared interface.
template <typename T>
bool rtIs(const std::type_info& type) {
    return type == typeid(IAnything) || type == typeid(IRefCounted) || com_internal::InterfaceWalk<T>::declares(type);
}

/// `object` viewed as `type`, or null: `IAnything`, `IRefCounted`, the class itself, its declared interfaces.
template <typename T>
void* rtCast(T& object, const std::type_info& type) {
    if (type == typeid(IAnything))
        return cast<IAnything>(object);
    if (type == typeid(IRefCounted))
        return cast<IRefCounted>(object);
    return com_internal::InterfaceWalk<T>::find(object, type);
}

}  // namespace common::com

namespace common::com_internal {

/// Places objects of policy `RC` into blocks: the shared state first, the object right after it.
template <typename RC>
class ComClassStorage {
public:
    using SharedState = ComClassSharedState<RC>;

    /// Size of the block holding an object of type `T`.
    template <typename T>
    static constexpr uint64_t blockSize() {
        static_assert(alignof(T) <= kBlockAlignment, "object alignment above the block alignment");
        static_assert(sizeof(SharedState) % alignof(T) == 0);
        return sizeof(SharedState) + sizeof(T);
    }

    /// Creates with the process default allocator.
    template <typename T, typename... Args>
    static T* createInstance(Args&&... args) {
        return createInstance__<T>(nullptr, defaultAllocator(), std::forward<Args>(args)...);
    }

    /// Creates inside caller-supplied storage, which is never freed.
    template <typename T, typename Storage>
    static T* createInstanceInplace(Storage& storage) {
        return createInstance__<T>(static_cast<void*>(&storage), ComPtr<Allocator>());
    }

    /// Creates from exactly one memory source; null when the allocator gives no block.
    template <typename T, typename... Args>
    static T* createInstance__(void* inplaceMemBlock, ComPtr<Allocator> allocator, Args&&... args) {
        COMMON_CHECK_AT(kComClassFile, __LINE__, (!inplaceMemBlock && allocator) || (inplaceMemBlock && !allocator));
        constexpr uint64_t size = blockSize<T>();
        void* block = allocator ? allocator->alloc(size) : inplaceMemBlock;
        if (!block)
            return nullptr;
        auto* state = new (block) SharedState(std::move(allocator), &acquire__<T>, &destroy__<T>, size);
        return new (instancePtr(*state)) T(std::forward<Args>(args)...);
    }

    static void* instancePtr(SharedState& state) { return reinterpret_cast<char*>(&state) + sizeof(SharedState); }

    template <typename T>
    static SharedState& sharedState(const T& object) {
        return *reinterpret_cast<SharedState*>(const_cast<char*>(reinterpret_cast<const char*>(&object)) -
                                               sizeof(SharedState));
    }

private:
    template <typename T>
    static IRefCounted* acquire__(void* object) {
        IRefCounted* refCounted = com::cast<IRefCounted>(*static_cast<T*>(object));
        // Reported as the call operator of the acquire callable this function stands for.
        COMMON_CHECK_IN("operator()", kComClassFile, __LINE__, refCounted, "Runtime cast (%1) -> IRefCounted failed",
                        typeid(T));
        return refCounted;
    }
    template <typename T>
    static void destroy__(void* object) {
        static_cast<T*>(object)->~T();
    }
};

}  // namespace common::com_internal

namespace common::com {

/// Creates a `T` with its own policy and the default allocator; the handle adopts the birth reference.
template <typename T, typename Itf, typename... Args>
ComPtr<Itf> createInstance(Args&&... args) {
    using Storage = com_internal::ComClassStorage<typename T::ComPolicy__>;
    T* object = Storage::template createInstance<T>(std::forward<Args>(args)...);
    Itf* itf = object ? cast<Itf>(*object) : nullptr;
    COMMON_CHECK_AT(com_internal::kComClassFile, __LINE__, itf);
    return ComPtr<Itf>(TakeOwnership<Itf>(itf));
}

/// Creates a `T` inside `storage` (never freed); the handle adopts the birth reference.
template <typename T, typename Itf, typename Storage>
ComPtr<Itf> createInstanceInplace(Storage& storage) {
    using ClassStorage = com_internal::ComClassStorage<typename T::ComPolicy__>;
    static_assert(sizeof(Storage) >= ClassStorage::template blockSize<T>(), "storage too small");
    T* object = ClassStorage::template createInstanceInplace<T>(storage);
    Itf* itf = object ? cast<Itf>(*object) : nullptr;
    COMMON_CHECK_AT(com_internal::kComClassFile, __LINE__, itf);
    return ComPtr<Itf>(TakeOwnership<Itf>(itf));
}

/// Creates the one `T` of the process in a static storage area of its own; call it once per class.
template <typename T, typename Itf>
ComPtr<Itf> createInstanceSingleton() {
    using ClassStorage = com_internal::ComClassStorage<typename T::ComPolicy__>;
    struct alignas(com_internal::kBlockAlignment) Storage {
        unsigned char bytes[ClassStorage::template blockSize<T>()];
    };
    static Storage storage;
    return createInstanceInplace<T, Itf>(storage);
}

}  // namespace common::com

/// Declares, inside an abstract class, the interfaces and bases it builds on (for `is`/`as`).
#define COMMON_COM_BASES(Self, ...) \
public:                             \
    using ComSelf__ = Self;         \
    using ComInterfaces__ = ::common::TypeList<__VA_ARGS__>

/// Declares, inside a concrete class, its reference-count policy and its interface list, and implements
/// the `IAnything` and `IRefCounted` entry points over its shared state.
#define COMMON_COM_CLASS(Self, Policy, ...)                                                            \
public:                                                                                                \
    using ComSelf__ = Self;                                                                            \
    using ComPolicy__ = Policy;                                                                        \
    using ComInterfaces__ = ::common::TypeList<__VA_ARGS__>;                                           \
    using IAnything::as;                                                                               \
    bool is(const std::type_info& type) const override { return ::common::com::rtIs<Self>(type); }     \
    void* as(const std::type_info& type) override { return ::common::com::rtCast<Self>(*this, type); } \
    void addRef() override { comSharedState__().addInstanceRef(); }                                    \
    void release() override { comSharedState__().releaseInstanceRef(); }                               \
    IWeakReference* getWeakRef() override { return comSharedState__().acquireWeakRef(); }              \
    uint32_t refsCount() const override { return comSharedState__().instanceRefsCount(); }             \
                                                                                                       \
private:                                                                                               \
    ::common::com_internal::ComClassSharedState<Policy>& comSharedState__() const {                    \
        return ::common::com_internal::ComClassStorage<Policy>::sharedState(*this);                    \
    }                                                                                                  \
                                                                                                       \
public:
