// vexo-media on a small recording made here: a two-second H.264 clip and its audio, split
// into entries, encrypted and laid out as the cloud service stores them. The exported files
// are counted with ffprobe.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/wait.h>

#include "media_builder.h"

namespace {

using media_test::Bytes;

constexpr uint32_t kStart = 1714564800;
constexpr uint64_t kBaseMs = uint64_t{kStart} * 1000 + 250;
constexpr int kVideoFrames = 20; // 2 s at 10 fps, a key frame every 10
const char kKeyText[] = "0123456789abcdef";
const char kKeyMd5[] = "4032af8d61035123906e58e067140cc5";

struct RunResult {
    int status = -1;
    std::string output;
};

RunResult run(const std::string &command) {
    RunResult result;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        result.output.append(buffer, got);
    }
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

Bytes read_all(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// Access units of an Annex-B stream of single-slice pictures: a unit ends where a NAL unit
/// follows the picture's slice. Each with whether it is a key frame.
std::vector<std::pair<Bytes, bool>> access_units(const Bytes &stream, bool hevc) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 < stream.size(); ++i) {
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            starts.push_back(i > 0 && stream[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    }
    std::vector<std::pair<Bytes, bool>> units;
    Bytes current;
    bool has_slice = false;
    bool key = false;
    for (size_t n = 0; n < starts.size(); ++n) {
        const size_t end = n + 1 < starts.size() ? starts[n + 1] : stream.size();
        const size_t header = stream[starts[n] + 2] == 1 ? starts[n] + 3 : starts[n] + 4;
        const int type = hevc ? (stream[header] >> 1) & 0x3f : stream[header] & 0x1f;
        if (has_slice) {
            units.emplace_back(current, key);
            current.clear();
            has_slice = key = false;
        }
        current.insert(current.end(), stream.begin() + static_cast<std::ptrdiff_t>(starts[n]),
                       stream.begin() + static_cast<std::ptrdiff_t>(end));
        has_slice = hevc ? type < 32 : type == 1 || type == 5;
        key = key || (hevc ? type >= 16 && type <= 21 : type == 5);
    }
    if (!current.empty()) {
        units.emplace_back(current, key);
    }
    return units;
}

std::vector<Bytes> adts_frames(const Bytes &stream) {
    std::vector<Bytes> frames;
    for (size_t at = 0; at + 7 <= stream.size();) {
        const size_t length = (static_cast<size_t>(stream[at + 3] & 3) << 11) |
                              (static_cast<size_t>(stream[at + 4]) << 3) | (stream[at + 5] >> 5);
        if (length < 7 || at + length > stream.size()) {
            break;
        }
        frames.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(at),
                            stream.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
    }
    return frames;
}

struct Frame {
    uint32_t type;
    uint64_t timestamp;
    Bytes bytes;
};

class MediaTool : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // A sanitizer report in the tool must not pass for exit status 1 (a fault).
        for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
            const char *old = std::getenv(name);
            setenv(name, (std::string(old != nullptr ? old : "") + ":exitcode=86").c_str(), 1);
        }
        sources_ = new media_test::TempDir();
    }
    static void TearDownTestSuite() {
        delete sources_;
        sources_ = nullptr;
    }

    /// The bytes of a clip made with ffmpeg on first use: v.h264, v.hevc (2 s at 10 fps, a key
    /// frame every 10), a.ul (G.711 mu-law, 8 kHz), a.aac (ADTS, 16 kHz).
    static Bytes source(const std::string &name) {
        static const std::map<std::string, std::string> kRecipes = {
            {"v.h264", "testsrc2=size=160x120:rate=10 -t 2 -c:v libx264 -bf 0 -g 10 "
                       "-bsf:v h264_mp4toannexb -f h264"},
            {"v.hevc", "testsrc2=size=160x120:rate=10 -t 2 -c:v libx265 -x265-params "
                       "log-level=error:bframes=0:keyint=10:min-keyint=10:scenecut=0 "
                       "-bsf:v hevc_mp4toannexb -f hevc"},
            {"a.ul", "sine=frequency=440:sample_rate=8000 -t 2 -c:a pcm_mulaw -f mulaw"},
            {"a.aac", "sine=frequency=440:sample_rate=16000 -t 2 -c:a aac -f adts"},
        };
        const std::string path = sources_->path() + "/" + name;
        if (!std::ifstream(path).good()) {
            const RunResult made =
                run("ffmpeg -nostdin -v error -y -f lavfi -i " + kRecipes.at(name) + " " + path);
            EXPECT_EQ(made.status, 0)
                << "ffmpeg (from scripts/install-deps.sh) failed: " << made.output;
        }
        return read_all(path);
    }

    /// The recording's frames in time order: video at 10 fps, audio as given.
    static std::vector<Frame> frames(bool hevc, bool aac) {
        const auto video = access_units(source(hevc ? "v.hevc" : "v.h264"), hevc);
        EXPECT_EQ(video.size(), static_cast<size_t>(kVideoFrames));
        EXPECT_TRUE(video.size() > 10 && video[0].second && video[10].second)
            << "key frames every 10 expected";
        std::vector<Frame> out;
        for (size_t i = 0; i < video.size(); ++i) {
            out.push_back({video[i].second ? 1u : 0u, kBaseMs + 100 * i, video[i].first});
        }
        if (aac) {
            const std::vector<Bytes> audio = adts_frames(source("a.aac"));
            for (size_t i = 0; i < audio.size(); ++i) {
                out.push_back({3, kBaseMs + 64 * i, audio[i]}); // 1024 samples at 16 kHz
            }
        } else {
            const Bytes audio = source("a.ul");
            for (size_t at = 0, i = 0; at < audio.size(); at += 320, ++i) {
                const size_t end = std::min(audio.size(), at + 320); // 40 ms at 8 kHz
                out.push_back({3, kBaseMs + 40 * i,
                               Bytes(audio.begin() + static_cast<std::ptrdiff_t>(at),
                                     audio.begin() + static_cast<std::ptrdiff_t>(end))});
            }
        }
        std::stable_sort(out.begin(), out.end(),
                         [](const Frame &a, const Frame &b) { return a.timestamp < b.timestamp; });
        return out;
    }

    /// Writes the recording: a media file per second, each starting at a key frame.
    std::vector<std::string> write_recording(bool aac, bool hevc = false) const {
        const std::string dir = data_.path() + "/cam-1/" + std::to_string(kStart);
        std::vector<Bytes> files(2);
        for (const Frame &f : frames(hevc, aac)) {
            const size_t file = f.timestamp - kBaseMs >= 1000 ? 1 : 0;
            files[file] = media_test::concat(
                {files[file], f.type == 0 ? media_test::entry(0, f.bytes, f.timestamp)
                                          : media_test::sealed_entry(media_test::kTestKey, f.type,
                                                                     f.bytes, f.timestamp)});
        }
        const std::string audio_info = aac ? R"(,\"aType\":\"104\",\"aSampling\":16000)"
                                           : R"(,\"aType\":\"102\",\"aSampling\":8000)";
        std::ostringstream json;
        json << "{\"startTime\":" << kStart << ",\"endTime\":" << kStart + 2
             << R"(,"payloadInfo":"{\"v\":1,\"vType\":\")" << (hevc ? 4 : 2)
             << R"(\",\"vFps\":10,\"vWide\":160,)"
             << R"(\"vHigh\":120)" << audio_info << R"(,\"aBitwide\":16,\"aChannels\":1}",)"
             << R"("mtu":1,"enKeyMd5":")" << kKeyMd5 << R"(","key":")" << kKeyText
             << R"(","keyMd5":")" << kKeyMd5 << "\"}\n";
        const std::string name = std::to_string(kStart);
        const std::string text = json.str();
        data_.write("cam-1/" + name + "/recording.json", Bytes(text.begin(), text.end()));
        return {data_.write("cam-1/" + name + "/" + name + "_0000.media", files[0]),
                data_.write("cam-1/" + name + "/" + name + "_0001.media", files[1])};
    }

    /// A second recording of cam-1, a minute after the first, with copies of its media files
    /// and a recording.json cut short; returns that recording.json's path.
    std::string write_damaged_copy(const std::vector<std::string> &paths) const {
        const std::string name = std::to_string(kStart + 60);
        for (size_t i = 0; i < paths.size(); ++i) {
            data_.write("cam-1/" + name + "/" + name + "_000" + std::to_string(i) + ".media",
                        read_all(paths[i]));
        }
        const std::string cut = "{\"startTime\":" + name + ",\"endTime\":";
        return data_.write("cam-1/" + name + "/recording.json", Bytes(cut.begin(), cut.end()));
    }

    RunResult tool(const std::string &args) const {
        return run(std::string(VEXO_MEDIA_TOOL) + " " + args + " --data " + data_.path());
    }

    /// "<codec>,<frames decoded>" of the first stream of a kind ("v" or "a").
    static std::string probe(const std::string &file, const char *kind) {
        const RunResult r =
            run(std::string("ffprobe -v error -count_frames -select_streams ") + kind +
                ":0 -show_entries stream=codec_name,nb_read_frames " + "-of csv=p=0 " + file);
        std::string text = r.output;
        while (!text.empty() && (text.back() == '\n' || text.back() == ',')) {
            text.pop_back();
        }
        return text;
    }

    std::string out(const std::string &name) const { return data_.path() + "/" + name; }

    static media_test::TempDir *sources_;
    media_test::TempDir data_;
};

