// The outage spool's directory on its own: order across a reopen, damaged items never handed
// out, temporary files swept, and the bounds dropping the oldest whole recording as one gap.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "spool.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using hostkit::CloudRequest;
using hostkit::spool::Gap;
using hostkit::spool::ItemInfo;
using hostkit::spool::Kind;
using hostkit::spool::Spool;

constexpr uint32_t kRec = 1800000000; // a recording's start time
constexpr uint64_t kNow = uint64_t{kRec} * 1000;

CloudRequest request(const std::string &path, const std::string &body) {
    CloudRequest req;
    req.method = "PUT";
    req.path = path;
    req.query = "v=1.0";
    req.body = body;
    req.timeout_s = 60;
    req.headers["x-vexo-device"] = "cam";
    req.headers["authorization"] = "Bearer secret";
    return req;
}

ItemInfo info(Kind kind, uint32_t recording = 0, uint32_t begin = 0, uint32_t end = 0) {
    ItemInfo i;
    i.kind = kind;
    i.recording = recording;
    i.span_begin = begin;
    i.span_end = end;
    return i;
}

class SpoolTest : public ::testing::Test {
  protected:
    std::unique_ptr<Spool> open(uint64_t max_bytes = uint64_t{1} << 30,
                                uint64_t max_age_ms = 3600 * 1000) {
        hostkit::spool::Config config;
        config.dir = dir_.path() + "/spool";
        config.max_bytes = max_bytes;
        config.max_age_ms = max_age_ms;
        config.gap_request = [](const Gap &g) {
            return request("/gaps", nlohmann::json{{"from", g.from},
                                                   {"to", g.to},
                                                   {"reason", g.reason},
                                                   {"bytes", g.bytes}}
                                        .dump());
        };
        std::string error;
        std::unique_ptr<Spool> spool = Spool::open(config, &error);
        EXPECT_NE(spool, nullptr) << error;
        return spool;
    }
    /// Takes and removes every item, returning their paths in order.
    static std::vector<std::string> drain(Spool &spool,
                                          std::vector<std::string> *bodies = nullptr) {
        std::vector<std::string> paths;
        while (auto item = spool.take_oldest()) {
            paths.push_back(item->request.path);
            if (bodies != nullptr) {
                bodies->push_back(item->request.body);
            }
            spool.remove(item->info.seq, true);
        }
        return paths;
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(dir_.path() + "/spool")) {
            names.push_back(e.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    vexo_test::TempDir dir_{"vexo-spool"};
};

TEST_F(SpoolTest, OrderSurvivesAReopenTemporaryFilesAreSweptAndNoTokenIsWritten) {
    {
        auto spool = open();
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(
                spool->append(info(Kind::kMedia), request("/m" + std::to_string(i), "b"), kNow));
        }
    }
    std::ofstream(dir_.path() + "/spool/00000000000000000005.item.tmp.123.0") << "half written";
    std::ofstream(dir_.path() + "/spool/notes.txt") << "not ours";
    auto spool = open();
    ASSERT_TRUE(spool->append(info(Kind::kAlarm), request("/after", std::string(3, '\0')), kNow));
    std::optional<hostkit::spool::Item> first = spool->take_oldest();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->request.query, "v=1.0");
    EXPECT_EQ(first->request.timeout_s, 60u);
    EXPECT_EQ(first->request.headers,
              (std::map<std::string, std::string>{{"x-vexo-device", "cam"}}));
    spool->release(first->info.seq);
    std::vector<std::string> bodies;
    EXPECT_EQ(drain(*spool, &bodies),
              (std::vector<std::string>{"/m0", "/m1", "/m2", "/m3", "/after"}));
    EXPECT_EQ(bodies.back(), std::string(3, '\0'));
    EXPECT_EQ(files(), std::vector<std::string>{"notes.txt"});
    EXPECT_EQ(spool->stats().sent, 5u);
}

