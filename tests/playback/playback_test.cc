// The playback requests of the admin interface on real recordings: the camera simulator
// records a closed event recording with an alarm picture (one device) and an open all-time
// recording (another device) into the embedded cloud; a service on that data directory then
// answers through handle_admin, and ffprobe/ffmpeg judge what it gives.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "admin_api.h"
#include "e2e_support.h"
#include "processes.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using vexo_cloud::Request;
using vexo_cloud::Response;

const std::string kCamsim = VEXO_E2E_CAMSIM;
const std::string kCloudTool = VEXO_PLAYBACK_CLOUD;
const std::string kClosedDevice = "pb-closed";
const std::string kOpenDevice = "pb-open";
constexpr int kFps = 10;
constexpr double kFrame = 1.0 / kFps;

/// The data directory both runs recorded into, made once for the whole suite.
class Recorded {
  public:
    static Recorded &get() {
        static Recorded instance;
        return instance;
    }
    std::string cloud() const { return tmp_.path() + "/data/cloud"; }
    std::string dir() const { return tmp_.path(); }
    std::string failure;

  private:
    Recorded() {
        const std::string clip =
            e2e::make_clip(tmp_.path(), "clip.mp4", 160, 120, kFps, 20, 4, "aac", 100);
        const std::string data = tmp_.path() + "/data";
        const std::vector<std::vector<std::string>> runs = {
            {"--device", kClosedDevice, "--motion", "1+8", "--event-duration", "8", "--trigger",
             "2:pic", "--duration", "14"},
            {"--device", kOpenDevice, "--mode", "alltime", "--duration", "12"}};
        for (const auto &extra : runs) {
            std::vector<std::string> argv = {kCamsim, "--quiet", "--input", clip,      "--data",
                                             data,    "--speed", "4",       "--slice", "4"};
            argv.insert(argv.end(), extra.begin(), extra.end());
            const e2e::Result r = e2e::run(argv);
            if (r.status != 0) {
                failure += r.out;
            }
        }
    }
    vexo_test::TempDir tmp_{"vexo-playback"};
};

/// A service on a data directory whose log lines the test reads.
class Served {
  public:
    explicit Served(const std::string &data_dir, uint32_t clock = 0) {
        vexo_cloud::Options options;
        options.data_dir = data_dir;
        if (clock != 0) {
            options.clock = [clock] { return clock; };
        }
        options.log = [this](const std::string &line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        };
        service_ = std::make_unique<vexo_cloud::Service>(options);
    }
    Response get(const std::string &path) {
        Request request;
        request.method = "GET";
        request.path = "/v1/admin/devices/" + path;
        return vexo_cloud::handle_admin(*service_, request, "");
    }
    std::vector<std::string> log() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    vexo_cloud::Service &service() { return *service_; }

  private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
    std::unique_ptr<vexo_cloud::Service> service_;
};

struct Stream {
    std::string type, codec;
    int frames = 0;
    double start = NAN;
    int width = 0;
};

/// The streams of a media file as ffprobe reads them, frames counted by decoding.
std::vector<Stream> probe(const std::string &file) {
    const e2e::Result r = e2e::run({"ffprobe", "-v", "error", "-count_frames", "-show_entries",
                                    "stream=codec_type,codec_name,nb_read_frames,start_time,width",
                                    "-of", "json", file});
    std::vector<Stream> streams;
    if (r.status != 0) {
        ADD_FAILURE() << "ffprobe " << file << ": " << r.out;
        return streams;
    }
    const Json json = Json::parse(r.out, nullptr, false);
    for (const Json &s : json.value("streams", Json::array())) {
        Stream stream;
        stream.type = s.value("codec_type", "");
        stream.codec = s.value("codec_name", "");
        stream.frames = std::stoi(s.value("nb_read_frames", "0"));
        stream.start = std::stod(s.value("start_time", "nan"));
        stream.width = s.value("width", 0);
        streams.push_back(stream);
    }
    return streams;
}

