// The rotations the sensor code builds: the tilt of a gravity vector onto
// an axis, and the turn of one direction part way towards another.
#include <gtest/gtest.h>

#include <cmath>

#include "GLTKMatrix.h"
#include "GLTKQuaternion.h"
#include "GLTKVector.h"

using GLTK::Matrix3x3;
using GLTK::Quaterniond;
using GLTK::Vector3;
using GLTK::Vector3d;

namespace {

template <typename T> void expectNear(const GLTK::Vector3T<T>& a, const GLTK::Vector3T<T>& b, double tol)
{
    EXPECT_NEAR(a.x, b.x, tol);
    EXPECT_NEAR(a.y, b.y, tol);
    EXPECT_NEAR(a.z, b.z, tol);
}

template <typename T> void expectNear(const GLTK::Matrix3x3T<T>& a, const GLTK::Matrix3x3T<T>& b, double tol)
{
    for (size_t i = 0; i < 3; i++)
        for (size_t j = 0; j < 3; j++)
            EXPECT_NEAR(a(i, j), b(i, j), tol) << "element " << i << ", " << j;
}

} // namespace

TEST(Matrix, RodriguesTurnsAVectorOntoAnAxisInSinglePrecision)
{
    // The tilt that brings a gravity vector onto the downward y axis; the
    // axis comes from a right-handed cross product.
    EXPECT_EQ(Vector3d(1, 0, 0).cross(Vector3d(0, 1, 0)), Vector3d(0, 0, 1));
    const Vector3 v(300.0f, -8000.0f, 1200.0f), target(0.0f, -1.0f, 0.0f);
    const Vector3 n = v / v.length();
    const Vector3 c = n.cross(target);
    const Matrix3x3 m = Matrix3x3::rodrigues(c / c.length(), n.dot(target), c.length());
    expectNear(m * n, target, 1e-6);
    expectNear(m * m.transposed(), Matrix3x3::identity(), 1e-6);
    EXPECT_EQ(Matrix3x3::rodrigues(Vector3(0, 0, 1), 1.0f, 0.0f), Matrix3x3::identity());
}

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
