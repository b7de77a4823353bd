// The heap allocator and the default-allocator slot.
#include "common/utils/allocator.h"

#include <cstdlib>

#include "common/com/comclass.h"
#include "common/utils/crtallocator.h"

namespace common {

void* CrtAllocator::realloc(void* ptr, uint64_t size, std::optional<uint64_t>) { return std::realloc(ptr, size); }

void CrtAllocator::free(void* ptr, std::optional<uint64_t>) { std::free(ptr); }

namespace {
ComPtr<Allocator>& defaultSlot() {
    static ComPtr<Allocator> slot;
    return slot;
}
}  // namespace

ComPtr<Allocator> crtAllocator() {
    static ComPtr<CrtAllocator> instance = com::createInstanceSingleton<CrtAllocator, CrtAllocator>();
    // The class is known (and final) here: add the reference directly and convert at compile time rather than
    // through `as`; the result is the same, a new reference to the same object.
    CrtAllocator* allocator = instance.get();
    allocator->addRef();
    return ComPtr<Allocator>(com::TakeOwnership<Allocator>(com::cast<Allocator>(*allocator)));
}

ComPtr<Allocator> defaultAllocator() {
    const ComPtr<Allocator>& slot = defaultSlot();
    return slot ? slot : crtAllocator();
}

void setDefaultAllocator(ComPtr<Allocator> allocator) { defaultSlot() = std::move(allocator); }

}  // namespace common
