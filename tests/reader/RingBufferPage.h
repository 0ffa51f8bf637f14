#pragma once
// One ring-buffer page as trace_pipe_raw hands it out on a 64-bit
// little-endian kernel: 8-byte time stamp, 8-byte commit word (data length,
// bit 31 "events were lost", bit 30 "their count is stored after the data"),
// then the records, each a 32-bit header (type_len:5, time_delta:27) and data.

#include <cstdint>
#include <cstring>
#include <vector>

struct RingBufferPage {
    explicit RingBufferPage(uint64_t timestamp, uint64_t missed = 0) : timestamp(timestamp), missed(missed) {}

    uint64_t timestamp;
    uint64_t missed;  // events lost before this page
    std::vector<uint8_t> records;

    void word(uint32_t value) { append(&value, sizeof value); }
    // Payloads up to 112 bytes fit type_len; longer ones take type_len 0 and a length word.
    void event(uint32_t delta, std::vector<uint8_t> payload) {
        payload.resize((payload.size() + 3) & ~size_t{3});
        if (payload.size() <= 112) {
            word(static_cast<uint32_t>(payload.size() / 4) | delta << 5);
        } else {
            word(delta << 5);
            word(static_cast<uint32_t>(payload.size() + 4));
        }
        append(payload.data(), payload.size());
    }
    void time_extend(uint64_t delta) {
        word(30u | static_cast<uint32_t>(delta & ((1u << 27) - 1)) << 5);
        word(static_cast<uint32_t>(delta >> 27));
    }
    // Zero-padded to `size`; `size` 0 gives only what was written.
    std::vector<uint8_t> bytes(size_t size = 0) const {
        RingBufferPage page(0);
        const uint64_t commit = records.size() | (missed ? 3ULL << 30 : 0);
        page.append(&timestamp, 8);
        page.append(&commit, 8);
        page.append(records.data(), records.size());
        if (missed) page.append(&missed, 8);
        if (page.records.size() < size) page.records.resize(size, 0);
        return page.records;
    }

private:
    void append(const void* p, size_t n) {
        records.insert(records.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
    }
};
