// The timeline recorder at its bound. (Each context's named track, the
// spans of timers, DPCs, work items and IRPs named by their routines, on
// the virtual clock, are what the simulator's timeline tests read back with
// check_timeline.py.)
#include "kernel_test.h"

#include "hostkernel/timeline.h"

#include <nlohmann/json.hpp>

namespace {

// Once the bound is reached nothing new opens, but what was open closes:
// the file still nests, and says it was cut.
TEST(TimelineBound, AFullTimelineStillClosesWhatItOpened) {
    hk::Kernel kernel;
    hk::Timeline timeline("test", 3);
    kernel.SetTimeline(&timeline);
    timeline.Begin("outer", "test"); // with the track's two metadata events
    timeline.Begin("inner", "test"); // refused, and so is its end
    uint64_t flow = timeline.FlowStart("IRP");
    timeline.Instant("lost", "test");
    timeline.End();
    timeline.FlowEnd(flow);
    timeline.End();
    kernel.SetTimeline(nullptr);
    auto file = nlohmann::json::parse(timeline.Json());
    std::string phases;
    for (const auto& e : file["traceEvents"])
        phases += std::string(e["ph"]);
    EXPECT_EQ(phases, "MMMBE");
    EXPECT_TRUE(file["otherData"].contains("truncated"));
}

} // namespace