media_test::TempDir *MediaTool::sources_ = nullptr;

TEST_F(MediaTool, ExportsEachCodecIntoBothContainers) {
    const std::string aac_frames = std::to_string(adts_frames(source("a.aac")).size());
    const struct {
        bool aac, hevc;
        std::string args; // the output file follows
        const char *file;
        std::string video, audio; // "": not probed
    } cases[] = {
        // G.711 is transcoded to AAC for MP4 and copied into MKV.
        {false, false, "export --device cam-1 " + std::to_string(kStart) + " -o ", "x.mp4",
         "h264,20", "aac,"},
        {false, false, "export --all --format mkv --out-dir ", "all", "h264,20", "pcm_mulaw,50"},
        {false, true, "export " + std::to_string(kStart) + " -o ", "h.mp4", "hevc,20", ""},
        {false, true, "export " + std::to_string(kStart) + " -o ", "h.mkv", "hevc,20", ""},
        {true, false, "export " + std::to_string(kStart) + " -o ", "y.mp4", "h264,20",
         "aac," + aac_frames},
        {true, false, "export " + std::to_string(kStart) + " -o ", "y.mkv", "h264,20",
         "aac," + aac_frames},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        write_recording(c.aac, c.hevc);
        const RunResult r = tool(c.args + out(c.file));
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("20 video"), std::string::npos) << r.output;
        const std::string file = std::string(c.file) == "all"
                                     ? out("all/cam-1_" + std::to_string(kStart) + ".mkv")
                                     : out(c.file);
        EXPECT_EQ(probe(file, "v"), c.video);
        const std::string audio = c.audio.empty() ? "" : probe(file, "a");
        if (c.audio == "aac,") {
            // 2 s of 8 kHz audio is 16000 samples: 15 or 16 AAC frames of 1024 (the last short).
            EXPECT_EQ(audio.rfind("aac,", 0), 0u) << audio;
            EXPECT_GE(std::stoi(audio.substr(4)), 15) << audio;
        } else {
            EXPECT_EQ(audio, c.audio);
        }
    }
}