std::optional<Stream> stream_of(const std::vector<Stream> &streams, const std::string &type) {
    for (const Stream &s : streams) {
        if (s.type == type) {
            return s;
        }
    }
    return std::nullopt;
}

std::string write_file(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

/// The EXTINF durations of a playlist, and whether it has each tag.
struct Playlist {
    std::vector<double> durations;
    std::vector<std::string> uris;
    int target = 0;
    std::string type;
    bool ended = false;
};

Playlist parse_playlist(const std::string &text) {
    Playlist list;
    std::istringstream in(text);
    std::string line;
    EXPECT_TRUE(std::getline(in, line) && line == "#EXTM3U") << text;
    while (std::getline(in, line)) {
        if (line.rfind("#EXTINF:", 0) == 0) {
            list.durations.push_back(std::stod(line.substr(8)));
        } else if (line.rfind("#EXT-X-TARGETDURATION:", 0) == 0) {
            list.target = std::stoi(line.substr(22));
        } else if (line.rfind("#EXT-X-PLAYLIST-TYPE:", 0) == 0) {
            list.type = line.substr(21);
        } else if (line == "#EXT-X-ENDLIST") {
            list.ended = true;
        } else if (!line.empty() && line[0] != '#') {
            list.uris.push_back(line);
        }
    }
    return list;
}

class Playback : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Recorded::get().failure.empty()) << Recorded::get().failure;
        served_.emplace(Recorded::get().cloud());
        for (const std::string &device : {kClosedDevice, kOpenDevice}) {
            const std::vector<vexo_cloud::Recording> recordings =
                served_->service().recordings(device);
            ASSERT_EQ(recordings.size(), 1u) << device;
            start_[device] = std::to_string(recordings[0].start_time);
        }
    }
    std::string recording_path(const std::string &device, const std::string &rest) {
        return device + "/recordings/" + start_[device] + "/" + rest;
    }

    e2e::TempDir out_;
    std::optional<Served> served_;
    std::map<std::string, std::string> start_;
};

TEST_F(Playback, PlaylistDurationsSpanTheRecordingAndSegmentsLineUp) {
    for (const std::string &device : {kClosedDevice, kOpenDevice}) {
        SCOPED_TRACE(device);
        const Response answer = served_->get(recording_path(device, "playlist.m3u8"));
        ASSERT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.content_type, "application/vnd.apple.mpegurl");
        const Playlist list = parse_playlist(answer.body);
        const std::vector<e2e::RecordingContent> content =
            e2e::read_cloud(Recorded::get().cloud(), device);
        ASSERT_EQ(content.size(), 1u);
        const auto &entries = content[0].entries;
        ASSERT_FALSE(entries.empty());
        ASSERT_EQ(list.durations.size(), content[0].info.files.size());
        const bool closed = device == kClosedDevice;
        EXPECT_EQ(list.type, closed ? "VOD" : "EVENT");
        EXPECT_EQ(list.ended, closed);

        double sum = 0, longest = 0;
        for (const double d : list.durations) {
            sum += d;
            longest = std::max(longest, d);
        }
        EXPECT_EQ(list.target, static_cast<int>(std::ceil(longest)));
        const double span =
            static_cast<double>(entries.back().timestamp - entries.front().timestamp) / 1000.0;
        EXPECT_NEAR(sum, span, kFrame + 0.001) << answer.body;

        // Each segment decodes: H.264 video starting where the playlist puts it, AAC audio.
        // The recording's files in elapsed order, with their video frames.
        std::vector<std::pair<uint64_t, std::string>> files;
        for (const vexo_cloud::MediaFileInfo &file : content[0].info.files) {
            files.emplace_back(std::stoull(file.name.substr(file.name.find('_') + 1)), file.name);
        }
        std::sort(files.begin(), files.end());
        double at = NAN;
        double expected = 0;
        size_t frames = 0;
        for (size_t n = 0; n < list.uris.size(); ++n) {
            SCOPED_TRACE("segment " + std::to_string(n));
            ASSERT_EQ(list.uris[n], "segments/" + std::to_string(n) + ".ts");
            const Response segment = served_->get(recording_path(device, list.uris[n]));
            ASSERT_EQ(segment.status, 200) << segment.body;
            EXPECT_EQ(segment.content_type, "video/mp2t");
            const std::vector<Stream> streams = probe(
                write_file(out_.path() + "/" + device + std::to_string(n) + ".ts", segment.body));
            const std::optional<Stream> video = stream_of(streams, "video");
            const std::optional<Stream> audio = stream_of(streams, "audio");
            ASSERT_TRUE(video && audio);
            EXPECT_EQ(video->codec, "h264");
            EXPECT_EQ(audio->codec, "aac");
            EXPECT_GT(audio->frames, 0);
            std::vector<vexo_media::Entry> file_entries;
            vexo_media::Fault fault;
            ASSERT_TRUE(vexo_media::read_file(content[0].info.directory + "/" + files.at(n).second,
                                              &file_entries, &fault));
            const auto in_file =
                std::count_if(file_entries.begin(), file_entries.end(),
                              [](const auto &e) { return e.type != vexo_media::kTypeAudio; });
            EXPECT_EQ(video->frames, in_file) << "the segment holds its file's frames";
            frames += video->frames;
            // A segment starts with its file's first entry, audio or video.
            const double start = std::min(video->start, audio->start);
            if (n == 0) {
                at = start; // where the muxer puts the recording's first entry
            }
            EXPECT_NEAR(start - at, expected, kFrame + 0.001)
                << "not continuous with the segment before";
            expected += list.durations[n];
        }
        EXPECT_EQ(frames, e2e::count(content[0]).video) << "every video frame, once";
    }
}

