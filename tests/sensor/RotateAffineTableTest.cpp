// Remapping tables: identity, bilinear lookup at the wrap column and the last
// row, rotation tables and their composition.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

#include "sensor/RotateAffineTable.h"

namespace {

constexpr uint64_t W = RotateAffineTable::WIDTH;
constexpr uint64_t H = RotateAffineTable::HEIGHT;

NormalizedAfn identity() {
    NormalizedAfn t;
    RotateAffineTable::initTable(t);
    return t;
}

// A table whose node (j, i) holds (i, 10 j): lookups then read back which
// nodes they blended and with what weights.
NormalizedAfn indexTable() {
    NormalizedAfn t = identity();
    for (uint64_t j = 0; j < H; j++)
        for (uint64_t i = 0; i < W; i++)
            t.nodes[j * W + i] = GLTK::Vector2(static_cast<float>(i), static_cast<float>(10 * j));
    return t;
}

// Distance between two longitudes in table units, where 0 and 1 meet.
float uDistance(float a, float b) {
    const float d = std::fabs(a - b);
    return std::min(d, 1.0f - d);
}

} // namespace

TEST(RotateAffineTable, InitTableIsTheIdentityGrid) {
    NormalizedAfn t;
    t.nodes.resize(5); // stale content is replaced
    RotateAffineTable::initTable(t);
    ASSERT_EQ(t.width, 113u);
    ASSERT_EQ(t.height, 57u);
    ASSERT_EQ(t.nodes.size(), 113u * 57u);
    EXPECT_EQ(t.nodes[0], GLTK::Vector2(0.0f, 0.0f));
    EXPECT_EQ(t.nodes[3 * W + 7], GLTK::Vector2(7 * 0.008928572f, 3 * 0.017857144f));
    EXPECT_NEAR(t.nodes[W - 1].x, 1.0f, 1e-6);      // column 112 repeats column 0 at u = 1
    EXPECT_NEAR(t.nodes[(H - 1) * W].y, 1.0f, 1e-6); // row 56 is the bottom pole
}

TEST(RotateAffineTable, BilinearLookupBlendsTheFourSurroundingNodes) {
    const NormalizedAfn t = indexTable();
    float u = -1, v = -1;
    ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, 20.25f * 0.008928572f, 30.5f * 0.017857144f, u, v));
    EXPECT_NEAR(u, 20.25f, 1e-3);
    EXPECT_NEAR(v, 305.0f, 1e-3);

    // Node positions of the identity table read back themselves.
    const NormalizedAfn id = identity();
    for (uint64_t n : {uint64_t(0), 5 * W + 9, 40 * W + 111, 55 * W + 3}) {
        ASSERT_TRUE(RotateAffineTable::bilinearFromTable(id, id.nodes[n].x, id.nodes[n].y, u, v));
        EXPECT_NEAR(u, id.nodes[n].x, 1e-6);
        EXPECT_NEAR(v, id.nodes[n].y, 1e-6);
    }
}

TEST(RotateAffineTable, RightNeighbourOfTheLastColumnWrapsToColumnOne) {
    const NormalizedAfn t = indexTable();
    float u = 0, v = 0;
    // Between columns 111 and 112: no wrap.
    ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, 111.5f * 0.008928572f, 10 * 0.017857144f, u, v));
    EXPECT_NEAR(u, 111.5f, 1e-3);
    // Past column 112 (= column 0) the longitude continues into column 1.
    ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, 112.5f * 0.008928572f, 10 * 0.017857144f, u, v));
    EXPECT_NEAR(u, 0.5f * 112 + 0.5f * 1, 1e-3);
    EXPECT_NEAR(v, 100.0f, 1e-3);
}

TEST(RotateAffineTable, LastRowInterpolatesWithItself) {
    const NormalizedAfn t = indexTable();
    float u = 0, v = 0;
    ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, 4 * 0.008928572f, 55.5f * 0.017857144f, u, v));
    EXPECT_NEAR(v, 555.0f, 1e-2);
    ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, 4 * 0.008928572f, 56.5f * 0.017857144f, u, v));
    EXPECT_NEAR(v, 560.0f, 1e-3);
    EXPECT_NEAR(u, 4.0f, 1e-3);
    ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, 4 * 0.008928572f, 1.0f, u, v));
    EXPECT_NEAR(v, 560.0f, 1e-2);
}

