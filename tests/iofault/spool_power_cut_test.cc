// A power cut after any file-system call of a run of spool appends and removals: the spool
// opened on the directory as the cut left it hands out every acknowledged item not yet
// removed, whole and in order, perhaps a removed one again or the one append under way, and
// nothing damaged, torn or temporary.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "power_cut_fs.h"
#include "spool.h"
#include "tests/support/temp_dir.h"

namespace {

using hostkit::spool::Spool;

/// The body of item n: its length and fill follow from n.
std::string body_for(int n) {
    return std::string(200 + static_cast<size_t>(n % 5) * 2500, static_cast<char>('a' + n));
}

std::unique_ptr<Spool> open_spool(const std::string &dir, hostkit::FileSystem *fs) {
    hostkit::spool::Config config;
    config.dir = dir;
    config.fs = fs;
    std::string error;
    std::unique_ptr<Spool> spool = Spool::open(config, &error);
    EXPECT_NE(spool, nullptr) << error;
    return spool;
}

/// An append (item >= 0) or the removal of the oldest item once delivered (item < 0).
struct Step {
    int item;
    int removed = -1; ///< the item a removal took out
    size_t begin = 0;
    size_t end = 0;
};

TEST(SpoolPowerCut, EveryAcknowledgedItemSurvivesACutAfterAnyCall) {
    vexo_test::TempDir tmp("vexo-spool-cut");
    const std::string dir = tmp.path() + "/spool";
    std::filesystem::create_directory(dir);
    iofault::PowerCutFs fs(dir);
    std::vector<Step> steps;
    {
        std::unique_ptr<Spool> spool = open_spool(dir, &fs);
        ASSERT_NE(spool, nullptr);
        for (const int item : {0, 1, 2, -1, 3, 4, -1, -1, 5, 6}) {
            Step step{item};
            step.begin = fs.calls();
            if (item >= 0) {
                hostkit::CloudRequest req;
                req.method = "PUT";
                req.path = "/" + std::to_string(item);
                req.body = body_for(item);
                ASSERT_TRUE(spool->append(hostkit::spool::ItemInfo{}, req, 1));
            } else {
                std::optional<hostkit::spool::Item> oldest = spool->take_oldest();
                ASSERT_TRUE(oldest.has_value());
                step.removed = std::stoi(oldest->request.path.substr(1));
                spool->remove(oldest->info.seq, true);
            }
            step.end = fs.calls();
            steps.push_back(step);
        }
    }

    for (size_t cut = 0; cut <= fs.calls(); ++cut) {
        for (const iofault::CutModel &model : iofault::kCutModels) {
            SCOPED_TRACE("cut after " + std::to_string(cut) + " calls, " + model.label);
            vexo_test::TempDir image("vexo-spool-image");
            fs.rebuild(cut, model, image.path());
            std::vector<int> must; // acknowledged and not removed
            std::vector<int> may;  // appended at least in part
            for (const Step &step : steps) {
                if (step.item >= 0 && step.begin < cut) {
                    may.push_back(step.item);
                }
                if (step.item >= 0 && step.end <= cut) {
                    must.push_back(step.item);
                } else if (step.item < 0 && step.begin < cut) {
                    must.erase(std::find(must.begin(), must.end(), step.removed));
                }
            }
            std::unique_ptr<Spool> spool = open_spool(image.path(), nullptr);
            ASSERT_NE(spool, nullptr);
            EXPECT_EQ(spool->stats().dropped, 0u) << "a damaged item was on disk";
            std::vector<int> held;
            while (std::optional<hostkit::spool::Item> item = spool->take_oldest()) {
                const int n = std::stoi(item->request.path.substr(1));
                EXPECT_EQ(item->request.body, body_for(n)) << n;
                held.push_back(n);
                spool->remove(item->info.seq, true);
            }
            EXPECT_EQ(spool->stats().dropped, 0u) << "a damaged item was handed out";
            EXPECT_TRUE(std::is_sorted(held.begin(), held.end()));
            for (const int n : must) {
                EXPECT_NE(std::find(held.begin(), held.end(), n), held.end()) << n << " lost";
            }
            for (const int n : held) {
                EXPECT_NE(std::find(may.begin(), may.end(), n), may.end()) << n << " appeared";
            }
            for (const auto &entry : std::filesystem::directory_iterator(image.path())) {
                ADD_FAILURE() << entry.path().filename() << " left behind";
            }
        }
    }
}

} // namespace
