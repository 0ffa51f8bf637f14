#pragma once
// A libFuzzer input read front to back; past its end every byte reads as 0.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// A finding: what went wrong on standard error, then abort() for libFuzzer.
inline void FuzzCheck(bool condition, const std::string& what) {
    if (condition) return;
    std::fprintf(stderr, "fuzz check failed: %s\n", what.c_str());
    std::abort();
}

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Done() const { return m_at >= m_size; }
    uint8_t Byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    // `bytes` bytes, little-endian.
    uint64_t Number(size_t bytes) {
        uint64_t value = 0;
        for (size_t i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(Byte()) << (8 * i);
        return value;
    }
    // Up to `most` bytes, fewer where the input ends.
    std::vector<uint8_t> Take(size_t most) {
        const size_t n = m_at + most <= m_size ? most : m_size - m_at;
        std::vector<uint8_t> bytes(m_data + m_at, m_data + m_at + n);
        m_at += n;
        return bytes;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};