TEST(RotateAffineTable, PositionsOffTheGridAndMalformedTablesAreSafe) {
    const NormalizedAfn t = indexTable();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const float odd[][2] = {{nan, 0.5f}, {0.5f, nan}, {inf, -inf}, {-3.7f, 0.2f}, {1e30f, 1e30f}, {-1e30f, -1e30f}, {5.0f, 9.0f}};
    for (const auto& p : odd) {
        float u = nan, v = nan;
        ASSERT_TRUE(RotateAffineTable::bilinearFromTable(t, p[0], p[1], u, v));
        EXPECT_TRUE(std::isfinite(u) && std::isfinite(v)) << p[0] << ", " << p[1];
        EXPECT_GE(u, 0.0f);
        EXPECT_LE(u, 112.0f);
        EXPECT_GE(v, 0.0f);
        EXPECT_LE(v, 560.0f);
    }
    // A longitude one turn further round reads the same nodes.
    float u1 = 0, v1 = 0, u2 = 0, v2 = 0;
    RotateAffineTable::bilinearFromTable(t, 0.3f, 0.4f, u1, v1);
    RotateAffineTable::bilinearFromTable(t, 1.3f, 0.4f, u2, v2);
    EXPECT_NEAR(u1, u2, 0.02f);
    EXPECT_NEAR(v1, v2, 1e-3);

    NormalizedAfn empty, shortTable = identity();
    shortTable.nodes.pop_back();
    float u = 7, v = 7;
    EXPECT_FALSE(RotateAffineTable::bilinearFromTable(empty, 0.5f, 0.5f, u, v));
    EXPECT_FALSE(RotateAffineTable::bilinearFromTable(shortTable, 0.5f, 0.5f, u, v));
    EXPECT_EQ(u, 7.0f);

    NormalizedAfn result = identity(), id = identity();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(RotateAffineTable::rotateAfnTable(shortTable, GLTK::Vector3(0, 0.1f, 0), result));
    EXPECT_FALSE(RotateAffineTable::transrateAffineTable(id, empty));
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(text, "rotateAfnTable: table is not 113x57.\ntransrateAffineTable: table is not 113x57.\n");
}

TEST(RotateAffineTable, ZeroRotationKeepsTheRowsBetweenThePoles) {
    const NormalizedAfn id = identity();
    NormalizedAfn r;
    // The x angle is not used.
    ASSERT_TRUE(RotateAffineTable::rotateAfnTable(id, GLTK::Vector3(1.2f, 0, 0), r));
    ASSERT_EQ(r.nodes.size(), W * H);
    for (uint64_t j = 1; j + 1 < H; j++) {
        for (uint64_t i = 0; i + 1 < W; i++) {
            const GLTK::Vector2 n = r.nodes[j * W + i];
            ASSERT_NEAR(n.x, id.nodes[j * W + i].x, 2e-5) << "row " << j << ", column " << i;
            ASSERT_NEAR(n.y, id.nodes[j * W + i].y, 2e-5) << "row " << j << ", column " << i;
        }
        // A longitude of a full turn may come out as 0 rather than 1.
        const GLTK::Vector2 last = r.nodes[j * W + W - 1];
        EXPECT_LT(uDistance(last.x, 1.0f), 2e-5) << "row " << j;
    }
    for (const GLTK::Vector2& n : r.nodes) ASSERT_TRUE(std::isfinite(n.x) && std::isfinite(n.y));
}

