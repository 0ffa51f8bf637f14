#include "SDK/TimeUtils.h"

#include <time.h>

namespace SDK {

uint64_t TimeUtils::GetCurrentSystemTickUsed() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

}  // namespace SDK
