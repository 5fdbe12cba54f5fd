// Helpers of the end-to-end tests.
#include "e2e_support.h"

#include "processes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace e2e {
namespace fs = std::filesystem;

Result run(const std::vector<std::string> &argv, const std::vector<std::string> &env) {
    const std::string log =
        (fs::temp_directory_path() /
         ("vexo-e2e-" + std::to_string(getpid()) + "-" + std::to_string(std::rand()) + ".log"))
            .string();
    Result r;
    {
        Process process(argv, log, env);
        if (!process.started()) {
            r.out = "cannot start " + argv[0];
            return r;
        }
        // Without a limit: the test's own time limit ends a run that hangs.
        r.status = process.wait(1e9);
        r.out = process.output();
    }
    fs::remove(log);
    return r;
}

std::string make_clip(const std::string &dir, const std::string &name, int width, int height,
                      int fps, int gop, int seconds, const std::string &audio, int kbps) {
    const std::string out = dir + "/" + name;
    std::string args = "-v error -y -f lavfi -i testsrc2=size=" + std::to_string(width) + "x" +
                       std::to_string(height) + ":rate=" + std::to_string(fps);
    if (!audio.empty()) {
        args += " -f lavfi -i sine=frequency=440:sample_rate=8000";
    }
    const std::string g = std::to_string(gop);
    const std::string k = std::to_string(kbps);
    args += " -t " + std::to_string(seconds) + " -c:v libx264 -preset veryfast -bf 0 -g " + g +
            " -keyint_min " + g + " -sc_threshold 0 -b:v " + k + "k -maxrate " +
            std::to_string(kbps * 3 / 2) + "k -bufsize " + k + "k -pix_fmt yuv420p";
    if (audio == "aac") {
        args += " -c:a aac -b:a 32k -ac 1";
    } else if (!audio.empty()) {
        args += " -c:a " + audio + " -ac 1";
    }
    std::vector<std::string> argv = {"ffmpeg"};
    std::istringstream words(args);
    for (std::string word; words >> word;) {
        argv.push_back(word);
    }
    argv.push_back(out);
    const Result r = run(argv);
    EXPECT_EQ(r.status, 0) << r.out;
    return out;
}

namespace {

/// Start-code positions and NAL types of an Annex-B stream.
struct Nal {
    size_t start; // of the start code
    int type;
};

std::vector<Nal> nal_units(const std::vector<uint8_t> &b) {
    std::vector<Nal> out;
    for (size_t i = 0; i + 3 < b.size(); ++i) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
            const size_t start = (i > 0 && b[i - 1] == 0) ? i - 1 : i;
            out.push_back({start, b[i + 3] & 0x1f});
            i += 2;
        }
    }
    return out;
}

} // namespace

