// The remapping table (a toolkit part the program does not call yet): the
// identity grid, and one rotation checked against the geometry.
#include "sensor/RotateAffineTable.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

TEST(RotateAffineTable, IdentityGridAndAHalfTurnAboutY)
{
    using T = RotateAffineTable;
    NormalizedAfn id, r;
    id.nodes.resize(5); // stale content is replaced
    T::initTable(id);
    ASSERT_EQ(id.nodes.size(), T::WIDTH * T::HEIGHT);
    EXPECT_NEAR(id.nodes[3 * T::WIDTH + 7].x, 7 / 112.0f, 1e-6);
    EXPECT_NEAR(id.nodes[3 * T::WIDTH + 7].y, 3 / 56.0f, 1e-6);

    // Colatitude phi -> pi - phi and longitude theta -> pi - theta.
    ASSERT_TRUE(T::rotateAfnTable(id, GLTK::Vector3(0, std::numbers::pi_v<float>, 0), r));
    for (uint64_t j = 2; j + 2 < T::HEIGHT; j++)
        for (uint64_t i = 0; i < T::WIDTH; i++) {
            const GLTK::Vector2 n = r.nodes[j * T::WIDTH + i];
            const float d = std::fabs(n.x - std::fmod(1.5f - float(i) / 112.0f, 1.0f));
            ASSERT_LT(std::min(d, 1.0f - d), 2e-4) << "row " << j << ", column " << i;
            ASSERT_NEAR(n.y, 1.0f - float(j) / 56.0f, 2e-4) << "row " << j << ", column " << i;
        }
}
