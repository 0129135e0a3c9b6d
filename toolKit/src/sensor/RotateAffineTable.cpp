// Remapping tables for equirectangular images: identity, rotation,
// composition and bilinear lookup.
#include "RotateAffineTable.h"

#include <algorithm>
#include <cmath>

#include "GLTKConsole.h"

namespace {

constexpr float PI_F = 3.1415927f;
constexpr float TWO_PI_F = 6.2831855f;
// Angle between neighbouring nodes on the sphere: pi / 56 in colatitude and
// 2 pi / 112 in longitude.
constexpr float NODE_ANGLE = 0.05609987f;
// Columns before the longitude wraps around (column 112 is column 0 again).
constexpr int WRAP_COLUMNS = 112;
constexpr int LAST_COLUMN = static_cast<int>(RotateAffineTable::WIDTH) - 1;
constexpr int LAST_ROW = static_cast<int>(RotateAffineTable::HEIGHT) - 1;

} // namespace

bool NormalizedAfn::isGrid() const {
    return width == RotateAffineTable::WIDTH && height == RotateAffineTable::HEIGHT &&
           nodes.size() == width * height;
}

void RotateAffineTable::initTable(NormalizedAfn& table) {
    table.width = WIDTH;
    table.height = HEIGHT;
    table.nodes.clear();
    table.nodes.reserve(WIDTH * HEIGHT);
    for (uint64_t j = 0; j < HEIGHT; j++)
        for (uint64_t i = 0; i < WIDTH; i++)
            table.nodes.emplace_back(static_cast<float>(i) * STEP_U, static_cast<float>(j) * STEP_V);
}

bool RotateAffineTable::bilinearFromTable(const NormalizedAfn& table, float u, float v, float& outU, float& outV) {
    if (!table.isGrid()) return false;

    float x = u / STEP_U;
    float y = v / STEP_V;
    // Keep the position on the grid: a longitude beyond either end wraps
    // around, a colatitude beyond either pole stays at that pole, and a
    // non-finite coordinate counts as 0. Inside the grid nothing changes.
    if (!std::isfinite(x)) x = 0;
    if (!std::isfinite(y)) y = 0;
    if (x <= -1.0f || x >= static_cast<float>(LAST_COLUMN + 1)) {
        x = std::fmod(x, static_cast<float>(WRAP_COLUMNS));
        if (x < 0) x += static_cast<float>(WRAP_COLUMNS);
    }
    if (y <= -1.0f) y = 0;
    if (y >= static_cast<float>(LAST_ROW + 1)) y = static_cast<float>(LAST_ROW);

    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const float fx = x - static_cast<float>(ix);
    const float fy = y - static_cast<float>(iy);

    // The right neighbour wraps around in longitude; the last row has no row
    // below it and interpolates with itself.
    int ix1 = ix + 1;
    if (ix1 > LAST_COLUMN) ix1 -= WRAP_COLUMNS;
    const int iy1 = iy < LAST_ROW ? iy + 1 : iy;

    const uint64_t w = table.width;
    const GLTK::Vector2& t00 = table.nodes[iy * w + ix];
    const GLTK::Vector2& t01 = table.nodes[iy * w + ix1];
    const GLTK::Vector2& t10 = table.nodes[iy1 * w + ix];
    const GLTK::Vector2& t11 = table.nodes[iy1 * w + ix1];

    const float gx = 1.0f - fx;
    const float gy = 1.0f - fy;
    outU = (t00.x * gx + t01.x * fx) * gy + (t10.x * gx + t11.x * fx) * fy;
    outV = (t00.y * gx + t01.y * fx) * gy + (t10.y * gx + t11.y * fx) * fy;
    return true;
}

bool RotateAffineTable::transrateAffineTable(NormalizedAfn& a, NormalizedAfn& b) {
    if (!a.isGrid() || !b.isGrid()) {
        GLTK::Console::out(L"transrateAffineTable: table is not %llux%llu.\n",
                           static_cast<unsigned long long>(WIDTH), static_cast<unsigned long long>(HEIGHT));
        return false;
    }
    const NormalizedAfn old = b;
    for (size_t n = 0; n < b.nodes.size(); n++) {
        const GLTK::Vector2 at = a.nodes[n];
        bilinearFromTable(old, at.x, at.y, b.nodes[n].x, b.nodes[n].y);
    }
    return true;
}

bool RotateAffineTable::rotateAfnTable(const NormalizedAfn& source, const GLTK::Vector3& angles, NormalizedAfn& result) {
    if (!source.isGrid()) {
        GLTK::Console::out(L"rotateAfnTable: table is not %llux%llu.\n",
                           static_cast<unsigned long long>(WIDTH), static_cast<unsigned long long>(HEIGHT));
        return false;
    }

    NormalizedAfn rotation;
    initTable(rotation);

    // Rotation by a about the y axis after rotation by b about the x axis:
    // Ry(a) Rx(b), in single precision.
    const float sa = std::sin(angles.y), ca = std::cos(angles.y);
    const float sb = std::sin(angles.z), cb = std::cos(angles.z);
    const float m00 = ca, m01 = sa * sb, m02 = sa * cb;
    const float m10 = 0.0f, m11 = cb, m12 = -sb;
    const float m20 = -sa, m21 = ca * sb, m22 = ca * cb;

    for (uint64_t r = 0; r < HEIGHT; r++) {
        const float phi = static_cast<float>(r) * NODE_ANGLE;
        const float sinPhi = std::sin(phi), cosPhi = std::cos(phi);
        for (uint64_t c = 0; c < WIDTH; c++) {
            const float theta = static_cast<float>(c) * NODE_ANGLE;
            const float px = std::cos(theta) * sinPhi;
            const float py = std::sin(theta) * sinPhi;
            const float pz = cosPhi;
            const float qx = m00 * px + m01 * py + m02 * pz;
            const float qy = m10 * px + m11 * py + m12 * pz;
            const float qz = m20 * px + m21 * py + m22 * pz;

            float longitude = std::atan2(qy, qx);
            while (longitude < 0.0f) longitude += TWO_PI_F;
            while (longitude >= TWO_PI_F) longitude -= TWO_PI_F;
            // Rounding can push the rotated z a hair past +-1; acos would
            // then give NaN, so hold it to the pole.
            float colatitude = std::acos(std::clamp(qz, -1.0f, 1.0f));
            while (colatitude < 0.0f) colatitude += PI_F;
            while (colatitude > PI_F) colatitude -= PI_F;

            GLTK::Vector2& node = rotation.nodes[r * WIDTH + c];
            node.x = longitude / TWO_PI_F;
            node.y = colatitude / PI_F;
        }
    }

    result = source;
    return transrateAffineTable(rotation, result);
}

void RotateAffineTable::linearInterpolation(float x0, float y0, float x1, float y1, float x, float& y) {
    if (x1 == x0) {
        y = y0;
        return;
    }
    y = y0 + (y1 - y0) * ((x - x0) / (x1 - x0));
}