TEST_F(MediaTool, DamagedFileKeepsTheFramesBeforeTheDamage) {
    const std::vector<std::string> paths = write_recording(false);
    // Cut the second file inside its fourth entry; what comes before stays readable.
    std::vector<vexo_media::Entry> entries;
    vexo_media::Fault fault;
    ASSERT_TRUE(vexo_media::read_file(paths[1], &entries, &fault));
    Bytes second = read_all(paths[1]);
    second.resize(entries[3].offset + 30);
    data_.write("cam-1/" + std::to_string(kStart) + "/" + std::to_string(kStart) + "_0001.media",
                second);
    uint64_t video_before = 10;
    for (size_t i = 0; i < 3; ++i) {
        video_before += entries[i].type != 3 ? 1 : 0;
    }
    const RunResult r = tool("export " + std::to_string(kStart) + " -o " + out("d.mkv"));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("_0001.media: offset " + std::to_string(entries[3].offset)),
              std::string::npos)
        << r.output;
    EXPECT_EQ(probe(out("d.mkv"), "v"), "h264," + std::to_string(video_before));

    const RunResult verify = tool("verify");
    EXPECT_EQ(verify.status, 1) << verify.output;
    EXPECT_NE(verify.output.find("offset " + std::to_string(entries[3].offset)), std::string::npos)
        << verify.output;
}

