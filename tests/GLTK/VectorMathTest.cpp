// The turn of one direction part way towards another, which the gravity
// resampling relies on (the tilt onto an axis is checked in the sensor tests).
#include <gtest/gtest.h>

#include <cmath>

#include "GLTKQuaternion.h"
#include "GLTKVector.h"

using GLTK::Quaterniond;
using GLTK::Vector3d;

TEST(Quaternion, TowardsTurnsADirectionPartWayAlongTheGreatCircle)
{
    const Vector3d a = Vector3d(0.2, 1, -0.1).normalized(), b = Vector3d(-0.5, 0.3, 0.9).normalized();
    const double theta = std::acos(a.dot(b));
    Quaterniond q;
    for (double f : {0.0, 0.25, 0.8, 1.0}) {
        ASSERT_TRUE(Quaterniond::towards(a, b, f, q));
        const Vector3d p = q.toMatrix() * a;
        EXPECT_NEAR(p.length(), 1.0, 1e-14);
        EXPECT_NEAR(std::acos(std::clamp(p.dot(a), -1.0, 1.0)), f * theta, 1e-7);
        EXPECT_NEAR(std::acos(std::clamp(p.dot(b), -1.0, 1.0)), (1 - f) * theta, 1e-7);
    }
    // No axis between parallel or opposite directions (or a zero vector).
    const Quaterniond before = Quaterniond::fromAxisAngle(Vector3d(0, 0, 1), 1.0);
    q = before;
    EXPECT_FALSE(Quaterniond::towards(a, a, 0.5, q));
    EXPECT_FALSE(Quaterniond::towards(a, -a, 0.5, q));
    EXPECT_FALSE(Quaterniond::towards(Vector3d(), a, 0.5, q));
    EXPECT_EQ(q.w, before.w);
}
