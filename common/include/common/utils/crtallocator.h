// The allocator over the C library heap.
#pragma once

#include "common/com/comclass.h"
#include "common/utils/allocator.h"

namespace common {

/// The C library heap; alignment requests and sizes are ignored. Its one instance is `crtAllocator()`.
class CrtAllocator final : public Allocator {
    COMMON_COM_CLASS(CrtAllocator, ConcurrentRC, Allocator)

    void* realloc(void* ptr, uint64_t size, std::optional<uint64_t> alignment = std::nullopt) override;
    void free(void* ptr, std::optional<uint64_t> size = std::nullopt) override;
};

}  // namespace common
