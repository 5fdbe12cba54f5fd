// The floor's slices fall due when vexo-loadgen's cameras would send them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "floor_schedule.h"
#include "options.h"

namespace {

loadgen::Options fleet(uint32_t cameras, uint32_t every, double duration, double ramp) {
    loadgen::Options o;
    o.cameras = cameras;
    o.slice_every_s = every;
    o.duration_s = duration;
    o.ramp_s = ramp;
    return o;
}

TEST(FloorSchedule, SlicesPerCameraAndSplitOverSenders) {
    struct Case {
        uint32_t cameras, every;
        double duration, ramp;
        uint32_t senders;
        size_t slices; // over all senders
    };
    const Case cases[] = {
        {1, 10, 60, 0, 1, 5},  // due at 10..50: the tick at 60 ends the run
        {1, 10, 61, 0, 1, 6},  // ... and at 60 when the run lasts past it
        {4, 10, 30, 10, 2, 8}, // starts 0, 2.5, 5, 7.5: two slices each before 30
        {10, 5, 4, 0, 3, 0},   // no camera lives a slice period
        {1000, 10, 120, 10, 64, 11000},
    };
    for (const Case &c : cases) {
        const loadgen::Options o = fleet(c.cameras, c.every, c.duration, c.ramp);
        size_t total = 0;
        std::set<std::pair<uint32_t, uint32_t>> seen;
        for (uint32_t s = 0; s < c.senders; ++s) {
            const std::vector<loadgen::DuePut> puts = loadgen::floor_schedule(o, s, c.senders);
            for (size_t i = 0; i < puts.size(); ++i) {
                EXPECT_EQ(puts[i].camera % c.senders, s);
                EXPECT_LT(puts[i].at_s, c.duration);
                EXPECT_GE(puts[i].at_s, c.every);
                if (i > 0) {
                    EXPECT_LE(puts[i - 1].at_s, puts[i].at_s) << "out of due order";
                }
                EXPECT_TRUE(seen.insert({puts[i].camera, puts[i].slice}).second);
            }
            total += puts.size();
        }
        EXPECT_EQ(total, c.slices) << c.cameras << " cameras, " << c.duration << " s";
    }
}

TEST(FloorSchedule, CameraStartsAtItsShareOfTheRampAndKeysNameIt) {
    const loadgen::Options o = fleet(4, 10, 25, 8);
    const std::vector<loadgen::DuePut> puts = loadgen::floor_schedule(o, 3, 4);
    ASSERT_EQ(puts.size(), 1u); // camera 3 starts at 6: slices due at 16, and 26 is too late
    EXPECT_DOUBLE_EQ(puts[0].at_s, 16.0);
    EXPECT_EQ(loadgen::floor_key(o, puts[0]), "lg-0004/000000.media");
    EXPECT_TRUE(loadgen::floor_schedule(o, 0, 0).empty());
}

} // namespace
