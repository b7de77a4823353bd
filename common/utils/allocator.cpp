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
    return ComPtr<Allocator>(instance);
}

ComPtr<Allocator> defaultAllocator() {
    const ComPtr<Allocator>& slot = defaultSlot();
    return slot ? slot : crtAllocator();
}

void setDefaultAllocator(ComPtr<Allocator> allocator) { defaultSlot() = std::move(allocator); }

}  // namespace common
