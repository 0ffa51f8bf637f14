#pragma once
// Builds one kernel ring-buffer page the way trace_pipe_raw hands it out on a
// 64-bit little-endian kernel: an 8-byte time stamp, an 8-byte commit word
// (data length plus the missed-events flags), then the records.

#include <cstddef>
#include <cstdint>
#include <vector>

class RingBufferPage {
public:
    // Where a record landed, as a reader of the page must see it.
    struct Placed {
        size_t header_offset;  // of the record header, from the start of the page
        size_t header_size;    // 4, or 8 when the length needs a word of its own
        size_t data_size;      // payload rounded up to 4 bytes
        uint64_t timestamp;    // page time stamp plus every delta up to this record
    };

    explicit RingBufferPage(uint64_t timestamp);

    // A data record; payloads over 112 bytes get the long (type_len 0) header.
    Placed add_event(uint32_t delta, const std::vector<uint8_t>& payload);
    // A time-extend record that moves the clock by `delta` without data.
    void add_time_extend(uint64_t delta);
    // Marks the page as having lost `count` events before its first record.
    void set_missed_events(uint64_t count) { m_missed = count; }

    // The page as bytes: header, records, the stored missed count, then zeros
    // up to `size` (never less than what was written).
    std::vector<uint8_t> bytes(size_t size) const;
    size_t used() const;

private:
    void put32(uint32_t value);

    uint64_t m_page_timestamp;
    uint64_t m_clock;
    uint64_t m_missed = 0;
    std::vector<uint8_t> m_data;
};
