#include "movie/movie_writer.h"

#include <cmath>

#include "platform/log.h"
#include "platform/media/media_settings.h"
#include "platform/media/movie_exporter.h"
#include "support/movie_store.h"

namespace sv {

namespace {

using media::MovieFileWriter;
using Status = media::MovieFileWriter::Status;

// Truncates toward zero, then rounds an odd size up to even.
int encodedDimension(float size) {
    int w = (std::isfinite(size) && size > 0 && size < 1e6f) ? int(size) : 0;
    return (w + 1) / 2 * 2;
}

Value audioOutputSettings() {
    Value s = Value::object();
    s[media::kAudioFormatKey] = media::kAudioFormatAAC;
    s[media::kAudioNumberOfChannelsKey] = 2;
    s[media::kAudioSampleRateKey] = 44100.0;
    s[media::kAudioChannelLayoutKey] = media::kChannelLayoutStereo;
    s[media::kAudioEncoderBitRateKey] = 128000;
    return s;
}

}  // namespace

std::shared_ptr<SVMovieWriter> SVMovieWriter::initWithWindowSize(
    WindowSize windowSize, std::string outputPath, std::shared_ptr<SVStoreInfo> storeInfo) {
    auto w = std::shared_ptr<SVMovieWriter>(new SVMovieWriter());
    w->windowSize_ = windowSize;
    w->outputPath_ = std::move(outputPath);
    w->storeInfo_ = std::move(storeInfo);
    return w;
}

URL SVMovieWriter::outputURL() const {
    return URL::fileURLWithPath(outputPath_);
}

int SVMovieWriter::fileWriterStatus() const {
    return fileWriter_ ? int(fileWriter_->status()) : int(Status::Unknown);
}

void SVMovieWriter::startWritingHandler(StartHandler handler) {
    log::info("SVMovieWriter: startWritingHandler");
    MovieStore::shared()._srRemoveFile(
        outputURL(), [self = shared_from_this(), handler = std::move(handler)](OptionalError) {
            self->setupFileWriter();
            if (handler) handler();
        });
}

void SVMovieWriter::setupFileWriter() {
    log::info("SVMovieWriter: setupFileWriter");
    sessionStartTime_ = MediaTime::invalid();
    lastVideoPresentationTime_ = MediaTime::invalid();
    lastAudio1PresentationTime_ = MediaTime::invalid();
    lastAudio2PresentationTime_ = MediaTime::invalid();
    audio1End_ = std::numeric_limits<double>::quiet_NaN();
    audio2End_ = std::numeric_limits<double>::quiet_NaN();

    auto created = MovieFileWriter::create(outputURL(), media::FileType::MPEG4);
    fileWriter_ = created.valueOr(nullptr);
    if (!created)
        log::error("SVMovieWriter: setupFileWriter error: %i", int32_t(created.error().code));
    if (fileWriter_ && failureHandler_) fileWriter_->setFailureHandler(failureHandler_);

    if (auto metadata = assetMetadata(); metadata && fileWriter_)
        fileWriter_->setMetadata(std::move(*metadata));

    Value compression = Value::object();
    compression[media::kVideoExpectedSourceFrameRateKey] = 60;
    compression[media::kVideoProfileLevelKey] = media::kH264MainAutoLevel;
    compression[media::kVideoAverageBitRateKey] =
        (windowSize_.width >= 1600.0f || windowSize_.height >= 1600.0f) ? 5000000 : 3000000;
    compression[media::kVideoMaxKeyFrameIntervalKey] = 120;
    if (broadcastConfig_ && broadcastConfig_->videoCompressionProperties()) {
        log::info("using custom video compression properties");
        const Value& custom = *broadcastConfig_->videoCompressionProperties();
        for (auto it = custom.begin(); it != custom.end(); ++it) compression[it.key()] = *it;
    }

    Value video = Value::object();
    video[media::kVideoCodecKey] = media::kVideoCodecH264;
    video[media::kVideoWidthKey] = float(encodedDimension(windowSize_.width));
    video[media::kVideoHeightKey] = float(encodedDimension(windowSize_.height));
    video[media::kVideoCompressionPropertiesKey] = compression;

    auto makeInput = [this](media::MediaType type, const Value& settings) {
        auto made = media::MovieWriterInput::create(type, settings);
        if (!made) {
            log::error("SVMovieWriter: setupFileWriter input error: %i",
                       int32_t(made.error().code));
            log::error("SVMovieWriter: %@", made.error().message());
            return std::shared_ptr<media::MovieWriterInput>();
        }
        auto input = std::move(*made);
        input->setExpectsMediaDataInRealTime(true);
        if (fileWriter_) fileWriter_->addInput(input);
        return input;
    };
    videoInput_ = makeInput(media::MediaType::Video, video);
    const Value audio = audioOutputSettings();
    audioInput1_ = makeInput(media::MediaType::Audio, audio);
    audioInput2_ = makeInput(media::MediaType::Audio, audio);
}

bool SVMovieWriter::appendVideoSampleBuffer(const std::shared_ptr<SampleBuffer>& sample,
                                            const AffineTransform& windowTransform) {
    if (!sample) return false;
    const MediaTime t = sample->presentationTime();
    if (lastVideoPresentationTime_.isValid() && lastVideoPresentationTime_.value >= t.value) {
        log::info("discarding video sample buffer due to timestamp earlier than previous");
        return false;
    }
    lastVideoPresentationTime_ = t;

    switch (Status(fileWriterStatus())) {
        case Status::Writing:
            return videoInput_ && videoInput_->isReadyForMoreMediaData() &&
                   videoInput_->appendSampleBuffer(sample);
        case Status::Unknown:
            log::info(
                "SVMovieWriter: status is unknown, setup the writer with source time and "
                "transform");
            if (videoInput_) videoInput_->setTransform(windowTransform);
            if (fileWriter_) fileWriter_->startWriting();
            if (fileWriterStatus() == int(Status::Unknown)) return false;
            if (t.isValid()) {
                fileWriter_->startSessionAtSourceTime(t);
                sessionStartTime_ = t;
            }
            return videoInput_ && videoInput_->isReadyForMoreMediaData() &&
                   videoInput_->appendSampleBuffer(sample);
        default:
            return false;
    }
}

void SVMovieWriter::appendAudio(const std::shared_ptr<SampleBuffer>& sample,
                                const std::shared_ptr<media::MovieWriterInput>& input,
                                MediaTime& last, std::atomic<double>& end,
                                const char* discardMessage) {
    if (!sample) return;
    const MediaTime t = sample->presentationTime();
    if (last.isValid() && last.value >= t.value) {
        log::info(discardMessage);
        return;
    }
    last = t;
    if (fileWriterStatus() == int(Status::Writing) && input && input->isReadyForMoreMediaData() &&
        input->appendSampleBuffer(sample))
        end = add(t, sample->duration()).seconds();
}

void SVMovieWriter::padAudioToVideoEnd(const std::shared_ptr<media::MovieWriterInput>& input,
                                       double end) {
    if (!input || !lastVideoPresentationTime_.isValid()) return;
    const double videoEnd = lastVideoPresentationTime_.seconds();
    if (std::isnan(end)) {
        if (sessionStartTime_.isValid())
            appendSilence(input, sessionStartTime_.seconds(), videoEnd);
        return;
    }
    if (videoEnd - end > kMaxEndPaddingSeconds) return;
    appendSilence(input, end, videoEnd);
}

void SVMovieWriter::appendSilence(const std::shared_ptr<media::MovieWriterInput>& input,
                                  double from, double to) {
    constexpr auto format = AudioStreamFormat::pcm16(44100.0, 1, false);
    constexpr auto kMaxFrames = int64_t(kMaxEndPaddingSeconds * format.sampleRate);
    const double step = double(media::kMaxFilledAudioGapSeconds) - kMaxEndPaddingSeconds;
    std::shared_ptr<DataBlock> zeros;
    for (double start = from; start < to;) {
        const double end = std::min(start + step, to);
        const int64_t frames = std::min(int64_t((end - start) * format.sampleRate), kMaxFrames);
        if (frames <= 0) return;
        if (!zeros) zeros = std::make_shared<DataBlock>(size_t(kMaxFrames) * format.bytesPerFrame);
        const double at = end - double(frames) / format.sampleRate;
        auto silence =
            SampleBuffer::makeAudio(zeros, format, frames, MediaTime::makeWithSeconds(at, 44100));
        if (!silence || !input->isReadyForMoreMediaData() || !input->appendSampleBuffer(silence)) {
            log::error("SVMovieWriter: audio track padded only to %f s", start);
            return;
        }
        start = end;
    }
}

void SVMovieWriter::appendAudio1SampleBuffer(const std::shared_ptr<SampleBuffer>& sample) {
    appendAudio(sample, audioInput1_, lastAudio1PresentationTime_, audio1End_,
                "discarding audio 1 sample buffer due to timestamp earlier than previous");
}

void SVMovieWriter::appendAudio2SampleBuffer(const std::shared_ptr<SampleBuffer>& sample) {
    appendAudio(sample, audioInput2_, lastAudio2PresentationTime_, audio2End_,
                "discarding audio 2 sample buffer due to timestamp earlier than previous");
}

void SVMovieWriter::finishWritingWithHandler(URLHandler handler) {
    const int status = fileWriterStatus();
    log::info("SVMovieWriter: finishWritingWithHandler: status = %i", status);
    auto finish = [this, &handler] {
        auto writer = fileWriter_;
        writer->finishWriting([writer, handler = std::move(handler)] {
            if (handler) handler(writer->outputURL());
        });
    };
    if (status == int(Status::Writing)) {
        // Audio tracks run to the video's end (a source's last buffer is
        // lost at the stop): silence, not a shorter track.
        padAudioToVideoEnd(audioInput1_, audio1End_);
        padAudioToVideoEnd(audioInput2_, audio2End_);
        return finish();
    }
    log::info("not writing, returning video url set on file writer (most likely null)");
    auto error = fileWriter_ ? fileWriter_->error() : std::nullopt;
    log::error("file writer error = %i", error ? int32_t(error->code) : 0);
    // Failed while writing (the disk filled): the fragments written before
    // are closed into a movie that plays.
    if (status == int(Status::Failed)) return finish();
    std::optional<URL> url;
    if (fileWriter_) url = fileWriter_->outputURL();
    if (handler) handler(url);
}

// --- Metadata and trimming ---------------------------------------------------

std::shared_ptr<media::MovieMetadataItem> SVMovieWriter::metadataItemWithKey(
    const std::string& key, std::optional<std::string> value) {
    auto item = std::make_shared<media::MovieMetadataItem>();
    item->key = key;
    item->value = std::move(value);
    item->keySpace = media::kMetadataKeySpaceMovie;
    return item;
}

std::optional<media::MetadataList> SVMovieWriter::assetMetadata() const {
    if (!storeInfo_) return std::nullopt;
    return media::MetadataList{
        metadataItemWithKey(media::kMetadataKeyTitle, storeInfo_->appName),
        metadataItemWithKey(media::kMetadataKeyArtist, storeInfo_->author),
        metadataItemWithKey(media::kMetadataKeyContentIdentifier, storeInfo_->bundleID),
        metadataItemWithKey(media::kMetadataKeyEncodedBy, std::string(kEncoderName)),
        metadataItemWithKey(media::kMetadataKeyDescription, storeInfo_->itemURL),
        metadataItemWithKey(media::kMetadataKeyGenre, storeInfo_->joinedCategories()),
    };
}

void SVMovieWriter::trimMovieWithURL(const URL& url, double startClipDuration,
                                     double endClipDuration, const URL& outputFileURL,
                                     URLHandler handler) {
    MovieStore::shared()._srRemoveFile(
        outputFileURL, [url, startClipDuration, endClipDuration, outputFileURL,
                        handler = std::move(handler)](OptionalError) {
            auto asset = media::MovieAsset::assetWithURL(url);
            auto exporter =
                media::MovieExporter::create(asset, media::MovieExporter::kPresetPassthrough);
            exporter->setOutputURL(outputFileURL);
            exporter->setOutputFileType(media::FileType::MPEG4);
            const MediaTime start = MediaTime::makeWithSeconds(startClipDuration, 1);
            const MediaTime duration = asset->isReadable() ? asset->duration() : MediaTime{};
            const MediaTime end = MediaTime::makeWithSeconds(endClipDuration, 1);
            const MediaTime length = subtract(subtract(duration, end), start);
            exporter->setTimeRange(start, length);
            exporter->exportAsynchronously([exporter, handler] {
                switch (exporter->status()) {
                    case media::MovieExporter::Status::Failed: {
                        auto error = exporter->error();
                        log::info("SVMovieWriter: Export Trim Video Failed, due to error: %i",
                                  error ? int32_t(error->code) : 0);
                        if (handler) handler(std::nullopt);
                        return;
                    }
                    case media::MovieExporter::Status::Cancelled:
                        log::info("SVMovieWriter: Export Trim Video Cancelled");
                        if (handler) handler(std::nullopt);
                        return;
                    default:
                        log::info("SVMovieWriter: Export Trim succeeded");
                        if (handler) handler(exporter->outputURL());
                        return;
                }
            });
        });
}

}  // namespace sv