TEST(RotateAffineTable, RotationsMoveNodesWhereTheGeometrySays) {
    const NormalizedAfn id = identity();
    NormalizedAfn r;

    // Half a turn about the y axis: colatitude phi -> pi - phi and longitude
    // theta -> pi - theta.
    ASSERT_TRUE(RotateAffineTable::rotateAfnTable(id, GLTK::Vector3(0, std::numbers::pi_v<float>, 0), r));
    for (uint64_t j = 2; j + 2 < H; j++)
        for (uint64_t i = 0; i < W; i++) {
            const GLTK::Vector2 n = r.nodes[j * W + i];
            float want = 0.5f - static_cast<float>(i) / 112.0f;
            if (want < 0) want += 1.0f;
            ASSERT_LT(uDistance(n.x, want), 2e-4) << "row " << j << ", column " << i;
            ASSERT_NEAR(n.y, 1.0f - static_cast<float>(j) / 56.0f, 2e-4) << "row " << j << ", column " << i;
        }

    // One row's angle about the x axis: the equator point at longitude 90
    // degrees, (0, 1, 0), turns up towards the top pole by one row.
    ASSERT_TRUE(RotateAffineTable::rotateAfnTable(id, GLTK::Vector3(0, 0, std::numbers::pi_v<float> / 56), r));
    const GLTK::Vector2 n = r.nodes[28 * W + 28];
    EXPECT_NEAR(n.x, 0.25f, 1e-5);
    EXPECT_NEAR(n.y, 27.0f / 56.0f, 1e-5);
}

TEST(RotateAffineTable, CompositionWithTheIdentityChangesNothing) {
    const NormalizedAfn id = identity();
    NormalizedAfn rotated;
    ASSERT_TRUE(RotateAffineTable::rotateAfnTable(id, GLTK::Vector3(0, 0.4f, -0.3f), rotated));

    // Identity first, then the rotation table.
    NormalizedAfn a = id, b = rotated;
    ASSERT_TRUE(RotateAffineTable::transrateAffineTable(a, b));
    for (size_t n = 0; n < b.nodes.size(); n++) {
        ASSERT_LT(uDistance(b.nodes[n].x, rotated.nodes[n].x), 1e-5) << n;
        ASSERT_NEAR(b.nodes[n].y, rotated.nodes[n].y, 1e-5) << n;
    }

    // The rotation table first, then the identity.
    a = rotated;
    b = id;
    ASSERT_TRUE(RotateAffineTable::transrateAffineTable(a, b));
    for (size_t n = 0; n < b.nodes.size(); n++) {
        ASSERT_LT(uDistance(b.nodes[n].x, rotated.nodes[n].x), 1e-5) << n;
        ASSERT_NEAR(b.nodes[n].y, rotated.nodes[n].y, 1e-5) << n;
    }
}

TEST(RotateAffineTable, ARotationComposedWithItsInverseIsNearlyTheIdentity) {
    // rotated maps through Ry(a) Rx(0), back through Ry(-a): the composition
    // is the identity up to the coarse grid's interpolation error. Columns
    // next to the longitude seam are left out: there a lookup blends a u near
    // 1 with column 112, which may hold the wrapped value 0.
    const NormalizedAfn id = identity();
    NormalizedAfn rotated, back;
    ASSERT_TRUE(RotateAffineTable::rotateAfnTable(id, GLTK::Vector3(0, 0.35f, 0), rotated));
    ASSERT_TRUE(RotateAffineTable::rotateAfnTable(rotated, GLTK::Vector3(0, -0.35f, 0), back));
    for (uint64_t j = 8; j + 8 < H; j++)
        for (uint64_t i = 3; i + 4 < W; i++) {
            ASSERT_LT(uDistance(back.nodes[j * W + i].x, id.nodes[j * W + i].x), 3e-3) << j << ", " << i;
            ASSERT_NEAR(back.nodes[j * W + i].y, id.nodes[j * W + i].y, 3e-3) << j << ", " << i;
        }
}

TEST(RotateAffineTable, LinearInterpolationStep) {
    float y = 0;
    RotateAffineTable::linearInterpolation(2.0f, 10.0f, 6.0f, 30.0f, 3.0f, y);
    EXPECT_FLOAT_EQ(y, 15.0f);
    RotateAffineTable::linearInterpolation(2.0f, 10.0f, 6.0f, 30.0f, 8.0f, y);
    EXPECT_FLOAT_EQ(y, 40.0f);
    RotateAffineTable::linearInterpolation(2.0f, 10.0f, 2.0f, 30.0f, 8.0f, y);
    EXPECT_FLOAT_EQ(y, 10.0f);
}
