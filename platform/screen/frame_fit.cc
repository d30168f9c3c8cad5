#include "platform/screen/frame_fit.h"

#include <libyuv.h>

#include <algorithm>

namespace sv {

void setOpaque(SharedSurface& surface) {
    for (int32_t y = 0; y < surface.height(); ++y) {
        auto* row = reinterpret_cast<uint32_t*>(surface.mutableRow(y));
        for (int32_t x = 0; x < surface.width(); ++x) row[x] |= 0xFF000000u;
    }
}

void fitInto(const uint8_t* src, int32_t srcStride, int32_t sw, int32_t sh, SharedSurface& dst) {
    const int32_t dw = dst.width(), dh = dst.height();
    uint8_t* out = dst.mutableData();
    const int stride = int(dst.bytesPerRow());
    if (sw == dw && sh == dh) {
        libyuv::ARGBCopy(src, srcStride, out, stride, dw, dh);
        return;
    }
    // The larger of the two fits decides: w/h compared without rounding.
    int32_t fw = dw, fh = dh;
    if (int64_t(sw) * dh > int64_t(sh) * dw)
        fh = std::clamp(int32_t((int64_t(sh) * dw + sw / 2) / sw), 1, dh);
    else
        fw = std::clamp(int32_t((int64_t(sw) * dh + sh / 2) / sh), 1, dw);
    const int32_t x0 = (dw - fw) / 2, y0 = (dh - fh) / 2;
    constexpr uint32_t kBlack = 0xFF000000u;
    if (y0 > 0) libyuv::ARGBRect(out, stride, 0, 0, dw, y0, kBlack);
    if (y0 + fh < dh) libyuv::ARGBRect(out, stride, 0, y0 + fh, dw, dh - y0 - fh, kBlack);
    if (x0 > 0) libyuv::ARGBRect(out, stride, 0, y0, x0, fh, kBlack);
    if (x0 + fw < dw) libyuv::ARGBRect(out, stride, x0 + fw, y0, dw - x0 - fw, fh, kBlack);
    uint8_t* target = out + size_t(y0) * size_t(stride) + size_t(x0) * 4;
    if (sw == fw && sh == fh)
        libyuv::ARGBCopy(src, srcStride, target, stride, fw, fh);
    else
        libyuv::ARGBScale(src, srcStride, sw, sh, target, stride, fw, fh, libyuv::kFilterBilinear);
}

}  // namespace sv
