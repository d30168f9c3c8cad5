// Window sizes and 2-D affine transforms of video frames.
#pragma once

#include <cmath>

namespace sv {

struct WindowSize {
    float width = 0;
    float height = 0;
    friend bool operator==(const WindowSize&, const WindowSize&) = default;
};

struct Point {
    float x = 0;
    float y = 0;
};

// (x, y) maps to (a*x + c*y + tx, b*x + d*y + ty). In concat(m, n) the
// transform m applies first, then n.
struct AffineTransform {
    float a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;

    static constexpr AffineTransform identity() { return {}; }
    static AffineTransform rotation(float radians) {
        float s = std::sin(radians), co = std::cos(radians);
        return {co, s, -s, co, 0, 0};
    }
    static constexpr AffineTransform scale(float sx, float sy) { return {sx, 0, 0, sy, 0, 0}; }

    Point apply(Point p) const { return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty}; }
    bool isIdentity() const { return *this == identity(); }
    friend bool operator==(const AffineTransform&, const AffineTransform&) = default;
};

// m first, then n.
constexpr AffineTransform concat(const AffineTransform& m, const AffineTransform& n) {
    return {m.a * n.a + m.b * n.c, m.a * n.b + m.b * n.d,          m.c * n.a + m.d * n.c,
            m.c * n.b + m.d * n.d, m.tx * n.a + m.ty * n.c + n.tx, m.tx * n.b + m.ty * n.d + n.ty};
}

}  // namespace sv