/// The lines of the output that mention a text.
std::string lines_with(const std::string &output, const std::string &text) {
    std::istringstream in(output);
    std::string found;
    for (std::string line; std::getline(in, line);) {
        if (line.find(text) != std::string::npos) {
            found += line + "\n";
        }
    }
    return found;
}

TEST_F(MediaTool, ListVerifyAndExportGoOnPastADamagedRecordingJson) {
    const std::string damaged = write_damaged_copy(write_recording(false));
    const std::string good = std::to_string(kStart);
    const std::string bad = std::to_string(kStart + 60);

    const RunResult ls = tool("ls");
    EXPECT_EQ(ls.status, 1) << ls.output;
    EXPECT_NE(ls.output.find("warning: " + damaged + ": not a JSON object"), std::string::npos)
        << ls.output;
    EXPECT_NE(lines_with(ls.output, good).find(kKeyMd5), std::string::npos) << ls.output;
    EXPECT_NE(lines_with(ls.output, " " + bad + " ").find("damaged"), std::string::npos)
        << ls.output;

    // Without a key the damaged recording's files are still checked for their structure.
    const RunResult verify = tool("verify");
    EXPECT_EQ(verify.status, 1) << verify.output;
    EXPECT_NE(lines_with(verify.output, "cam-1 " + good + ":").find(": ok"), std::string::npos)
        << verify.output;
    EXPECT_NE(lines_with(verify.output, "cam-1 " + bad + ":").find("2 files"), std::string::npos)
        << verify.output;
    EXPECT_NE(verify.output.find("  recording.json: not a JSON object"), std::string::npos)
        << verify.output;

    // With --key its entries are decrypted too: the damaged metadata is its only fault.
    const RunResult keyed = tool("verify --key " + std::string(kKeyText) + " " + bad);
    EXPECT_EQ(keyed.status, 1) << keyed.output;
    EXPECT_EQ(lines_with(keyed.output, "no key"), "") << keyed.output;
    EXPECT_NE(keyed.output.find(": 1 faults"), std::string::npos) << keyed.output;

    // Exporting them all skips only the damaged one; asked for by name, it is an error.
    const std::string bad_file = out("all/cam-1_" + bad + ".mp4");
    const RunResult all = tool("export --all --out-dir " + out("all"));
    EXPECT_EQ(all.status, 1) << all.output;
    EXPECT_NE(all.output.find(damaged + ": not a JSON object"), std::string::npos) << all.output;
    EXPECT_EQ(probe(out("all/cam-1_" + good + ".mp4"), "v"), "h264,20");
    EXPECT_FALSE(std::ifstream(bad_file).good());
    EXPECT_FALSE(std::ifstream(bad_file + ".part").good());
    const RunResult one =
        tool("export --key " + std::string(kKeyText) + " " + bad + " -o " + out("one.mp4"));
    EXPECT_EQ(one.status, 1) << one.output;
    EXPECT_NE(one.output.find(damaged), std::string::npos) << one.output;
    EXPECT_FALSE(std::ifstream(out("one.mp4")).good());
}

