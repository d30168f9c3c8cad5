#include "thumbnail.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace measure {
namespace {

struct CodecContextFree {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

}  // namespace

std::vector<uint8_t> thumbnailPNG(const uint8_t* bgra, int width, int height, uint32_t bytesPerRow,
                                  int maxWidth, std::string* error) {
    if (!bgra || width <= 0 || height <= 0 || bytesPerRow < uint32_t(width) * 4) {
        *error = "no image";
        return {};
    }
    const int w = std::min(width, maxWidth);
    const int h = std::max(1, int(int64_t(height) * w / width));
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (!codec) {
        *error = "FFmpeg has no PNG encoder";
        return {};
    }
    std::unique_ptr<AVCodecContext, CodecContextFree> context(avcodec_alloc_context3(codec));
    std::unique_ptr<AVFrame, FrameFree> frame(av_frame_alloc());
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    if (!context || !frame || !packet) {
        *error = "out of memory";
        return {};
    }
    context->width = w;
    context->height = h;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    context->time_base = AVRational{1, 1};
    if (int rc = avcodec_open2(context.get(), codec, nullptr); rc < 0) {
        *error = "cannot open the PNG encoder: " + avError(rc);
        return {};
    }
    frame->width = w;
    frame->height = h;
    frame->format = AV_PIX_FMT_RGB24;
    if (int rc = av_frame_get_buffer(frame.get(), 0); rc < 0) {
        *error = "no frame buffer: " + avError(rc);
        return {};
    }
    for (int y = 0; y < h; ++y) {
        const uint8_t* src = bgra + size_t(int64_t(y) * height / h) * bytesPerRow;
        uint8_t* dst = frame->data[0] + size_t(y) * frame->linesize[0];
        for (int x = 0; x < w; ++x) {
            const uint8_t* p = src + size_t(int64_t(x) * width / w) * 4;
            dst[3 * x] = p[2];
            dst[3 * x + 1] = p[1];
            dst[3 * x + 2] = p[0];
        }
    }
    std::vector<uint8_t> png;
    int rc = avcodec_send_frame(context.get(), frame.get());
    if (rc >= 0) rc = avcodec_send_frame(context.get(), nullptr);
    while (rc >= 0) {
        rc = avcodec_receive_packet(context.get(), packet.get());
        if (rc < 0) break;
        png.insert(png.end(), packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
    }
    if (rc != AVERROR_EOF) {
        *error = "PNG encoding failed: " + avError(rc);
        return {};
    }
    return png;
}

bool writeFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes,
                         std::string* error) {
    const std::string temporary = path + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write " + temporary + ": " + std::strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *error = "cannot write " + temporary + ": " + std::strerror(errno);
            ::close(fd);
            ::unlink(temporary.c_str());
            return false;
        }
        done += size_t(n);
    }
    ::close(fd);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        *error = "cannot rename to " + path + ": " + std::strerror(errno);
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace measure