NalList nal_list(const std::vector<uint8_t> &annex_b) {
    NalList out;
    const std::vector<Nal> nals = nal_units(annex_b);
    for (size_t i = 0; i < nals.size(); ++i) {
        if (nals[i].type == 6 || nals[i].type == 9) {
            continue;
        }
        size_t begin = nals[i].start + 3;
        if (annex_b[nals[i].start + 2] == 0) {
            ++begin; // four-byte start code
        }
        const size_t end = i + 1 < nals.size() ? nals[i + 1].start : annex_b.size();
        out.emplace_back(annex_b.begin() + static_cast<std::ptrdiff_t>(begin),
                         annex_b.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return out;
}

std::vector<NalList> source_key_frames(const std::string &dir, const std::string &clip) {
    const std::string raw = dir + "/source.h264";
    const Result r = run({"ffmpeg", "-v", "error", "-y", "-i", clip, "-map", "0:v", "-c:v", "copy",
                          "-bsf:v", "h264_mp4toannexb", "-f", "h264", raw});
    EXPECT_EQ(r.status, 0) << r.out;
    std::ifstream in(raw, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                     std::istreambuf_iterator<char>());
    // A key access unit runs from its SPS (7) to the next SPS, SEI or non-IDR slice (1).
    std::vector<NalList> keys;
    const std::vector<Nal> nals = nal_units(bytes);
    for (size_t i = 0; i < nals.size(); ++i) {
        if (nals[i].type != 7) {
            continue;
        }
        size_t end = bytes.size();
        bool seen_idr = false;
        for (size_t j = i + 1; j < nals.size(); ++j) {
            if (nals[j].type == 5) {
                seen_idr = true;
            } else if (seen_idr && (nals[j].type == 1 || nals[j].type == 7 || nals[j].type == 6 ||
                                    nals[j].type == 9)) {
                end = nals[j].start;
                break;
            }
        }
        keys.push_back(nal_list(
            std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(nals[i].start),
                                 bytes.begin() + static_cast<std::ptrdiff_t>(end))));
    }
    return keys;
}

std::vector<RecordingContent> read_cloud(const std::string &cloud_dir, const std::string &device) {
    std::vector<RecordingContent> out;
    for (const vexo_cloud::Recording &rec : vexo_cloud::read_recordings(cloud_dir, device)) {
        RecordingContent c;
        c.info = rec;
        for (const vexo_cloud::MediaFileInfo &f : rec.files) {
            std::vector<vexo_media::Entry> entries;
            vexo_media::Fault fault;
            if (!vexo_media::read_file(rec.directory + "/" + f.name, &entries, &fault)) {
                c.faults.push_back(fault.text());
            }
            c.entries.insert(c.entries.end(), entries.begin(), entries.end());
        }
        out.push_back(std::move(c));
    }
    return out;
}

int decoded_video_frames(const std::string &file, std::string *errors) {
    // Decode everything (errors to the log), then count the decoded video frames.
    const Result decode = run({"ffmpeg", "-v", "error", "-i", file, "-f", "null", "-"});
    *errors = decode.out;
    if (decode.status != 0) {
        return -1;
    }
    const Result count = run({"ffprobe", "-v", "error", "-select_streams", "v:0", "-count_frames",
                              "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", file});
    if (count.status != 0) {
        *errors += count.out;
        return -1;
    }
    return std::atoi(count.out.c_str());
}

Counts count(const RecordingContent &rec) {
    Counts c;
    for (const vexo_media::Entry &e : rec.entries) {
        if (e.type == vexo_media::kTypeAudio) {
            ++c.audio;
        } else {
            ++c.video;
            c.key += e.type == vexo_media::kTypeKey;
        }
    }
    return c;
}

void check_recording(const std::string &media_tool, const std::string &device,
                     const RecordingContent &rec, const std::string &data,
                     const std::set<e2e::NalList> &source_keys, int fps, const std::string &out_dir,
                     bool closed) {
    SCOPED_TRACE("recording " + std::to_string(rec.info.start_time));
    EXPECT_TRUE(rec.faults.empty()) << rec.faults.front();
    ASSERT_FALSE(rec.entries.empty());
    // Uninit leaves the recording in progress open: it sends no stop notification.
    EXPECT_EQ(rec.info.end_time != 0, closed);
    const uint32_t first_type = rec.entries.front().type;
    EXPECT_TRUE(first_type == vexo_media::kTypeKey || first_type == vexo_media::kTypeAudio);

    vexo_media::Key key{};
    ASSERT_TRUE(vexo_media::key_from_text(rec.info.key, &key));
    EXPECT_EQ(vexo_media::key_md5(key), rec.info.key_md5);

    uint64_t first_video = 0;
    uint64_t last_video = 0;
    size_t video = 0;
    size_t keys_matched = 0;
    for (const vexo_media::Entry &e : rec.entries) {
        if (e.type == vexo_media::kTypeAudio) {
            continue;
        }
        if (video == 0) {
            first_video = e.timestamp;
        } else {
            EXPECT_GT(e.timestamp, last_video) << "video time stamps out of order";
        }
        last_video = e.timestamp;
        ++video;
        if (e.type == vexo_media::kTypeKey) {
            std::vector<uint8_t> plain;
            ASSERT_TRUE(vexo_media::plain_payload(key, e, &plain)) << "offset " << e.offset;
            keys_matched += source_keys.count(e2e::nal_list(plain));
        }
    }
    const Counts c = count(rec);
    EXPECT_GT(c.key, 0u);
    EXPECT_EQ(keys_matched, c.key) << "key frames that are not the clip's";
    // The camera stamps frame k at k * 1000 / fps ms: every frame of the window is there.
    const uint64_t span_frames = (last_video - first_video) * static_cast<uint64_t>(fps) / 1000;
    EXPECT_EQ(video, span_frames + 1)
        << "video frames missing between " << first_video << " and " << last_video;

    const std::string start = std::to_string(rec.info.start_time);
    const e2e::Result verify =
        e2e::run({media_tool, "verify", "--data", data, "--device", device, start});
    EXPECT_EQ(verify.status, 0) << verify.out;

    const std::string exported = out_dir + "/" + start + ".mp4";
    const e2e::Result exp =
        e2e::run({media_tool, "export", "--data", data, "--device", device, start, "-o", exported});
    ASSERT_EQ(exp.status, 0) << exp.out;
    std::string errors;
    const int decoded = e2e::decoded_video_frames(exported, &errors);
    EXPECT_EQ(errors, "") << "ffmpeg decode errors";
    EXPECT_EQ(decoded, static_cast<int>(video)) << "frames in the export";
}

} // namespace e2e
