// The simulator's command line: spool sizes with their suffixes and their need for --cloud,
// the values each option takes, and the refusal of everything else with its reason.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

namespace {

struct Parsed {
    std::optional<camsim::Options> options;
    bool exit_now = false;
    std::string out;
    std::string err;
};

Parsed parse(std::vector<std::string> args) {
    args.insert(args.begin(), "vexo-camsim");
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    Parsed p;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    p.options = camsim::parse_options(static_cast<int>(argv.size()), argv.data(), &p.exit_now);
    p.err = testing::internal::GetCapturedStderr();
    p.out = testing::internal::GetCapturedStdout();
    return p;
}

TEST(CamsimOptions, EachOptionSetsItsValue) {
    const Parsed p =
        parse({"--input",   "clip.mp4", "--data",         "d",         "--device",   "cam",
               "--mode",    "alltime",  "--duration",     "7.5",       "--speed",    "60",
               "--slice",   "3",        "--ring-seconds", "4",         "--no-audio", "-vv",
               "--motion",  "1+2",      "--trigger",      "3:pic_v:9", "--resume",   "4",
               "--order",   "5:event",  "--cloud",        "http://h",  "--mqtt",     "mqtt://[::1]",
               "--no-order"});
    ASSERT_TRUE(p.options) << p.err;
    const camsim::Options &o = *p.options;
    EXPECT_EQ(std::make_tuple(o.input, o.data_dir, o.device_id, o.store_mode),
              std::make_tuple("clip.mp4", "d", "cam", "alltime"));
    EXPECT_EQ(std::make_tuple(o.duration_s, o.speed, o.slice_duration, o.ring_seconds),
              std::make_tuple(7.5, 60.0, 3, 4u));
    EXPECT_EQ(std::make_tuple(o.audio, o.verbosity, o.send_order, o.cloud_url, o.mqtt_url),
              std::make_tuple(false, 2, false, "http://h", "mqtt://[::1]"));
    ASSERT_EQ(o.actions.size(), 4u);
    EXPECT_EQ(std::make_tuple(o.actions[0].at_s, o.actions[0].length_s), std::make_tuple(1.0, 2.0));
    EXPECT_EQ(std::make_tuple(o.actions[1].trigger_action, o.actions[1].duration_s),
              std::make_tuple("pic_v", 9));
    EXPECT_EQ(o.actions[2].kind, camsim::Action::Kind::kResume);
    EXPECT_EQ(o.actions[3].store_mode, "event");
    EXPECT_FALSE(o.default_actions);
}

TEST(CamsimOptions, RefusesWithTheReasonFirstThenTheUsage) {
    const struct {
        std::vector<std::string> args;
        const char *reason;
    } cases[] = {
        {{"--bogus", "x"}, "unknown option --bogus"},
        {{"--bogus"}, "missing value for --bogus"},
        {{"word"}, "unknown argument word"},
        {{"--quiet", "--duration"}, "missing value for --duration"},
        {{"--duration", "0"}, "bad --duration 0"},
        {{"--speed", "2000"}, "bad --speed 2000 (0 < X <= 1000)"},
        {{"--slice", "2"}, "bad --slice 2 (3..60)"},
        {{"--trigger", "3:foo"}, "bad --trigger 3:foo (AT:record|pic|pic_v[:DUR])"},
        {{"--abort", "x"}, "bad --abort x"},
        {{"--cloud", ""}, "empty value for --cloud"},
        {{"--mqtt", "tcp://h"}, "bad --mqtt 'tcp://h' must look like"},
        {{"--mqtt", "mqtt://h"}, "--mqtt is only valid with --cloud"},
        {{"--no-spool"}, "--no-spool is only valid with --cloud"},
        {{"--mqtt-user", "u"}, "--mqtt-ca, --mqtt-cert, --mqtt-key, --mqtt-user and"},
    };
    for (const auto &c : cases) {
        const Parsed p = parse(c.args);
        EXPECT_FALSE(p.options) << c.reason;
        EXPECT_EQ(p.err.rfind(std::string("vexo-camsim: ") + c.reason, 0), 0u) << p.err;
        EXPECT_NE(p.err.find("\nusage: vexo-camsim [options]\n"), std::string::npos) << c.reason;
    }
    const Parsed help = parse({"-h", "--bogus"});
    EXPECT_TRUE(help.exit_now);
    EXPECT_EQ(help.out.rfind("usage: vexo-camsim [options]\n", 0), 0u);
    for (const char *line : {"\n  --input FILE ", "\n  --pause AT, --resume AT ", "\n  --no-spool ",
                             "\n  --mqtt-password-file FILE ", "\nA locked-down broker"}) {
        EXPECT_NE(help.out.find(line), std::string::npos) << line;
    }
}

TEST(CamsimOptions, SpoolSizesTakeBinarySuffixesAndTheSpoolNeedsANetworkCloud) {
    const struct {
        const char *text;
        std::optional<uint64_t> bytes;
    } cases[] = {
        {"1", 1},
        {"4k", 4096},
        {"256M", 256 << 20},
        {"2G", 2ull << 30},
        {"0", std::nullopt},
        {"", std::nullopt},
        {"M", std::nullopt},
        {"12X", std::nullopt},
        {"-1", std::nullopt},
        {"1.5M", std::nullopt},
        {"8589934593G", std::nullopt},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(camsim::parse_size(c.text), c.bytes) << c.text;
    }
    const auto o =
        parse({"--cloud", "http://h", "--spool-bytes", "1M", "--spool-age", "600", "--no-spool"})
            .options;
    ASSERT_TRUE(o);
    EXPECT_EQ(std::make_tuple(o->spool, o->spool_bytes, o->spool_age_s),
              std::make_tuple(false, uint64_t{1} << 20, 600u));
    EXPECT_FALSE(parse({"--spool-bytes", "1M"}).options) << "the embedded cloud has none";
    EXPECT_FALSE(parse({"--cloud", "http://h", "--spool-age", "0"}).options);
}

} // namespace
