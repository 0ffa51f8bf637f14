#include "RingBufferPage.h"

#include <cstring>
#include <stdexcept>

namespace {
constexpr size_t kPageHeaderSize = 16;
constexpr size_t kMaxSmallData = 28 * 4;  // largest payload type_len can describe
constexpr uint32_t kTypeTimeExtend = 30;
constexpr int kTimeDeltaShift = 27;
constexpr uint64_t kMissedEvents = 1ULL << 31;
constexpr uint64_t kMissedStored = 1ULL << 30;

void append(std::vector<uint8_t>& out, const void* bytes, size_t count) {
    const auto* p = static_cast<const uint8_t*>(bytes);
    out.insert(out.end(), p, p + count);
}
}  // namespace

RingBufferPage::RingBufferPage(uint64_t timestamp) : m_page_timestamp(timestamp), m_clock(timestamp) {}

void RingBufferPage::put32(uint32_t value) { append(m_data, &value, sizeof value); }

RingBufferPage::Placed RingBufferPage::add_event(uint32_t delta, const std::vector<uint8_t>& payload) {
    if (delta >= (1u << kTimeDeltaShift)) throw std::invalid_argument("delta needs a time extend");
    Placed placed{};
    placed.header_offset = kPageHeaderSize + m_data.size();
    placed.data_size = (payload.size() + 3) & ~size_t{3};
    if (placed.data_size <= kMaxSmallData && !payload.empty()) {
        put32(static_cast<uint32_t>(placed.data_size / 4) | (delta << 5));
        placed.header_size = 4;
    } else {
        // type_len 0: the next word holds the data length plus itself.
        put32(delta << 5);
        put32(static_cast<uint32_t>(placed.data_size + 4));
        placed.header_size = 8;
    }
    append(m_data, payload.data(), payload.size());
    m_data.resize(m_data.size() + (placed.data_size - payload.size()), 0);
    m_clock += delta;
    placed.timestamp = m_clock;
    return placed;
}

void RingBufferPage::add_time_extend(uint64_t delta) {
    const uint32_t low = static_cast<uint32_t>(delta & ((1u << kTimeDeltaShift) - 1));
    put32(kTypeTimeExtend | (low << 5));
    put32(static_cast<uint32_t>(delta >> kTimeDeltaShift));
    m_clock += delta;
}

size_t RingBufferPage::used() const { return kPageHeaderSize + m_data.size() + (m_missed ? 8 : 0); }

std::vector<uint8_t> RingBufferPage::bytes(size_t size) const {
    std::vector<uint8_t> page;
    uint64_t commit = m_data.size();
    if (m_missed) commit |= kMissedEvents | kMissedStored;
    append(page, &m_page_timestamp, sizeof m_page_timestamp);
    append(page, &commit, sizeof commit);
    page.insert(page.end(), m_data.begin(), m_data.end());
    if (m_missed) append(page, &m_missed, sizeof m_missed);
    if (size < page.size()) throw std::length_error("page content does not fit");
    page.resize(size, 0);
    return page;
}
