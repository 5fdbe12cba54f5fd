// The simulator's spool options: sizes with their suffixes, and the checks around them.
#include <gtest/gtest.h>

#include "options.h"

namespace {

TEST(CamsimOptions, SpoolSizesTakeBinarySuffixesAndRefuseTheRest) {
    const struct {
        const char *text;
        std::optional<uint64_t> bytes;
    } cases[] = {
        {"1", 1},
        {"4096", 4096},
        {"4k", 4096},
        {"256M", 256 << 20},
        {"2G", uint64_t{2} << 30},
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
}

std::optional<camsim::Options> parse(std::vector<std::string> args) {
    args.insert(args.begin(), "vexo-camsim");
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    bool exit_now = false;
    testing::internal::CaptureStderr();
    auto o = camsim::parse_options(static_cast<int>(argv.size()), argv.data(), &exit_now);
    testing::internal::GetCapturedStderr();
    return o;
}

TEST(CamsimOptions, SpoolOptionsNeedANetworkCloud) {
    const std::string cloud = "http://127.0.0.1:1";
    const auto o = parse({"--cloud", cloud, "--spool-bytes", "1M", "--spool-age", "600"});
    ASSERT_TRUE(o);
    EXPECT_TRUE(o->spool);
    EXPECT_EQ(o->spool_bytes, 1u << 20);
    EXPECT_EQ(o->spool_age_s, 600u);
    EXPECT_FALSE(parse({"--cloud", cloud, "--no-spool"})->spool);
    EXPECT_FALSE(parse({"--spool-bytes", "1M"})) << "the embedded cloud has no spool";
    EXPECT_FALSE(parse({"--no-spool"}));
    EXPECT_FALSE(parse({"--cloud", cloud, "--spool-age", "0"}));
    EXPECT_FALSE(parse({"--cloud", cloud, "--spool-bytes", "lots"}));
}

} // namespace
