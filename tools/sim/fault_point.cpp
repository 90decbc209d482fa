// The fault points of a session.
#include "fault_point.h"

#include <charconv>

namespace sim {

const char* FaultKindName(FaultKind kind) {
    switch (kind) {
    case FaultKind::kPool:
        return "pool";
    case FaultKind::kStall:
        return "stall";
    case FaultKind::kGone:
        return "gone";
    case FaultKind::kError:
        return "error";
    case FaultKind::kNoAnswer:
        return "no-answer";
    case FaultKind::kRemoval:
        return "removal";
    }
    return "?";
}

std::optional<FaultKind> ParseFaultKind(std::string_view name) {
    for (FaultKind kind : kFaultKinds)
        if (name == FaultKindName(kind))
            return kind;
    return std::nullopt;
}

std::optional<FaultPoint> ParseFaultPoint(std::string_view text, std::string* error) {
    size_t colon = text.find(':');
    std::optional<FaultKind> kind = ParseFaultKind(text.substr(0, colon));
    if (!kind) {
        *error = "\"" + std::string(text) +
                 "\": the kind is one of pool, stall, gone, error, no-answer, removal";
        return std::nullopt;
    }
    FaultPoint point{*kind, 0};
    std::string_view number = colon == std::string_view::npos ? "" : text.substr(colon + 1);
    auto [end, failed] = std::from_chars(number.data(), number.data() + number.size(), point.nth);
    if (number.empty() || failed != std::errc() || end != number.data() + number.size() ||
        point.nth == 0) {
        *error = "\"" + std::string(text) + "\": KIND:N, where N counts the calls from 1";
        return std::nullopt;
    }
    return point;
}

std::string FaultPointText(const FaultPoint& point) {
    return std::string(FaultKindName(point.kind)) + ":" + std::to_string(point.nth);
}

uint64_t FaultSites::For(FaultKind kind) const {
    switch (kind) {
    case FaultKind::kPool:
        return pool;
    case FaultKind::kGone:
    case FaultKind::kRemoval:
        return urbs;
    default:
        return requests;
    }
}

} // namespace sim
