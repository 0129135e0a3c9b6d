// Remapping tables: identity, bilinear lookup at the wrap column and the last
// row, rotation tables and their composition.
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

// A table whose node (j, i) holds (i, 10 j): lookups then read back which
// nodes they blended and with what weights.
NormalizedAfn indexTable()
{
    NormalizedAfn t = identity();
    for (uint64_t j = 0; j < H; j++)
        for (uint64_t i = 0; i < W; i++)
            t.nodes[j * W + i] = GLTK::Vector2(float(i), float(10 * j));
    return t;
}

// Distance between two longitudes in table units, where 0 and 1 meet.
float uDistance(float a, float b)
{
    const float d = std::fabs(a - b);
    return std::min(d, 1.0f - d);
}

// Every node of a matches b, or the rows [rowFrom, H - rowFrom) and columns
// [colFrom, W - colTo) of them.
void expectTablesNear(const NormalizedAfn& a, const NormalizedAfn& b, float tol, uint64_t rowFrom = 0,
                      uint64_t colFrom = 0, uint64_t colTo = 0)
{
    for (uint64_t j = rowFrom; j + rowFrom < H; j++)
        for (uint64_t i = colFrom; i + colTo < W; i++) {
            ASSERT_LT(uDistance(a.nodes[j * W + i].x, b.nodes[j * W + i].x), tol) << "row " << j << ", column " << i;
            ASSERT_NEAR(a.nodes[j * W + i].y, b.nodes[j * W + i].y, tol) << "row " << j << ", column " << i;
        }
}

} // namespace

TEST(RotateAffineTable, IdentityGridAndBilinearLookupWrappingPastTheLastColumn)
{
    NormalizedAfn id = identity();
    ASSERT_EQ(id.nodes.size(), 113u * 57u);
    EXPECT_EQ(id.nodes[3 * W + 7], GLTK::Vector2(7 * DU, 3 * DV));
    EXPECT_NEAR(id.nodes[W - 1].x, 1.0f, 1e-6);      // column 112 repeats column 0 at u = 1
    EXPECT_NEAR(id.nodes[(H - 1) * W].y, 1.0f, 1e-6); // row 56 is the bottom pole

    const NormalizedAfn t = indexTable();
    struct Case {
        float column, row, u, v;
    } cases[] = {
        {20.25f, 30.5f, 20.25f, 305.0f},
        {111.5f, 10, 111.5f, 100},             // between columns 111 and 112: no wrap
        {112.5f, 10, 0.5f * 112 + 0.5f, 100}, // past column 112 (= 0) into column 1
        {4, 55.5f, 4, 555},
        {4, 56.5f, 4, 560}, // the last row interpolates with itself
    };
    for (const Case& c : cases) {
        float u = -1, v = -1;
        ASSERT_TRUE(T::bilinearFromTable(t, c.column * DU, c.row * DV, u, v));
        EXPECT_NEAR(u, c.u, 1e-2) << c.column << ", " << c.row;
        EXPECT_NEAR(v, c.v, 1e-2) << c.column << ", " << c.row;
    }
    float y = 0;
    T::linearInterpolation(2.0f, 10.0f, 2.0f, 30.0f, 8.0f, y); // no slope between equal x
    EXPECT_FLOAT_EQ(y, 10.0f);
}

TEST(RotateAffineTable, PositionsOffTheGridAndMalformedTablesAreSafe)
{
    const NormalizedAfn t = indexTable();
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const float odd[][2] = {{nan, 0.5f}, {0.5f, nan}, {inf, -inf}, {-3.7f, 0.2f}, {1e30f, 1e30f}, {-1e30f, -1e30f}};
    for (const auto& p : odd) {
        float u = nan, v = nan;
        ASSERT_TRUE(T::bilinearFromTable(t, p[0], p[1], u, v));
        EXPECT_TRUE(u >= 0 && u <= 112 && v >= 0 && v <= 560) << p[0] << ", " << p[1] << " -> " << u << ", " << v;
    }
    // A longitude one turn further round reads the same nodes.
    float u1 = 0, v1 = 0, u2 = 0, v2 = 0;
    T::bilinearFromTable(t, 0.3f, 0.4f, u1, v1);
    T::bilinearFromTable(t, 1.3f, 0.4f, u2, v2);
    EXPECT_NEAR(u1, u2, 0.02f);
    EXPECT_NEAR(v1, v2, 1e-3);

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

TEST(RotateAffineTable, RotationsMoveNodesWhereTheGeometrySays)
{
    const NormalizedAfn id = identity();
    NormalizedAfn r;
    // Half a turn about the y axis: colatitude phi -> pi - phi and longitude
    // theta -> pi - theta.
    ASSERT_TRUE(T::rotateAfnTable(id, GLTK::Vector3(0, std::numbers::pi_v<float>, 0), r));
    for (uint64_t j = 2; j + 2 < H; j++)
        for (uint64_t i = 0; i < W; i++) {
            const GLTK::Vector2 n = r.nodes[j * W + i];
            float want = 0.5f - float(i) / 112.0f;
            ASSERT_LT(uDistance(n.x, want < 0 ? want + 1 : want), 2e-4) << "row " << j << ", column " << i;
            ASSERT_NEAR(n.y, 1.0f - float(j) / 56.0f, 2e-4) << "row " << j << ", column " << i;
        }

    // One row's angle about the x axis: the equator point at longitude 90
    // degrees, (0, 1, 0), turns up towards the top pole by one row.
    ASSERT_TRUE(T::rotateAfnTable(id, GLTK::Vector3(0, 0, std::numbers::pi_v<float> / 56), r));
    EXPECT_NEAR(r.nodes[28 * W + 28].x, 0.25f, 1e-5);
    EXPECT_NEAR(r.nodes[28 * W + 28].y, 27.0f / 56.0f, 1e-5);
}

TEST(RotateAffineTable, CompositionWithTheIdentityOrTheInverse)
{
    const NormalizedAfn id = identity();
    NormalizedAfn rotated;
    ASSERT_TRUE(T::rotateAfnTable(id, GLTK::Vector3(0, 0.4f, -0.3f), rotated));
    for (bool identityFirst : {true, false}) {
        NormalizedAfn a = identityFirst ? id : rotated, b = identityFirst ? rotated : id;
        ASSERT_TRUE(T::transrateAffineTable(a, b));
        expectTablesNear(b, rotated, 1e-5);
    }

    // Through Ry(a), back through Ry(-a): the identity up to the coarse grid's
    // interpolation error. Columns next to the seam are left out: there a
    // lookup blends a u near 1 with column 112, which may hold 0.
    NormalizedAfn there, back;
    ASSERT_TRUE(T::rotateAfnTable(id, GLTK::Vector3(0, 0.35f, 0), there));
    ASSERT_TRUE(T::rotateAfnTable(there, GLTK::Vector3(0, -0.35f, 0), back));
    expectTablesNear(back, id, 3e-3, 8, 3, 4);
}