TEST_F(Playback, ARecordingLeftOpenForGoodPlaysAsFinished) {
    // A day on, the camera will not close its all-time recording any more.
    served_.reset();
    Served later(Recorded::get().cloud(), std::stoul(start_[kOpenDevice]) + 86400);
    const Response answer = later.get(recording_path(kOpenDevice, "playlist.m3u8"));
    ASSERT_EQ(answer.status, 200) << answer.body;
    const Playlist list = parse_playlist(answer.body);
    EXPECT_EQ(list.type, "VOD");
    EXPECT_TRUE(list.ended);
}

TEST_F(Playback, ThumbnailExportAndAlarmPicture) {
    const Response thumbnail = served_->get(recording_path(kClosedDevice, "thumbnail.jpg"));
    ASSERT_EQ(thumbnail.status, 200) << thumbnail.body;
    EXPECT_EQ(thumbnail.content_type, "image/jpeg");
    const std::vector<Stream> picture =
        probe(write_file(out_.path() + "/thumb.jpg", thumbnail.body));
    ASSERT_EQ(picture.size(), 1u);
    EXPECT_EQ(picture[0].codec, "mjpeg");
    EXPECT_EQ(picture[0].width, 160) << "a small picture keeps its size";

    const Response exported = served_->get(recording_path(kClosedDevice, "export.mp4"));
    ASSERT_EQ(exported.status, 200) << exported.body;
    EXPECT_EQ(exported.content_type, "video/mp4");
    ASSERT_TRUE(exported.body.empty()) << "an export is streamed from its file";
    ASSERT_TRUE(exported.body_file_temporary);
    ASSERT_TRUE(fs::exists(exported.body_file));
    const Json header = {{exported.headers.at(0).first, exported.headers.at(0).second}};
    EXPECT_EQ(header, (Json{{"Content-Disposition", "attachment; filename=\"" + kClosedDevice +
                                                        "_" + start_[kClosedDevice] + ".mp4\""}}));
    std::string errors;
    const int frames = e2e::decoded_video_frames(exported.body_file, &errors);
    fs::remove(exported.body_file);
    const std::vector<e2e::RecordingContent> content =
        e2e::read_cloud(Recorded::get().cloud(), kClosedDevice);
    EXPECT_EQ(frames, static_cast<int>(e2e::count(content[0]).video)) << errors;

    const Response alarms = served_->get(kClosedDevice + "/alarms");
    ASSERT_EQ(alarms.status, 200);
    const Json list = Json::parse(alarms.body).at("alarms");
    ASSERT_EQ(list.size(), 1u) << alarms.body;
    ASSERT_TRUE(list[0].at("withPicture").get<bool>());
    const std::string id = std::to_string(list[0].at("id").get<int64_t>());
    const Response jpeg = served_->get(kClosedDevice + "/alarms/" + id + "/picture.jpg");
    ASSERT_EQ(jpeg.status, 200) << jpeg.body;
    EXPECT_EQ(jpeg.content_type, "image/jpeg");
    EXPECT_EQ(jpeg.body.size(), list[0].at("pictureBytes").get<uint64_t>());
    EXPECT_EQ(stream_of(probe(write_file(out_.path() + "/alarm.jpg", jpeg.body)), "video")->codec,
              "mjpeg");
}