TEST_F(MediaTool, ListShowsGapsAmongRecordingsAndRecordingsLeftOpen) {
    write_recording(false);
    const auto text = [this](const std::string &name, const std::string &content) {
        data_.write(name, Bytes(content.begin(), content.end()));
    };
    // Without an end: one that a later recording follows, and one started just now.
    const uint32_t now = static_cast<uint32_t>(std::time(nullptr));
    for (const uint32_t start : {kStart + 600, now - 5}) {
        const std::string name = std::to_string(start);
        text("cam-1/" + name + "/recording.json",
             R"({"startTime":)" + name +
                 R"(,"endTime":0,"payloadInfo":"{}","mtu":10,"enKeyMd5":"","key":"","keyMd5":""})");
    }
    text("cam-1/gaps.json", R"({"gaps":[{"from":1714564900,"to":1714565300,"reason":"spool full",)"
                            R"("bytes":1234567}]})");
    // A camera whose every recording was dropped still shows what it lost.
    text("cam-2/gaps.json",
         R"({"gaps":[{"from":1714564900,"to":1714564999,"reason":"too old","bytes":0}]})");

    const RunResult ls = tool("ls");
    EXPECT_EQ(ls.status, 0) << ls.output;
    const std::string expected[] = {"DEVICE",
                                    " " + std::to_string(kStart) + " ",
                                    "cam-1                gap  ",
                                    std::to_string(kStart + 600) + " left open by the camera",
                                    std::to_string(now - 5) + " open ",
                                    "cam-2                gap  "};
    std::istringstream in(ls.output);
    size_t n = 0;
    for (std::string line; std::getline(in, line); ++n) {
        ASSERT_LT(n, std::size(expected)) << ls.output;
        EXPECT_NE(line.find(expected[n]), std::string::npos) << line;
    }
    EXPECT_EQ(n, std::size(expected)) << ls.output;
    EXPECT_NE(ls.output.find("  spool full  1.2 MB dropped\n"), std::string::npos) << ls.output;

    // A damaged gaps file is a warning; the rest is still listed.
    text("cam-1/gaps.json", R"({"gaps":[{"from":5,"to":4,"reason":"too old","bytes":0}]})");
    const RunResult damaged = tool("ls --device cam-1");
    EXPECT_EQ(damaged.status, 1) << damaged.output;
    EXPECT_NE(damaged.output.find("cam-1/gaps.json: gap 1: to is before from"), std::string::npos)
        << damaged.output;
    EXPECT_NE(lines_with(damaged.output, "left open by the camera"), "") << damaged.output;
}

TEST_F(MediaTool, CommandErrorsExitWithTwo) {
    write_recording(false);
    const std::string start = std::to_string(kStart);
    const struct {
        const char *what;
        std::string args;
    } cases[] = {
        {"unknown recording", "export 1700000000 -o " + out("n.mp4")},
        {"key of the wrong length", "export --key short " + start + " -o " + out("n.mp4")},
        {"unknown container", "export " + start + " -o " + out("n.avi")},
        {"unwritable output", "export " + start + " -o " + out("no/such/dir/n.mp4")},
        {"unknown option", "verify --bogus"},
        {"unknown command", "frobnicate"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const RunResult r = tool(c.args);
        EXPECT_EQ(r.status, 2) << r.output;
    }
    EXPECT_FALSE(std::ifstream(out("n.mp4")).good());
    EXPECT_FALSE(std::ifstream(out("n.mp4.part")).good());
}

} // namespace
