// Allocators of object-model memory blocks and the process-wide default-allocator slot.
#pragma once

#include <cstdint>
#include <optional>

#include "common/com/comptr.h"
#include "common/com/refcounted.h"

namespace common {

/// Source of memory blocks for object-model objects.
class Allocator : public virtual IRefCounted {
public:
    /// Resizes (or, with a null `ptr`, allocates) a block; null on failure.
    virtual void* realloc(void* ptr, uint64_t size, std::optional<uint64_t> alignment = std::nullopt) = 0;
    /// Returns a block.
    virtual void free(void* ptr, std::optional<uint64_t> size = std::nullopt) = 0;

    /// A new block of `size` bytes: `realloc(nullptr, size, alignment)`.
    void* alloc(uint64_t size, std::optional<uint64_t> alignment = std::nullopt) {
        return realloc(nullptr, size, alignment);
    }
};

/// The heap allocator singleton, as a new reference.
ComPtr<Allocator> crtAllocator();
/// The allocator in the default slot, or the heap allocator when the slot is empty.
ComPtr<Allocator> defaultAllocator();
/// Puts `allocator` into the default slot; an empty handle restores the heap allocator as the default.
void setDefaultAllocator(ComPtr<Allocator> allocator);

}  // namespace common
