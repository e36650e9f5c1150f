// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Choices from a byte string: what a fuzzer varies, a corpus keeps and a seed makes.
#ifndef SORVANE_FUZZ_BYTE_SOURCE_H
#define SORVANE_FUZZ_BYTE_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/// Hands out a byte string piece by piece; behind its end there are zeros.
class ByteSource {
public:
    ByteSource(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    explicit ByteSource(const Bytes& bytes) : ByteSource(bytes.data(), bytes.size()) {}

    bool moreQ() const { return m_next < m_size; }

    std::uint8_t byte() { return moreQ() ? m_data[m_next++] : std::uint8_t{0}; }

    /// A number from 0 to less than the bound, which is at most 65536.
    std::size_t below(std::size_t bound) {
        const std::size_t low = byte();
        return (bound <= 256 ? low : low + 256U * byte()) % bound;
    }

    bool flag() { return (byte() & 1U) != 0; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_next = 0;
};

/// The same bytes for the same seed, everywhere.
inline Bytes bytesFromSeed(unsigned seed, std::size_t count) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

#endif
