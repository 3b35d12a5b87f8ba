#include "bytes.h"

Bytes Pattern(std::size_t size, std::uint32_t seed) {
    Bytes bytes(size);
    std::uint32_t state = seed * 2654435761u + 1;
    for (std::byte& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<std::byte>(state >> 24);
    }
    return bytes;
}

Bytes operator+(std::span<const std::byte> first, std::span<const std::byte> second) {
    Bytes both(first.begin(), first.end());
    both.insert(both.end(), second.begin(), second.end());
    return both;
}
