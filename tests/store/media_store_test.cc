// The media store contract (write, publish whole or not at all, never replace, read, ranges,
// remove, set aside, list, sweep) against the file store and the S3 store, the latter on a
// one-node Ceph gateway started for the suite.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "durable_file.h"
#include "fs_media_store.h"
#include "media_names.h"
#include "s3_media_store.h"
#include "tests/store/ceph_gateway.h"
#include "tests/support/temp_dir.h"

namespace vexo_cloud {
namespace {

using vexo_test::Gateway;

constexpr size_t kPart = S3MediaStore::kMinimumPartSize;

std::string pattern(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char &c : bytes) {
        c = static_cast<char>(random());
    }
    return bytes;
}

std::string read_all(MediaStore &store, const std::string &name, bool *found = nullptr) {
    std::string bytes;
    const bool there = store.read(name, [&bytes](const char *data, size_t size) {
        bytes.append(data, size);
        return true;
    });
    if (found != nullptr) {
        *found = there;
    }
    return bytes;
}

/// Writes bytes in pieces of at most piece bytes, finishes and commits.
bool put(MediaStore &store, const std::string &name, const std::string &bytes,
         size_t piece = 64 << 10) {
    std::unique_ptr<MediaUpload> upload = store.begin(name);
    for (size_t at = 0; at < bytes.size(); at += piece) {
        upload->write(bytes.data() + at, std::min(piece, bytes.size() - at));
    }
    upload->finish();
    return upload->commit();
}

class MediaStoreTest : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        if (GetParam() == "file") {
            store_ = std::make_unique<FsMediaStore>(dir_.path());
            return;
        }
        Gateway &gateway = Gateway::get();
        if (!gateway.available()) {
            ASSERT_FALSE(gateway.installed()) << gateway.why_not();
            GTEST_SKIP() << gateway.why_not();
        }
        // A bucket per test: no test sees another's objects.
        static int next = 0;
        auto store = std::make_unique<S3MediaStore>(
            gateway.config("vexo-test-" + std::to_string(++next)), kPart);
        store->create_bucket();
        store_ = std::move(store);
    }

    vexo_test::TempDir dir_{"vexo-media-store"};
    std::unique_ptr<MediaStore> store_;
};

