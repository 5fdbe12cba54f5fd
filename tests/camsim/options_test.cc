// The simulator's spool options: sizes with their suffixes, and their need for --cloud.
#include <gtest/gtest.h>

#include "options.h"

namespace {

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
    const auto parse = [](std::vector<std::string> args) {
        std::vector<char *> argv;
        for (std::string &a : args) {
            argv.push_back(a.data());
        }
        bool exit_now = false;
        testing::internal::CaptureStderr();
        auto o = camsim::parse_options(static_cast<int>(argv.size()), argv.data(), &exit_now);
        testing::internal::GetCapturedStderr();
        return o;
    };
    const auto o = parse({"camsim", "--cloud", "http://h", "--spool-bytes", "1M", "--spool-age",
                          "600", "--no-spool"});
    ASSERT_TRUE(o);
    EXPECT_EQ(std::make_tuple(o->spool, o->spool_bytes, o->spool_age_s),
              std::make_tuple(false, uint64_t{1} << 20, 600u));
    EXPECT_FALSE(parse({"camsim", "--spool-bytes", "1M"})) << "the embedded cloud has none";
    EXPECT_FALSE(parse({"camsim", "--cloud", "http://h", "--spool-age", "0"}));
}

} // namespace
