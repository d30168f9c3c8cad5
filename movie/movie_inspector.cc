#include "movie/movie_inspector.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <limits>
#include <map>
#include <unordered_set>

namespace sv {
namespace {

constexpr double kNs = 1e-9;
// Frames the inspector keeps for its analysis: 4.8 hours at 60 frames per
// second, under 150 MB with the analysis's own tables.
constexpr size_t kMaxFrames = size_t(1) << 20;
// Frames read before a movie without any stamp counts as unstamped.
constexpr int64_t kFramesBeforeGivingUp = 120;
// A step of stamp time this many frame intervals beyond the step of
// presentation time is a pause; a stamp-time step this many intervals long
// skipped a deadline.
constexpr double kPauseIntervals = 1.5;
constexpr double kLateIntervals = 1.5;
// How close to a whole number of seconds two clicks of one continuous
// track lie (sample-exact audio, decoded onsets within a fraction of a ms).
constexpr double kWholeSecondTolerance = 0.003;

// Counts from stamps a hostile file may have made up stay in range.
void addSaturating(int64_t& total, double amount) {
    const double room = double(std::numeric_limits<int64_t>::max() - total);
    total = amount >= room ? std::numeric_limits<int64_t>::max() : total + int64_t(amount);
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// Stamp-time step from a to b, seconds.
double hostStep(const FrameStamp& a, const FrameStamp& b) {
    return (double(b.hostTime) - double(a.hostTime)) * kNs;
}

std::vector<InspectedFrame> sortedStamped(std::vector<InspectedFrame> frames) {
    std::stable_sort(
        frames.begin(), frames.end(),
        [](const InspectedFrame& a, const InspectedFrame& b) { return a.time < b.time; });
    frames.erase(std::remove_if(frames.begin(), frames.end(),
                                [](const InspectedFrame& f) { return !f.stamp; }),
                 frames.end());
    return frames;
}

// The usual stamp-time step between consecutive frames (seconds).
double frameIntervalOf(const std::vector<InspectedFrame>& stamped) {
    std::vector<double> steps, perIndex;
    for (size_t i = 1; i < stamped.size(); ++i) {
        const FrameStamp &a = *stamped[i - 1].stamp, &b = *stamped[i].stamp;
        if (b.frameIndex <= a.frameIndex || b.hostTime <= a.hostTime) continue;
        const double step = hostStep(a, b);
        if (b.frameIndex == a.frameIndex + 1)
            steps.push_back(step);
        else
            perIndex.push_back(step / double(b.frameIndex - a.frameIndex));
    }
    return steps.empty() ? median(perIndex) : median(steps);
}

// The frames that moved the stream forward (no duplicates, nothing out of
// order), and whether the step into each one was a pause.
struct Timeline {
    struct Point {
        double time;  // movie seconds
        uint64_t host;
        uint64_t index;
        bool pauseBefore;
    };
    std::vector<Point> points;
    double interval = 0;

    explicit Timeline(const std::vector<InspectedFrame>& stamped) {
        interval = frameIntervalOf(stamped);
        std::unordered_set<uint64_t> seen;
        for (const auto& f : stamped) {
            const FrameStamp& s = *f.stamp;
            if (!seen.insert(s.frameIndex).second) continue;
            if (!points.empty() && s.frameIndex < points.back().index) continue;
            bool pause = false;
            if (!points.empty() && interval > 0) {
                const Point& head = points.back();
                const double dh = (double(s.hostTime) - double(head.host)) * kNs;
                pause = dh - (f.time - head.time) > kPauseIntervals * interval;
            }
            points.push_back({f.time, s.hostTime, s.frameIndex, pause});
        }
    }

    // Host time (ns) of movie time t, from the last frame shown at or before it.
    std::optional<double> hostAt(double t) const {
        if (points.empty()) return std::nullopt;
        auto it = std::upper_bound(points.begin(), points.end(), t,
                                   [](double v, const Point& p) { return v < p.time; });
        const Point& p = it == points.begin() ? points.front() : *(it - 1);
        return double(p.host) + (t - p.time) * 1e9;
    }

    // Movie time of host time `host` (ns), when the frames cover it: not
    // inside a pause, not beyond the first or last frame by more than a
    // frame interval and a half.
    std::optional<double> movieTimeAt(double host) const {
        if (points.empty()) return std::nullopt;
        const double reach = std::max(kPauseIntervals * interval, 1e-3) * 1e9;
        auto it = std::upper_bound(points.begin(), points.end(), host,
                                   [](double v, const Point& p) { return v < double(p.host); });
        if (it == points.begin()) {
            const Point& first = points.front();
            if (double(first.host) - host > reach) return std::nullopt;
            return first.time - (double(first.host) - host) * kNs;
        }
        const Point& p = *(it - 1);
        const bool pauseAfter = it != points.end() && it->pauseBefore;
        if ((it == points.end() || pauseAfter) && host - double(p.host) > reach)
            return std::nullopt;
        return p.time + (host - double(p.host)) * kNs;
    }
};

// Finds the whole-second clicks in one audio track, fed block by block: a
// burst well above the level of the 16 ms before it (the tone), at least a
// few samples long, that is over again 7 ms after its onset. Keeps a few
// milliseconds of state, whatever the track's length.
class ClickDetector {
  public:
    explicit ClickDetector(int rate) : rate_(rate), block_(std::max(1, rate / 1000)) {}

    void feed(const float* x, int n, double time) {
        if (!std::isnan(next_) && std::abs(time - next_) > 1e-3) reset(time);
        if (std::isnan(next_)) blockTime_ = time;
        next_ = time + double(n) / rate_;
        for (int i = 0; i < n; ++i) {
            current_.push_back(std::abs(x[i]));
            if (int(current_.size()) == block_) {
                processBlock();
                current_.clear();
                blockTime_ += double(block_) / rate_;
            }
        }
    }
    const std::vector<double>& clicks() const { return clicks_; }

  private:
    static constexpr size_t kHistoryBlocks = 16;  // 16 ms of level before a click
    static constexpr size_t kPreEchoBlocks = 2;   // left out of the level: encoder pre-echo
    static constexpr int kBurstBlocks = 5;        // the click itself
    static constexpr int kTailFrom = 7, kTailTo = 16;
    static constexpr int kMinBurstSamples = 8;
    static constexpr float kMinThreshold = 0.1f;
    static constexpr double kRefractory = 0.3;  // clicks are a second apart

    struct Candidate {
        double time;
        float threshold;
        int blocks = 0;
        int above = 0;
        float tail = 0;
    };

    void reset(double time) {
        history_.clear();
        current_.clear();
        candidate_.reset();
        blockTime_ = time;
    }

    void processBlock() {
        const float peak = *std::max_element(current_.begin(), current_.end());
        if (candidate_) {
            Candidate& c = *candidate_;
            ++c.blocks;
            if (c.blocks < kBurstBlocks) {
                for (float v : current_) c.above += v > c.threshold;
            } else if (c.blocks >= kTailFrom) {
                c.tail = std::max(c.tail, peak);
            }
            if (c.blocks == kTailTo) {
                if (c.above >= kMinBurstSamples && c.tail < c.threshold) {
                    clicks_.push_back(c.time);
                    quietUntil_ = c.time + kRefractory;
                }
                candidate_.reset();
            }
        } else if (history_.size() == kHistoryBlocks && blockTime_ >= quietUntil_) {
            const float level =
                *std::max_element(history_.begin(), history_.end() - kPreEchoBlocks);
            const float threshold = std::max(2 * level, kMinThreshold);
            if (peak > threshold) {
                int first = 0;
                while (current_[size_t(first)] <= threshold) ++first;
                Candidate c{blockTime_ + double(first) / rate_, threshold};
                for (size_t i = size_t(first); i < current_.size(); ++i)
                    c.above += current_[i] > threshold;
                candidate_ = c;
            }
        }
        history_.push_back(peak);
        if (history_.size() > kHistoryBlocks) history_.pop_front();
    }

    int rate_;
    int block_;  // samples per millisecond
    std::vector<float> current_;
    double blockTime_ = 0;
    double next_ = std::nan("");
    std::deque<float> history_;
    std::optional<Candidate> candidate_;
    double quietUntil_ = -std::numeric_limits<double>::infinity();
    std::vector<double> clicks_;
};

}  // namespace

FrameStampReport analyzeFrameStamps(std::vector<InspectedFrame> frames) {
    FrameStampReport r;
    r.frames = int64_t(frames.size());
    const auto stamped = sortedStamped(std::move(frames));
    r.stamped = int64_t(stamped.size());
    r.unreadable = r.frames - r.stamped;
    if (stamped.empty()) return r;
    r.frameInterval = frameIntervalOf(stamped);
    const double T = r.frameInterval;

    std::unordered_set<uint64_t> seen;
    std::vector<StampDrop> gaps;  // before frames shown out of order are taken back
    const InspectedFrame* head = nullptr;
    r.firstIndex = r.lastIndex = stamped.front().stamp->frameIndex;
    for (const auto& f : stamped) {
        const FrameStamp& s = *f.stamp;
        r.firstIndex = std::min(r.firstIndex, s.frameIndex);
        r.lastIndex = std::max(r.lastIndex, s.frameIndex);
        if (!seen.insert(s.frameIndex).second) {
            ++r.duplicates;
            continue;
        }
        if (head && s.frameIndex < head->stamp->frameIndex) {
            ++r.outOfOrder;
            continue;
        }
        if (head) {
            const FrameStamp& h = *head->stamp;
            const uint64_t missing = s.frameIndex - h.frameIndex - 1;
            const double dh = hostStep(h, s), dp = f.time - head->time;
            if (T > 0 && dh - dp > kPauseIntervals * T) {
                r.pauses.push_back({f.time, dh - dp, missing});
            } else {
                if (missing > 0) gaps.push_back({f.time, h.frameIndex + 1, missing});
                if (T > 0 && dh > kLateIntervals * T) {
                    const double deadlines = std::round(dh / T) - double(missing + 1);
                    if (deadlines > 0) addSaturating(r.late, deadlines);
                }
            }
        }
        head = &f;
    }
    // A gap filled later by frames shown out of order lost only the rest.
    std::vector<uint64_t> shown(seen.begin(), seen.end());
    std::sort(shown.begin(), shown.end());
    for (auto& g : gaps) {
        const uint64_t last = g.firstIndex + g.count - 1;
        const auto from = std::lower_bound(shown.begin(), shown.end(), g.firstIndex);
        const auto to = std::upper_bound(shown.begin(), shown.end(), last);
        g.count -= uint64_t(to - from);
        if (g.count == 0) continue;
        addSaturating(r.dropped, double(g.count));
        if (r.drops.size() < FrameStampReport::kMaxListed) r.drops.push_back(g);
    }
    return r;
}

AudioSyncReport matchClicks(int track, const std::vector<double>& clickTimes,
                            std::vector<InspectedFrame> frames) {
    AudioSyncReport r;
    r.track = track;
    r.clicks = int64_t(clickTimes.size());
    const Timeline timeline(sortedStamped(std::move(frames)));
    std::optional<std::pair<double, uint64_t>> previous;  // click time, its second
    double sum = 0;
    for (double t : clickTimes) {
        std::optional<uint64_t> second;
        if (previous) {
            const double apart = t - previous->first, whole = std::round(apart);
            if (whole >= 1 && std::abs(apart - whole) <= kWholeSecondTolerance)
                second = previous->second + uint64_t(whole);
        }
        if (!second) {
            auto host = timeline.hostAt(t);
            if (!host || *host < 0) continue;
            second = uint64_t(std::llround(*host * kNs));
        }
        previous = {t, *second};
        auto shown = timeline.movieTimeAt(double(*second) * 1e9);
        if (!shown) continue;
        const double offset = t - *shown;
        r.matches.push_back({t, *second, offset});
        sum += offset;
        if (std::abs(offset) > std::abs(r.maxOffset)) r.maxOffset = offset;
    }
    r.matched = int64_t(r.matches.size());
    if (r.matched) r.meanOffset = sum / double(r.matched);
    return r;
}

Result<MovieInspection> inspectMovie(const std::string& path) {
    auto opened = media::MovieReader::open(path);
    if (!opened) return opened.error();
    auto reader = std::move(*opened);
    MovieInspection inspection;
    inspection.path = path;
    inspection.movie = reader->info();
    const auto& tracks = inspection.movie.tracks;
    auto video = std::find_if(tracks.begin(), tracks.end(), [](const media::TrackInfo& t) {
        return t.kind == media::TrackKind::Video;
    });
    if (video == tracks.end()) return inspection;
    const int videoTrack = video->index;

    std::vector<InspectedFrame> frames;
    std::map<int, ClickDetector> detectors;
    for (const auto& t : tracks)
        if (t.kind == media::TrackKind::Audio && t.sampleRate > 0)
            detectors.emplace(t.index, ClickDetector(t.sampleRate));
    int64_t stampedFrames = 0;
    bool partial = false;
    auto onVideo = [&](const media::LumaFrame& f) {
        if (f.track != videoTrack) return true;
        if (frames.size() >= kMaxFrames) {
            partial = true;
            return false;
        }
        auto stamp = readFrameStamp(f.data, f.width, f.height, f.bytesPerRow);
        stampedFrames += stamp.has_value();
        frames.push_back({f.time, stamp});
        return stampedFrames > 0 || int64_t(frames.size()) < kFramesBeforeGivingUp;
    };
    auto onAudio = [&](const media::PCMBlock& b) {
        auto it = detectors.find(b.track);
        if (it != detectors.end() && b.channelCount > 0)
            it->second.feed(b.channels[0], b.frames, b.time);
        return true;
    };
    if (auto decoded = reader->decode(onVideo, onAudio); !decoded) return decoded.error();
    if (stampedFrames == 0) return inspection;

    // A reference frame that a cut movie keeps only for decoding is shown
    // for a single tick just before the end: not a frame anyone sees.
    std::stable_sort(
        frames.begin(), frames.end(),
        [](const InspectedFrame& a, const InspectedFrame& b) { return a.time < b.time; });
    const double end = video->startTime + video->duration;
    std::vector<InspectedFrame> shown;
    shown.reserve(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        const double next = i + 1 < frames.size() ? frames[i + 1].time : end;
        const double length = next - frames[i].time;
        if (video->duration > 0 && length >= 0 && length < 1e-3) continue;
        shown.push_back(frames[i]);
    }
    frames = std::move(shown);

    inspection.stamps = analyzeFrameStamps(frames);
    inspection.stamps->partial = partial;
    for (const auto& [track, detector] : detectors)
        inspection.audioSync.push_back(matchClicks(track, detector.clicks(), frames));
    return inspection;
}

// --- Output -----------------------------------------------------------------

namespace {

const char* kindName(media::TrackKind kind) {
    switch (kind) {
        case media::TrackKind::Video:
            return "video";
        case media::TrackKind::Audio:
            return "audio";
        default:
            return "other";
    }
}

// Seconds rounded to the microsecond, so the JSON shows no binary noise.
double us(double seconds) {
    return std::round(seconds * 1e6) / 1e6;
}

template <typename... Args>
std::string format(const char* fmt, Args... args) {
    const int n = std::snprintf(nullptr, 0, fmt, args...);
    if (n <= 0) return {};
    std::string out(size_t(n) + 1, '\0');
    std::snprintf(out.data(), out.size(), fmt, args...);
    out.resize(size_t(n));
    return out;
}

}  // namespace

nlohmann::ordered_json inspectionToJSON(const MovieInspection& in) {
    using json = nlohmann::ordered_json;
    json tracks = json::array();
    for (const auto& t : in.movie.tracks) {
        json j{{"index", t.index},
               {"type", kindName(t.kind)},
               {"codec", t.codec},
               {"profile", t.profile},
               {"startTime", us(t.startTime)},
               {"duration", us(t.duration)},
               {"bitRate", t.bitRate},
               {"tags", t.tags}};
        if (t.kind == media::TrackKind::Video) {
            j["width"] = t.width;
            j["height"] = t.height;
            j["frameCount"] = t.frameCount;
        } else if (t.kind == media::TrackKind::Audio) {
            j["sampleRate"] = t.sampleRate;
            j["channels"] = t.channels;
            j["frameCount"] = t.frameCount;
            j["sampleCount"] = t.sampleCount;
        }
        if (t.displayMatrix) {
            j["displayMatrix"] = *t.displayMatrix;
            j["rotation"] = t.rotation;
            j["mirrored"] = t.mirrored;
        } else {
            j["displayMatrix"] = nullptr;
        }
        tracks.push_back(std::move(j));
    }
    json out{{"path", in.path},
             {"format", in.movie.format},
             {"duration", us(in.movie.duration)},
             {"size", in.movie.fileSize},
             {"tags", in.movie.tags},
             {"tracks", std::move(tracks)},
             {"stamps", nullptr},
             {"audioSync", json::array()}};
    if (in.stamps) {
        const auto& s = *in.stamps;
        json pauses = json::array(), drops = json::array();
        for (const auto& p : s.pauses)
            pauses.push_back({{"time", us(p.time)},
                              {"duration", us(p.duration)},
                              {"framesSkipped", p.framesSkipped}});
        for (const auto& d : s.drops)
            drops.push_back(
                {{"time", us(d.time)}, {"firstIndex", d.firstIndex}, {"count", d.count}});
        out["stamps"] = {{"frames", s.frames},
                         {"stamped", s.stamped},
                         {"unreadable", s.unreadable},
                         {"firstIndex", s.firstIndex},
                         {"lastIndex", s.lastIndex},
                         {"dropped", s.dropped},
                         {"duplicates", s.duplicates},
                         {"outOfOrder", s.outOfOrder},
                         {"late", s.late},
                         {"frameInterval", us(s.frameInterval)},
                         {"pauses", std::move(pauses)},
                         {"drops", std::move(drops)},
                         {"partial", s.partial}};
    }
    for (const auto& a : in.audioSync)
        out["audioSync"].push_back({{"track", a.track},
                                    {"clicks", a.clicks},
                                    {"matched", a.matched},
                                    {"meanOffset", us(a.meanOffset)},
                                    {"maxOffset", us(a.maxOffset)}});
    return out;
}

std::string inspectionToText(const MovieInspection& in) {
    std::string out =
        format("%s: %s, %.3f s, %lld bytes, %zu tracks\n", in.path.c_str(), in.movie.format.c_str(),
               in.movie.duration, (long long)in.movie.fileSize, in.movie.tracks.size());
    for (const auto& [key, value] : in.movie.tags)
        out += format("  %s: %s\n", key.c_str(), value.c_str());
    for (const auto& t : in.movie.tracks) {
        out += format("track %d: %s %s", t.index, kindName(t.kind), t.codec.c_str());
        if (!t.profile.empty()) out += " " + t.profile;
        if (t.kind == media::TrackKind::Video)
            out += format(" %dx%d, %.3f s, %lld frames", t.width, t.height, t.duration,
                          (long long)t.frameCount);
        else if (t.kind == media::TrackKind::Audio)
            out += format(" %d Hz %d ch, %.3f s, %lld samples", t.sampleRate, t.channels,
                          t.duration, (long long)t.sampleCount);
        else
            out += format(", %.3f s", t.duration);
        if (t.startTime != 0) out += format(", starts at %.3f s", t.startTime);
        out += "\n";
        if (t.displayMatrix) {
            const auto& m = *t.displayMatrix;
            out += format("  display matrix: [%d %d %d; %d %d %d; %d %d %d]", m[0], m[1], m[2],
                          m[3], m[4], m[5], m[6], m[7], m[8]);
            if (t.rotation != 0) out += format(", rotation %.0f degrees", t.rotation);
            if (t.mirrored) out += ", mirrored";
            out += "\n";
        }
    }
    if (!in.stamps) {
        out += "frame stamps: none\n";
        return out;
    }
    const auto& s = *in.stamps;
    out +=
        format("frame stamps: %lld frames, %lld stamped, indices %llu..%llu, interval %.3f ms%s\n",
               (long long)s.frames, (long long)s.stamped, (unsigned long long)s.firstIndex,
               (unsigned long long)s.lastIndex, s.frameInterval * 1e3,
               s.partial ? " (analysis stopped at the frame limit)" : "");
    out +=
        format("  dropped %lld, duplicates %lld, out of order %lld, late %lld, unreadable %lld\n",
               (long long)s.dropped, (long long)s.duplicates, (long long)s.outOfOrder,
               (long long)s.late, (long long)s.unreadable);
    for (const auto& d : s.drops)
        out += format("  drop at %.3f s: %llu frame(s) from index %llu\n", d.time,
                      (unsigned long long)d.count, (unsigned long long)d.firstIndex);
    out += format("pauses: %zu\n", s.pauses.size());
    for (const auto& p : s.pauses)
        out += format("  at %.3f s: %.3f s taken out, %llu frame index(es) skipped\n", p.time,
                      p.duration, (unsigned long long)p.framesSkipped);
    for (const auto& a : in.audioSync) {
        out += format("audio track %d: %lld clicks, %lld matched", a.track, (long long)a.clicks,
                      (long long)a.matched);
        if (a.matched)
            out += format(", offset mean %+.1f ms, max %+.1f ms", a.meanOffset * 1e3,
                          a.maxOffset * 1e3);
        out += "\n";
    }
    return out;
}

}  // namespace sv
