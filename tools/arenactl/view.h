// Bounded reads of an arena's bytes.
//
// Nothing here can leave the span: a read that would is answered with zeros, which mean "none"
// everywhere in the format. Callers that must tell the two apart ask holds() first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

class ArenaView {
public:
    explicit ArenaView(std::span<const std::byte> bytes) : bytes_(bytes) {}

    uint64_t size() const { return bytes_.size(); }
    std::span<const std::byte> bytes() const { return bytes_; }

    bool holds(uint64_t offset, uint64_t length) const {
        return offset <= size() && length <= size() - offset;
    }

    template <class T>
    T load(uint64_t offset) const {
        static_assert(std::is_trivially_copyable_v<T>);
        T value{};
        if (holds(offset, sizeof(T))) std::memcpy(&value, bytes_.data() + offset, sizeof(T));
        return value;
    }

    const char *text(uint64_t offset) const {
        return reinterpret_cast<const char *>(bytes_.data()) + offset;
    }

private:
    std::span<const std::byte> bytes_;
};
