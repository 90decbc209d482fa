// One fault injected at a chosen point of a session, as the campaign runs
// it and as its replay command names it ("pool:37": the 37th pool
// allocation fails): a pool allocation that fails; a USB transfer or
// control request that stalls, finds the device gone, fails with a USBD
// error or is never answered; or a surprise removal as the n-th URB
// arrives.
//
// Environment: host code of the tool.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

enum class FaultKind { kPool, kStall, kGone, kError, kNoAnswer, kRemoval };
inline constexpr FaultKind kFaultKinds[] = {FaultKind::kPool,     FaultKind::kStall,
                                            FaultKind::kGone,     FaultKind::kError,
                                            FaultKind::kNoAnswer, FaultKind::kRemoval};

const char* FaultKindName(FaultKind kind); // "pool", "stall", ...
std::optional<FaultKind> ParseFaultKind(std::string_view name);

struct FaultPoint {
    FaultKind kind = FaultKind::kPool;
    uint64_t nth = 1; // the call it fires on, from 1
};

// "KIND:N"; nullopt with the reason when malformed.
std::optional<FaultPoint> ParseFaultPoint(std::string_view text, std::string* error);
std::string FaultPointText(const FaultPoint& point);

// How many calls of each site a session made: the fault points it has.
struct FaultSites {
    uint64_t pool = 0;     // pool allocations
    uint64_t requests = 0; // USB transfers and control requests (stall, error, no-answer)
    uint64_t urbs = 0;     // URBs that reached a present device (gone, removal)
    uint64_t For(FaultKind kind) const;
};

} // namespace sim
