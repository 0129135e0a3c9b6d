// Remapping tables (a toolkit part the program does not call yet): the
// identity grid, bilinear lookup at the wrap column and the last row, safety
// against malformed tables, and one rotation checked against the geometry.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

#include "sensor/RotateAffineTable.h"

namespace {

using T = RotateAffineTable;
constexpr uint64_t W = T::WIDTH;
constexpr uint64_t H = T::HEIGHT;
constexpr float DU = 0.008928572f, DV = 0.017857144f; // one column, one row

NormalizedAfn identity()
{
    NormalizedAfn t;
    t.nodes.resize(5); // stale content is replaced
    T::initTable(t);
    return t;
}

// Distance between two longitudes in table units, where 0 and 1 meet.
float uDistance(float a, float b)
{
    const float d = std::fabs(a - b);
    return std::min(d, 1.0f - d);
}

} // namespace

TEST(RotateAffineTable, IdentityGridAndBilinearLookupWrappingPastTheLastColumn)
{
    NormalizedAfn t = identity();
    ASSERT_EQ(t.nodes.size(), 113u * 57u);
    EXPECT_EQ(t.nodes[3 * W + 7], GLTK::Vector2(7 * DU, 3 * DV));
    EXPECT_NEAR(t.nodes[W - 1].x, 1.0f, 1e-6);      // column 112 repeats column 0 at u = 1
    EXPECT_NEAR(t.nodes[(H - 1) * W].y, 1.0f, 1e-6); // row 56 is the bottom pole

    // Node (j, i) holding (i, 10 j): lookups read back which nodes they
    // blended and with what weights.
    for (uint64_t j = 0; j < H; j++)
        for (uint64_t i = 0; i < W; i++)
            t.nodes[j * W + i] = GLTK::Vector2(float(i), float(10 * j));
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    struct Case {
        float u, v, wantU, wantV;
    } cases[] = {
        {20.25f * DU, 30.5f * DV, 20.25f, 305.0f},
        {112.5f * DU, 10 * DV, 0.5f * 112 + 0.5f, 100}, // past column 112 (= 0) into column 1
        {4 * DU, 56.5f * DV, 4, 560},                   // the last row interpolates with itself
        {1.3f, 0.4f, 0.3f / DU, 0.4f / DV * 10},        // one turn further round: the same nodes
    };
    for (const Case& c : cases) {
        float u = -1, v = -1;
        ASSERT_TRUE(T::bilinearFromTable(t, c.u, c.v, u, v));
        EXPECT_NEAR(u, c.wantU, 0.05) << c.u << ", " << c.v;
        EXPECT_NEAR(v, c.wantV, 0.05) << c.u << ", " << c.v;
    }
    for (auto [x, y] : {std::pair{nan, 0.5f}, {inf, -inf}, {-1e30f, 1e30f}}) {
        float u = nan, v = nan;
        ASSERT_TRUE(T::bilinearFromTable(t, x, y, u, v));
        EXPECT_TRUE(u >= 0 && u <= 112 && v >= 0 && v <= 560) << x << ", " << y << " -> " << u << ", " << v;
    }
}

TEST(RotateAffineTable, MalformedTablesAreRefused)
{
    NormalizedAfn empty, shortTable = identity(), result = identity(), id = identity();
    shortTable.nodes.pop_back();
    float u = 7, v = 7;
    EXPECT_FALSE(T::bilinearFromTable(empty, 0.5f, 0.5f, u, v));
    EXPECT_FALSE(T::bilinearFromTable(shortTable, 0.5f, 0.5f, u, v));
    EXPECT_EQ(u, 7.0f);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(T::rotateAfnTable(shortTable, GLTK::Vector3(0, 0.1f, 0), result));
    EXPECT_FALSE(T::transrateAffineTable(id, empty));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "rotateAfnTable: table is not 113x57.\ntransrateAffineTable: table is not 113x57.\n");
}

TEST(RotateAffineTable, HalfATurnAboutYMovesNodesWhereTheGeometrySays)
{
    // Colatitude phi -> pi - phi and longitude theta -> pi - theta.
    NormalizedAfn r;
    ASSERT_TRUE(T::rotateAfnTable(identity(), GLTK::Vector3(0, std::numbers::pi_v<float>, 0), r));
    for (uint64_t j = 2; j + 2 < H; j++)
        for (uint64_t i = 0; i < W; i++) {
            const GLTK::Vector2 n = r.nodes[j * W + i];
            float want = 0.5f - float(i) / 112.0f;
            ASSERT_LT(uDistance(n.x, want < 0 ? want + 1 : want), 2e-4) << "row " << j << ", column " << i;
            ASSERT_NEAR(n.y, 1.0f - float(j) / 56.0f, 2e-4) << "row " << j << ", column " << i;
        }
}