TEST_P(MediaStoreTest, PublishesWholeOnCommitOnlyAndNeverReplaces) {
    MediaStore &store = *store_;
    const std::string name = "cam1/1700000000/1700000000_0000.media";
    const std::string bytes = pattern(300000, 1);

    std::unique_ptr<MediaUpload> upload = store.begin(name);
    upload->write(bytes.data(), 1000);
    upload->write(bytes.data() + 1000, bytes.size() - 1000);
    EXPECT_EQ(upload->size(), bytes.size());
    upload->finish();
    EXPECT_FALSE(store.size(name)) << "visible before commit";
    EXPECT_THROW(upload->write("x", 1), FileError);
    ASSERT_TRUE(upload->commit());
    EXPECT_EQ(*store.size(name), bytes.size());
    EXPECT_EQ(read_all(store, name), bytes);
    EXPECT_EQ(*object_sha256(store, name), upload->sha256());

    // A second upload under the name publishes nothing and leaves the first bytes.
    EXPECT_FALSE(put(store, name, "other bytes"));
    EXPECT_EQ(read_all(store, name), bytes);

    // Destroyed before commit, finished or not: nothing under the name.
    const std::string dropped = "cam1/1700000000/1700000000_0010.media";
    {
        std::unique_ptr<MediaUpload> cut = store.begin(dropped);
        cut->write(bytes.data(), 5000);
    }
    {
        std::unique_ptr<MediaUpload> unpublished = store.begin(dropped);
        unpublished->write(bytes.data(), 5000);
        unpublished->finish();
    }
    EXPECT_FALSE(store.size(dropped));
    bool found = true;
    read_all(store, dropped, &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(store.sweep_temporary(), 0u) << "an upload left something behind";

    ASSERT_EQ(store.list().size(), 1u);
    EXPECT_EQ(store.list()[0].name, name);
    EXPECT_EQ(store.list()[0].bytes, bytes.size());
}

TEST_P(MediaStoreTest, RefusesBadNamesAndRemovesAndSetsAside) {
    MediaStore &store = *store_;
    for (const std::string bad :
         {"", "cam1", "cam1/x", "cam1/../x", "cam1/.h/x", "cam1//x", "cam1/a/b/c", "bad id/a/b"}) {
        EXPECT_FALSE(store.valid_name(bad)) << bad;
        EXPECT_THROW(store.begin(bad), FileError) << bad;
        EXPECT_FALSE(store.remove(bad)) << bad;
    }
    const std::string a = "cam1/100/100_0000.media";
    const std::string b = "cam1/alarms/7.jpg";
    ASSERT_TRUE(put(store, a, "aaaa"));
    ASSERT_TRUE(put(store, b, "bbbbbb"));
    EXPECT_TRUE(store.remove(a));
    EXPECT_FALSE(store.remove(a));
    EXPECT_FALSE(store.size(a));
    EXPECT_FALSE(store.set_aside(b).empty());
    EXPECT_FALSE(store.size(b));
    EXPECT_TRUE(store.list().empty()) << "set aside objects are not listed";
}

TEST_P(MediaStoreTest, LargeUploadReadsBackByteExactWholeAndInRanges) {
    MediaStore &store = *store_;
    const std::string name = "cam2/200/200_0000.media";
    const std::string bytes = pattern(2 * kPart + 123457, 2); // three parts in S3
    ASSERT_TRUE(put(store, name, bytes, 1 << 20));
    EXPECT_EQ(*store.size(name), bytes.size());
    EXPECT_EQ(read_all(store, name), bytes);
    EXPECT_FALSE(put(store, name, pattern(kPart + 1, 3))) << "a multipart upload replaced it";
    EXPECT_EQ(*store.size(name), bytes.size());

    struct Range {
        uint64_t offset, length;
    };
    for (const Range range :
         {Range{0, 1}, Range{kPart - 1, 2}, Range{kPart, kPart}, Range{bytes.size() - 10, 100},
          Range{bytes.size(), 5}, Range{12345, 3 * kPart}}) {
        std::string got;
        ASSERT_TRUE(store.read_range(name, range.offset, range.length,
                                     [&got](const char *data, size_t size) {
                                         got.append(data, size);
                                         return true;
                                     }));
        const std::string want =
            range.offset >= bytes.size() ? std::string() : bytes.substr(range.offset, range.length);
        EXPECT_TRUE(got == want) << range.offset << "+" << range.length << ": " << got.size()
                                 << " bytes, want " << want.size();
    }
    // A reader that stops early gets no more.
    size_t seen = 0;
    ASSERT_TRUE(store.read(name, [&seen](const char *, size_t size) {
        seen += size;
        return false;
    }));
    EXPECT_LT(seen, bytes.size());

    // A large upload dropped after parts went out leaves nothing, not even parts.
    {
        std::unique_ptr<MediaUpload> cut = store.begin("cam2/200/200_0010.media");
        const std::string piece = pattern(kPart + 10, 4);
        cut->write(piece.data(), piece.size());
    }
    EXPECT_EQ(store.sweep_temporary(), 0u);
    EXPECT_EQ(store.list().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Stores, MediaStoreTest, ::testing::Values("file", "s3"),
                         [](const auto &param) { return std::string(param.param); });

TEST(FsMediaStoreTest, ASharedDirectoryKeepsTemporaryFilesStillBeingWritten) {
    namespace fs = std::filesystem;
    const struct {
        const char *what;
        bool shared;
        std::chrono::seconds idle;
        size_t swept;
    } cases[] = {
        {"own directory, fresh", false, std::chrono::seconds(0), 1},
        {"shared, fresh: maybe another's upload", true, std::chrono::seconds(0), 0},
        {"shared, idle just short of the age", true,
         std::chrono::seconds(MediaStore::kStaleUploadAge - 60), 0},
        {"shared, idle past the age", true, std::chrono::seconds(MediaStore::kStaleUploadAge + 60),
         1},
    };
    for (const auto &c : cases) {
        vexo_test::TempDir dir("vexo-media-sweep");
        FsMediaStore store(dir.path(), real_file_system(), c.shared);
        EXPECT_EQ(store.shared(), c.shared);
        EXPECT_EQ(store.sweep_temporary(), 0u) << c.what;
        const std::string left = dir.path() + "/" + kIncomingDirectory + "/upload-Ab12Cd";
        std::ofstream(left) << "partial";
        fs::last_write_time(left, fs::file_time_type::clock::now() - c.idle);
        EXPECT_EQ(store.sweep_temporary(), c.swept) << c.what;
        EXPECT_EQ(fs::exists(left), c.swept == 0) << c.what;
    }
}

TEST(S3MediaStoreTest, SweepAbortsLeftOverUploadsAndADownGatewayIsUnavailable) {
    Gateway &gateway = Gateway::get();
    if (!gateway.available()) {
        ASSERT_FALSE(gateway.installed()) << gateway.why_not();
        GTEST_SKIP() << gateway.why_not();
    }
    S3Config config = gateway.config("vexo-test-sweep");
    S3MediaStore store(config, kPart);
    store.create_bucket();
    // A multipart upload a killed process left: started, never completed nor aborted.
    S3Client client(config);
    S3Request start;
    start.method = "POST";
    start.key = "cam3/300/300_0000.media";
    start.query = "uploads=";
    ASSERT_EQ(client.send(start).status, 200);
    EXPECT_TRUE(store.shared());
    EXPECT_EQ(store.sweep_temporary(), 0u) << "just begun: maybe another service's upload";
    EXPECT_EQ(store.abort_uploads_older_than(600), 0u);
    EXPECT_EQ(store.abort_uploads_older_than(0), 1u) << "every age is old enough";
    EXPECT_EQ(store.abort_uploads_older_than(0), 0u);

    // Wrong keys: an error naming the status and the S3 code.
    S3Config wrong = config;
    wrong.secret_key = "not-the-secret";
    try {
        S3MediaStore(wrong, kPart).list();
        ADD_FAILURE() << "listed with a wrong secret";
    } catch (const FileError &e) {
        EXPECT_EQ(e.error_number(), EACCES);
        EXPECT_NE(std::string(e.what()).find("HTTP 403"), std::string::npos) << e.what();
    }
    // Nothing listening: ECONNREFUSED, which the service answers with 503.
    S3Config nowhere = config;
    nowhere.endpoint = "http://127.0.0.1:1";
    try {
        S3MediaStore(nowhere, kPart).size("cam3/300/300_0000.media");
        ADD_FAILURE() << "a gateway that is not there answered";
    } catch (const FileError &e) {
        EXPECT_EQ(e.error_number(), ECONNREFUSED);
    }
}

} // namespace
} // namespace vexo_cloud