TEST_F(SpoolTest, DamagedItemsAreDiscardedAndNeverHandedOut) {
    // Damage to the last of three items: the other two come out whole, in order.
    const struct {
        const char *what;
        std::function<void(std::string &)> damage;
    } cases[] = {
        {"torn: cut in its body", [](std::string &b) { b.resize(b.size() - 3); }},
        {"torn: cut in its header", [](std::string &b) { b.resize(20); }},
        {"empty file", [](std::string &b) { b.clear(); }},
        {"bad magic", [](std::string &b) { b[0] = 'X'; }},
        {"flipped header byte", [](std::string &b) { b[25] ^= 1; }},
        {"flipped head byte", [](std::string &b) { b[60] ^= 0x40; }},
        {"flipped body byte", [](std::string &b) { b[b.size() - 2] ^= 0x10; }},
        {"appended garbage", [](std::string &b) { b += "xx"; }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        {
            auto spool = open();
            for (const char *path : {"/a", "/b", "/c"}) {
                ASSERT_TRUE(spool->append(info(Kind::kMedia), request(path, "0123456789"), kNow));
            }
        }
        const std::string last = dir_.path() + "/spool/" + files().back();
        std::string bytes;
        {
            std::ifstream in(last, std::ios::binary);
            std::ostringstream text;
            text << in.rdbuf();
            bytes = text.str();
        }
        c.damage(bytes);
        std::ofstream(last, std::ios::binary | std::ios::trunc) << bytes;
        auto spool = open();
        EXPECT_EQ(drain(*spool), (std::vector<std::string>{"/a", "/b"}));
        EXPECT_EQ(spool->stats().dropped, 1u);
        EXPECT_TRUE(files().empty());
    }
}

/// A recording's items: start, two media files of `media` bytes, and its stop when `stopped`.
void add_recording(Spool &spool, uint32_t rec, size_t media, bool stopped, uint64_t now) {
    const std::string r = std::to_string(rec);
    ASSERT_TRUE(spool.append(info(Kind::kStart, rec, rec, rec), request("/start" + r, "{}"), now));
    for (uint32_t at : {0u, 10u}) {
        ASSERT_TRUE(spool.append(
            info(Kind::kMedia, rec, rec + at, rec + at + 10),
            request("/m" + r + "_" + std::to_string(at), std::string(media, 'm')), now));
    }
    if (stopped) {
        ASSERT_TRUE(spool.append(info(Kind::kStop, rec, rec + 19, rec + 19),
                                 request("/stop" + r, "{}"), now));
    }
}

nlohmann::json gap_of(const std::vector<std::string> &bodies) {
    return nlohmann::json::parse(bodies.back());
}

TEST_F(SpoolTest, OverTheByteBoundTheOldestWholeRecordingGoesAsOneGap) {
    auto spool = open(20000);
    add_recording(*spool, kRec, 5000, true, kNow);
    ASSERT_TRUE(spool->append(info(Kind::kAlarm), request("/alarm", "{}"), kNow));
    add_recording(*spool, kRec + 100, 5000, true, kNow); // pushes the first one out
    std::vector<std::string> bodies;
    const std::vector<std::string> paths = drain(*spool, &bodies);
    const std::string r = std::to_string(kRec + 100);
    // The gap report is queued when the bound is crossed: behind the file that crossed it.
    EXPECT_EQ(paths, (std::vector<std::string>{"/alarm", "/start" + r, "/m" + r + "_0",
                                               "/m" + r + "_10", "/gaps", "/stop" + r}));
    EXPECT_EQ(nlohmann::json::parse(bodies[4]),
              (nlohmann::json{
                  {"from", kRec}, {"to", kRec + 19}, {"reason", "spool full"}, {"bytes", 10000}}));
    EXPECT_EQ(spool->stats().dropped, 4u);
}

TEST_F(SpoolTest, TheByteCountIsWhatTheFilesHoldAndABoundTheyJustFitDropsNothing) {
    uint64_t on_disk = 0;
    {
        auto spool = open();
        add_recording(*spool, kRec, 5000, true, kNow);
        for (const auto &e : fs::directory_iterator(dir_.path() + "/spool")) {
            on_disk += e.file_size();
        }
        EXPECT_EQ(spool->stats().bytes, on_disk);
    }
    auto spool = open(on_disk); // counted again from the files found
    EXPECT_EQ(spool->stats().bytes, on_disk);
    spool->enforce_bounds(kNow);
    EXPECT_EQ(spool->stats().dropped, 0u);
    EXPECT_EQ(spool->stats().items, 4u);
}

TEST_F(SpoolTest, TheRecordingStillBeingWrittenLosesItsOldestFileButKeepsItsStart) {
    auto spool = open(14000);
    add_recording(*spool, kRec, 5000, false, kNow);
    const std::string r = std::to_string(kRec);
    ASSERT_TRUE(spool->append(info(Kind::kMedia, kRec, kRec + 20, kRec + 30),
                              request("/m" + r + "_20", std::string(5000, 'm')), kNow));
    std::vector<std::string> bodies;
    EXPECT_EQ(drain(*spool, &bodies), (std::vector<std::string>{"/start" + r, "/m" + r + "_10",
                                                                "/m" + r + "_20", "/gaps"}));
    EXPECT_EQ(gap_of(bodies)["from"], kRec);
    EXPECT_EQ(gap_of(bodies)["to"], kRec + 10);
    EXPECT_EQ(gap_of(bodies)["bytes"], 5000);
}

TEST_F(SpoolTest, TooOldRecordingsGoWholeOnTheKitClockAndAHeldItemStays) {
    constexpr uint64_t kAgeMs = 60000;
    auto spool = open(uint64_t{1} << 30, kAgeMs);
    add_recording(*spool, kRec, 100, false, kNow); // never stopped: end from its last file
    add_recording(*spool, kRec + 50, 100, true, kNow + 30000);
    spool->enforce_bounds(kNow + kAgeMs - 1);
    EXPECT_EQ(spool->stats().items, 7u) << "nothing is too old yet";

    std::optional<hostkit::spool::Item> held = spool->take_oldest();
    ASSERT_TRUE(held);
    spool->enforce_bounds(kNow + kAgeMs);
    EXPECT_EQ(spool->stats().items, 6u) << "the held start stays, its files go, a gap is queued";
    spool->remove(held->info.seq, true);
    std::vector<std::string> bodies;
    EXPECT_EQ(drain(*spool, &bodies).back(), "/gaps");
    EXPECT_EQ(gap_of(bodies),
              (nlohmann::json{
                  {"from", kRec + 0}, {"to", kRec + 20}, {"reason", "too old"}, {"bytes", 200}}));
}

TEST_F(SpoolTest, GapReportsOutliveTheBoundsThatDropTheFootage) {
    // A long outage of a camera recording all the time: each file over the byte bound pushes
    // out the oldest one and queues a report, until the reports are the oldest items; a day
    // later what is left is too old. Every report must still go out.
    auto spool = open(12000, 3600 * 1000);
    const std::string r = std::to_string(kRec);
    for (uint32_t at = 0; at <= 50; at += 10) {
        ASSERT_TRUE(
            spool->append(info(Kind::kMedia, kRec, kRec + at, kRec + at + 10),
                          request("/m" + r + "_" + std::to_string(at), std::string(5000, 'm')),
                          kNow + at * 1000));
    }
    spool->enforce_bounds(kNow + uint64_t{24} * 3600 * 1000);
    std::vector<std::string> bodies;
    const std::vector<std::string> paths = drain(*spool, &bodies);
    std::vector<std::pair<uint32_t, std::string>> gaps;
    for (size_t i = 0; i < paths.size(); ++i) {
        ASSERT_EQ(paths[i], "/gaps") << "every file is gone, one way or the other";
        const nlohmann::json gap = nlohmann::json::parse(bodies[i]);
        gaps.emplace_back(gap["from"].get<uint32_t>(), gap["reason"].get<std::string>());
    }
    EXPECT_EQ(gaps, (std::vector<std::pair<uint32_t, std::string>>{{kRec, "spool full"},
                                                                   {kRec + 10, "spool full"},
                                                                   {kRec + 20, "spool full"},
                                                                   {kRec + 30, "spool full"},
                                                                   {kRec + 40, "too old"}}));
}

} // namespace