TEST_F(Playback, RefusesWhatIsNotThereOrNotTheDevicesOwn) {
    const std::string closed = start_[kClosedDevice];
    const std::string open = start_[kOpenDevice];
    const Json alarms = Json::parse(served_->get(kClosedDevice + "/alarms").body).at("alarms");
    ASSERT_EQ(alarms.size(), 1u);
    const std::string alarm = std::to_string(alarms[0].at("id").get<int64_t>());
    const struct {
        std::string path;
        int status;
    } cases[] = {
        {"nobody/recordings/" + closed + "/playlist.m3u8", 404},
        {kClosedDevice + "/recordings/12345/playlist.m3u8", 404},
        {kOpenDevice + "/recordings/" + closed + "/playlist.m3u8", 404},
        {kOpenDevice + "/recordings/" + closed + "/segments/0.ts", 404},
        {kOpenDevice + "/recordings/" + closed + "/export.mp4", 404},
        {kClosedDevice + "/recordings/" + open + "/thumbnail.jpg", 404},
        {kClosedDevice + "/recordings/" + closed + "/segments/3.ts", 404},
        {kClosedDevice + "/recordings/" + closed + "/segments/99999.ts", 404},
        {kClosedDevice + "/recordings/" + closed + "/other.txt", 404},
        {kOpenDevice + "/alarms/" + alarm + "/picture.jpg", 404},
        {kClosedDevice + "/alarms/99999/picture.jpg", 404},
        {kClosedDevice + "/recordings/12ab/playlist.m3u8", 400},
        {kClosedDevice + "/recordings/99999999999/playlist.m3u8", 400},
        {kClosedDevice + "/recordings/" + closed + "/segments/-1.ts", 400},
        {kClosedDevice + "/recordings/" + closed + "/segments/x.ts", 400},
        {kClosedDevice + "/alarms/1e3/picture.jpg", 400},
    };
    for (const auto &c : cases) {
        const Response answer = served_->get(c.path);
        EXPECT_EQ(answer.status, c.status) << c.path << ": " << answer.body;
        const Json body = Json::parse(answer.body, nullptr, false);
        EXPECT_TRUE(body.is_object() && body.contains("error")) << c.path << ": " << answer.body;
    }
}

TEST_F(Playback, ADamagedFileEndsItsSegmentEarlyWithALogLine) {
    const Response whole = served_->get(recording_path(kClosedDevice, "segments/1.ts"));
    ASSERT_EQ(whole.status, 200);
    const std::optional<Stream> intact =
        stream_of(probe(write_file(out_.path() + "/whole.ts", whole.body)), "video");
    ASSERT_TRUE(intact);

    // The same recording in a copy of the data directory, its second file cut in half.
    e2e::TempDir copy;
    const std::string cloud = copy.path() + "/cloud";
    fs::copy(Recorded::get().cloud(), cloud, fs::copy_options::recursive);
    fs::remove(cloud + "/vexo-cloud.lock");
    const auto files = served_->service().recordings(kClosedDevice).at(0).files;
    ASSERT_GE(files.size(), 2u);
    const std::string damaged =
        cloud + "/" + kClosedDevice + "/" + start_[kClosedDevice] + "/" + files[1].name;
    fs::resize_file(damaged, fs::file_size(damaged) / 2);
    served_.reset();
    Served copy_served(cloud);
    const Response cut = copy_served.get(recording_path(kClosedDevice, "segments/1.ts"));
    ASSERT_EQ(cut.status, 200) << cut.body;
    const std::optional<Stream> shorter =
        stream_of(probe(write_file(out_.path() + "/cut.ts", cut.body)), "video");
    ASSERT_TRUE(shorter);
    EXPECT_GT(shorter->frames, 0) << "what came before the damage is kept";
    EXPECT_LT(shorter->frames, intact->frames);
    bool logged = false;
    for (const std::string &line : copy_served.log()) {
        logged = logged || (line.find("playback: " + kClosedDevice) == 0 &&
                            line.find(files[1].name) != std::string::npos);
    }
    EXPECT_TRUE(logged) << "no log line names the damaged file";
}

