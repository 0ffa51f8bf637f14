#pragma once
#include <cstdint>

namespace SDK {

class TimeUtils {
public:
    // One tick is one microsecond of CLOCK_MONOTONIC: never goes back, not
    // affected by changes of the wall clock.
    static uint64_t GetCurrentSystemTickUsed();
};

}  // namespace SDK
