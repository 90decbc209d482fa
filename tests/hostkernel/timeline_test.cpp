// The timeline recorder on the kernel's own objects: each context gets its
// named track, a timer's expiry, its DPC and a thread's span land where
// they ran, named by their routines' symbols, on the virtual clock as time
// base.
#include "kernel_test.h"

#include "hostkernel/timeline.h"

#include <nlohmann/json.hpp>

#include <map>

namespace {

VOID NTAPI NoteDpc(PKDPC, PVOID context, PVOID, PVOID) {
    DbgPrint("dpc ran\n");
    ++*static_cast<int*>(context);
}

class TimelineTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        kernel().SetTimeline(&timeline);
    }
    void TearDown() override {
        kernel().SetTimeline(nullptr);
        KernelTest::TearDown();
    }
    // The file's events with their track's name in "track".
    std::vector<nlohmann::json> Events() {
        auto file = nlohmann::json::parse(timeline.Json());
        std::map<int, std::string> tracks;
        for (const auto& e : file["traceEvents"])
            if (e["ph"] == "M" && e["name"] == "thread_name")
                tracks[e["tid"].get<int>()] = e["args"]["name"];
        std::vector<nlohmann::json> events;
        for (auto e : file["traceEvents"]) {
            if (e["ph"] == "M")
                continue;
            e["track"] = tracks.at(e["tid"].get<int>());
            events.push_back(e);
        }
        return events;
    }
    hk::Timeline timeline{"test"};
};

TEST_F(TimelineTest, EventsLandOnTheTrackOfTheContextThatRanThem) {
    KTIMER timer;
    KDPC dpc;
    int runs = 0;
    KeInitializeTimer(&timer);
    KeInitializeDpc(&dpc, NoteDpc, &runs);
    hk::Thread app("app", [&] {
        timeline.Begin("waits", "test");
        KeSetTimer(&timer, RelativeMs(5), &dpc);
        kernel().Sleep(10);
        timeline.End();
    });
    app.Join();
    ASSERT_EQ(runs, 1);
    auto events = Events();
    std::vector<std::string> seen;
    for (const auto& e : events)
        seen.push_back(std::string(e["ph"]) + " " + std::string(e.value("name", "")) + " @" +
                       std::string(e["track"]) + " " + std::to_string(int64_t(e["ts"])));
    // The app thread waits, so the clock's idle loop runs on it: the expiry
    // and the DPC run inside its span, 5 ms of virtual time in.
    EXPECT_EQ(seen,
              (std::vector<std::string>{"B waits @app 0", "B timer NoteDpc @app 5000",
                                        "E  @app 5000", "B DPC NoteDpc @app 5000",
                                        "i dpc ran @app 5000", "E  @app 5000", "E  @app 10000"}));
    // One virtual instant keeps its order: 1 ns apart.
    EXPECT_LT(events[1]["ts"].get<double>(), events[2]["ts"].get<double>());
}

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