/// A URL's host:port and path.
std::pair<std::string, std::string> split_url(const std::string &url) {
    const size_t host = url.find("//") + 2;
    const size_t path = url.find('/', host);
    return {url.substr(host, path - host), url.substr(path)};
}

TEST_F(Playback, OverHttpTheExportStreamsFromAFileThatIsGoneOnceOpen) {
    served_.reset();
    e2e::TempDir dir;
    const std::string temp = dir.path() + "/tmp";
    fs::create_directories(temp);
    fs::copy(Recorded::get().cloud(), dir.path() + "/cloud", fs::copy_options::recursive);
    fs::remove(dir.path() + "/cloud/vexo-cloud.lock");
    e2e::Process cloud(
        {kCloudTool, "serve", "--listen", "127.0.0.1:0", "--data", dir.path() + "/cloud"},
        dir.path() + "/vexo-cloud.log", {"TMPDIR=" + temp});
    const std::string listening = "vexo-cloud: listening on ";
    ASSERT_TRUE(cloud.wait_for(listening, 30)) << cloud.output();
    const std::string out = cloud.output();
    const size_t from = out.find(listening) + listening.size();
    const std::string base = out.substr(from, out.find_first_of(" \n", from) - from);
    const std::string host = split_url(base + "/").first;
    const std::string recording = "http://" + host + "/v1/admin/devices/" + kClosedDevice +
                                  "/recordings/" + start_[kClosedDevice];
    const std::string file = dir.path() + "/export.mp4";
    const e2e::Result curl =
        e2e::run({"curl", "-sS", "-D", "-", "-o", file, recording + "/export.mp4"});
    ASSERT_EQ(curl.status, 0) << curl.out;
    EXPECT_NE(curl.out.find("HTTP/1.1 200"), std::string::npos) << curl.out;
    EXPECT_NE(curl.out.find("Content-Disposition: attachment; filename=\"" + kClosedDevice + "_" +
                            start_[kClosedDevice] + ".mp4\""),
              std::string::npos)
        << curl.out;
    EXPECT_NE(curl.out.find("Content-Type: video/mp4"), std::string::npos) << curl.out;
    std::string errors;
    const std::vector<e2e::RecordingContent> content =
        e2e::read_cloud(Recorded::get().cloud(), kClosedDevice);
    EXPECT_EQ(e2e::decoded_video_frames(file, &errors),
              static_cast<int>(e2e::count(content[0]).video))
        << errors;
    EXPECT_TRUE(fs::is_empty(temp)) << "the export's temporary file was left behind";

    const e2e::Result head = e2e::run({"curl", "-sS", "-I", recording + "/segments/0.ts"});
    EXPECT_NE(head.out.find("Content-Type: video/mp2t"), std::string::npos) << head.out;
    const e2e::Result head_export = e2e::run({"curl", "-sS", "-I", recording + "/export.mp4"});
    EXPECT_NE(head_export.out.find("Content-Length: " + std::to_string(fs::file_size(file))),
              std::string::npos)
        << head_export.out;
    EXPECT_TRUE(fs::is_empty(temp)) << "a HEAD left the export's file behind";
    cloud.signal(SIGTERM);
    EXPECT_EQ(cloud.wait(30), 0) << cloud.output();
}

} // namespace
