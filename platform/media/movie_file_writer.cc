#include "platform/media/movie_file_writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/dispatch.h"
#include "platform/log.h"
#include "platform/media/ffmpeg_util.h"

namespace sv::media {

namespace {
using Status = MovieFileWriter::Status;
}

Result<std::shared_ptr<MovieFileWriter>> MovieFileWriter::create(const URL& url, FileType type) {
    auto fail = [](int code, const std::string& what) { return makeError(code, what); };
    if (type != FileType::MPEG4) return fail(AVERROR(EINVAL), "unsupported file type");
    if (url.path.empty() || url.path.back() == '/')
        return fail(AVERROR(EINVAL), "not a file URL: " + url.path);
    std::filesystem::path path(url.path);
    std::string dir = path.has_parent_path() ? path.parent_path().string() : ".";
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0) return fail(AVERROR(errno), "directory " + dir);
    if (!S_ISDIR(st.st_mode)) return fail(AVERROR(ENOTDIR), "directory " + dir);
    if (access(dir.c_str(), W_OK) != 0) return fail(AVERROR(errno), "directory " + dir);
    if (stat(url.path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return fail(AVERROR(EISDIR), url.path);

    auto muxer = std::make_shared<Muxer>(url.path);
    auto ctx = makeMPEG4Output(url.path);
    if (!ctx) return ctx.error();
    muxer->ctx = std::move(*ctx);
    return std::shared_ptr<MovieFileWriter>(new MovieFileWriter(url, std::move(muxer)));
}

MovieFileWriter::MovieFileWriter(URL url, std::shared_ptr<Muxer> muxer)
    : url_(std::move(url)), muxer_(std::move(muxer)) {}

MovieFileWriter::~MovieFileWriter() {
    bool finishing;
    {
        std::lock_guard lock(muxer_->mu);
        finishing = muxer_->finishing;
    }
    if (!finishing && status() == Status::Writing) cancelWriting();
}

URL MovieFileWriter::outputURL() const {
    return url_;
}

void MovieFileWriter::setMetadata(MetadataList items) {
    std::lock_guard lock(muxer_->mu);
    if (muxer_->status != int(Status::Unknown)) return;
    muxer_->metadata = std::move(items);
}

MetadataList MovieFileWriter::metadata() const {
    std::lock_guard lock(muxer_->mu);
    return muxer_->metadata;
}

bool MovieFileWriter::canAddInput(const std::shared_ptr<MovieWriterInput>& input) const {
    if (!input || status() != Status::Unknown) return false;
    std::lock_guard lock(input->core_->mu);
    return !input->core_->muxer;
}

void MovieFileWriter::addInput(std::shared_ptr<MovieWriterInput> input) {
    if (!canAddInput(input)) {
        log::error("MovieFileWriter: cannot add input");
        return;
    }
    std::lock_guard lock(muxer_->mu);
    const AVCodecContext* enc = input->core_->enc.get();
    AVStream* st = avformat_new_stream(muxer_->ctx.get(), nullptr);
    if (!st || avcodec_parameters_from_context(st->codecpar, enc) < 0) {
        // Out of memory: the writer cannot make a complete movie any more.
        muxer_->failLocked(AVERROR(ENOMEM), "adding a track");
        return;
    }
    st->time_base = enc->time_base;
    if (input->mediaType() == MediaType::Video) st->avg_frame_rate = enc->framerate;
    input->core_->attach(muxer_, st->index);
    inputs_.push_back(std::move(input));
}

std::vector<std::shared_ptr<MovieWriterInput>> MovieFileWriter::inputs() const {
    std::lock_guard lock(muxer_->mu);
    return inputs_;
}

bool MovieFileWriter::startWriting() {
    std::lock_guard lock(muxer_->mu);
    if (muxer_->status != int(Status::Unknown)) return false;
    if (inputs_.empty()) {
        muxer_->error = mediaError(AVERROR(EINVAL), "a movie needs at least one input");
        muxer_->status = int(Status::Failed);
        return false;
    }
    for (const auto& input : inputs_) {
        if (input->mediaType() != MediaType::Video) continue;
        AVStream* st = muxer_->ctx->streams[input->core_->streamIndex];
        auto* matrix = reinterpret_cast<int32_t*>(
            av_stream_new_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)));
        if (!matrix) {
            muxer_->failLocked(AVERROR(ENOMEM), "storing the video transform");
            return false;
        }
        displayMatrixFor(input->transform(), matrix);
    }
    // The file is opened and its header written by the first worker that
    // has a packet, so the caller's thread does no file I/O.
    muxer_->status = int(Status::Writing);
    return true;
}

void MovieFileWriter::startSessionAtSourceTime(MediaTime time) {
    std::lock_guard lock(muxer_->mu);
    if (!time.isValid() || muxer_->start) return;
    muxer_->start = time;
}

MovieFileWriter::Status MovieFileWriter::status() const {
    return Status(muxer_->status.load());
}

OptionalError MovieFileWriter::error() const {
    std::lock_guard lock(muxer_->mu);
    return muxer_->error;
}

void MovieFileWriter::setFailureHandler(FailureHandler handler) {
    std::lock_guard lock(muxer_->mu);
    if (muxer_->status != int(Status::Unknown)) return;
    muxer_->failureHandler = std::move(handler);
}

bool MovieFileWriter::hasPlayableMovie() const {
    std::lock_guard lock(muxer_->mu);
    return muxer_->playable;
}

void MovieFileWriter::finishWriting(std::function<void()> completion) {
    std::vector<std::shared_ptr<MovieWriterInput>> inputs;
    std::unique_lock lock(muxer_->mu);
    // A writer that failed while writing still closes its file, through the
    // same drain, so what it wrote is kept.
    const bool failedWhileWriting = muxer_->status == int(Status::Failed) && muxer_->opened;
    if ((muxer_->status != int(Status::Writing) && !failedWhileWriting) || muxer_->finishing ||
        inputs_.empty()) {
        lock.unlock();
        if (completion) DispatchQueue::global()->async(std::move(completion));
        return;
    }
    muxer_->finishing = true;
    muxer_->completion = std::move(completion);
    muxer_->pendingInputs = int(inputs_.size());
    inputs = inputs_;
    lock.unlock();
    for (const auto& input : inputs) input->core_->requestFinish();
}

void MovieFileWriter::cancelWriting() {
    std::vector<std::shared_ptr<MovieWriterInput>> inputs;
    {
        std::lock_guard lock(muxer_->mu);
        if (muxer_->finishing ||
            (muxer_->status != int(Status::Writing) && muxer_->status != int(Status::Unknown)))
            return;
        muxer_->status = int(Status::Cancelled);
        inputs = inputs_;
    }
    for (const auto& input : inputs) input->core_->stopWorker();
    std::lock_guard lock(muxer_->mu);
    if (muxer_->ctx && muxer_->ctx->pb) avio_closep(&muxer_->ctx->pb);
    if (muxer_->opened) unlink(muxer_->path.c_str());
}

}  // namespace sv::media
