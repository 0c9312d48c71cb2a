// Changes an arena's bytes, one store at a time.
//
// Whoever repairs an arena may be killed at any instruction, and somebody else then repairs what is
// left. So every change is a single aligned store, and the compiler may neither join two of them
// nor change their order.
#pragma once

#include "view.h"

class ArenaEditor : public ArenaView {
public:
    explicit ArenaEditor(std::span<std::byte> bytes) : ArenaView(bytes), bytes_(bytes.data()) {}

    // The place must lie in the span, on a boundary of its own size.
    template <class T>
    void store(uint64_t offset, std::type_identity_t<T> value) {
        static_assert(sizeof(T) == 4 || sizeof(T) == 8);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        __atomic_store_n(reinterpret_cast<T *>(bytes_ + offset), value, __ATOMIC_RELAXED);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    }

private:
    std::byte *bytes_;
};
