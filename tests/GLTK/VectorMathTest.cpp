// Vectors, 3 x 3 matrices and rotation quaternions: the conventions the
// sensor code relies on, and agreement between the different ways of
// building the same rotation.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "GLTKMatrix.h"
#include "GLTKQuaternion.h"
#include "GLTKVector.h"

using GLTK::Matrix3x3;
using GLTK::Matrix3x3d;
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

TEST(Matrix, RightHandedRotationsAndRowMajorProducts)
{
    EXPECT_EQ(Vector3d(1, 0, 0).cross(Vector3d(0, 1, 0)), Vector3d(0, 0, 1));
    EXPECT_TRUE(std::isnan(Vector3().normalized().x)); // no direction to keep
    const Matrix3x3d a(1, 2, 3, 4, 5, 6, 7, 8, 10);
    EXPECT_EQ(a * Vector3d(1, 0, -1), Vector3d(-2, -2, -3));
    EXPECT_EQ((a * a)(2, 1), 7 * 2 + 8 * 5 + 10 * 8);
    EXPECT_EQ(a.transposed()(0, 2), 7);

    // A quarter turn about z takes x to y, about x takes y to z, about y
    // takes z to x; the transpose undoes a rotation.
    const double q = std::numbers::pi / 2;
    expectNear(Matrix3x3d::rotationZ(q) * Vector3d(1, 0, 0), Vector3d(0, 1, 0), 1e-15);
    expectNear(Matrix3x3d::rotationX(q) * Vector3d(0, 1, 0), Vector3d(0, 0, 1), 1e-15);
    expectNear(Matrix3x3d::rotationY(q) * Vector3d(0, 0, 1), Vector3d(1, 0, 0), 1e-15);
    const Matrix3x3d r = Matrix3x3d::rotationY(0.3) * Matrix3x3d::rotationX(-1.1);
    expectNear(r * r.transposed(), Matrix3x3d::identity(), 1e-15);
    expectNear(Matrix3x3d::axisAngle(Vector3d(1, 0, 0), 0.7), Matrix3x3d::rotationX(0.7), 1e-15);
    expectNear(Matrix3x3d::axisAngle(Vector3d(0, 0, -1), 0.7), Matrix3x3d::rotationZ(-0.7), 1e-15);
}

TEST(Matrix, RodriguesTurnsAVectorOntoAnAxisInSinglePrecision)
{
    // The tilt that brings a gravity vector onto the downward y axis.
    const Vector3 v(300.0f, -8000.0f, 1200.0f), target(0.0f, -1.0f, 0.0f);
    const Vector3 n = v / v.length();
    const Vector3 c = n.cross(target);
    const Matrix3x3 m = Matrix3x3::rodrigues(c / c.length(), n.dot(target), c.length());
    expectNear(m * n, target, 1e-6);
    expectNear(m * m.transposed(), Matrix3x3::identity(), 1e-6);
    EXPECT_EQ(Matrix3x3::rodrigues(Vector3(0, 0, 1), 1.0f, 0.0f), Matrix3x3::identity());
}

TEST(Quaternion, AxisAngleAndProductsMatchTheMatrixRotations)
{
    const Vector3d axis = Vector3d(1, -2, 0.5).normalized();
    for (double angle : {0.0, 0.3, -1.2, 3.0})
        expectNear(Quaterniond::fromAxisAngle(axis, angle).toMatrix(), Matrix3x3d::axisAngle(axis, angle), 1e-14);
    const Quaterniond a = Quaterniond::fromAxisAngle(Vector3d(0, 0, 1), 0.4);
    const Quaterniond b = Quaterniond::fromAxisAngle(Vector3d(1, 0, 0), -0.9);
    expectNear((a * b).toMatrix(), a.toMatrix() * b.toMatrix(), 1e-15);
    expectNear((a * a.conjugate()).toMatrix(), Matrix3x3d::identity(), 1e-15);
    expectNear(b.rotate(Vector3d(0, 1, 0)), Matrix3x3d::rotationX(-0.9) * Vector3d(0, 1, 0), 1e-15);
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

TEST(Quaternion, SlerpFollowsTheShorterArcAtConstantSpeed)
{
    const Vector3d axis = Vector3d(0.3, 0.4, 1).normalized();
    auto turn = [&](double angle) { return Quaterniond::fromAxisAngle(axis, angle); };
    const Quaterniond a = turn(0.2), b = turn(1.4);
    expectNear(Quaterniond::slerp(a, b, 0.25).toMatrix(), turn(0.5).toMatrix(), 1e-14);
    // -b is the same rotation; the result must not go the long way round.
    const Quaterniond nb{-b.w, -b.x, -b.y, -b.z};
    expectNear(Quaterniond::slerp(a, nb, 0.5).toMatrix(), turn(0.8).toMatrix(), 1e-14);
    // Nearly equal rotations blend without dividing by a vanishing sine.
    EXPECT_NEAR(Quaterniond::slerp(a, turn(0.2 + 1e-9), 0.5).norm(), 1.0, 1e-15);
}
