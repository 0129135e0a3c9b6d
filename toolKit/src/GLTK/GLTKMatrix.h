#pragma once
// 3 x 3 matrices for rotations of sensor vectors and sphere points. Stored
// row-major; a matrix times a column vector gives the rotated vector. As with
// the vectors, the arithmetic stays in the element type.
#include <cmath>
#include <cstddef>

#include "GLTKVector.h"

namespace GLTK {

template <typename T>
struct Matrix3x3T {
    // m[row][column]; a default matrix is the identity.
    T m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

    constexpr Matrix3x3T() = default;
    constexpr Matrix3x3T(T m00, T m01, T m02,
                         T m10, T m11, T m12,
                         T m20, T m21, T m22)
        : m{{m00, m01, m02}, {m10, m11, m12}, {m20, m21, m22}} {}

    static constexpr Matrix3x3T identity() { return Matrix3x3T(); }

    constexpr T& operator()(size_t row, size_t col) { return m[row][col]; }
    constexpr const T& operator()(size_t row, size_t col) const { return m[row][col]; }

    constexpr Vector3T<T> row(size_t r) const { return {m[r][0], m[r][1], m[r][2]}; }
    constexpr Vector3T<T> column(size_t c) const { return {m[0][c], m[1][c], m[2][c]}; }

    constexpr Vector3T<T> operator*(const Vector3T<T>& v) const {
        return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
                m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }

    constexpr Matrix3x3T operator*(const Matrix3x3T& o) const {
        Matrix3x3T r;
        for (size_t i = 0; i < 3; i++)
            for (size_t j = 0; j < 3; j++)
                r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j];
        return r;
    }

    constexpr Matrix3x3T operator*(T s) const {
        Matrix3x3T r;
        for (size_t i = 0; i < 3; i++)
            for (size_t j = 0; j < 3; j++)
                r.m[i][j] = m[i][j] * s;
        return r;
    }

    constexpr Matrix3x3T transposed() const {
        return {m[0][0], m[1][0], m[2][0],
                m[0][1], m[1][1], m[2][1],
                m[0][2], m[1][2], m[2][2]};
    }

    constexpr bool operator==(const Matrix3x3T& o) const {
        for (size_t i = 0; i < 3; i++)
            for (size_t j = 0; j < 3; j++)
                if (m[i][j] != o.m[i][j]) return false;
        return true;
    }

    // Rotation by angle (radians, right-handed) about the x, y or z axis.
    static Matrix3x3T rotationX(T angle) {
        const T c = std::cos(angle), s = std::sin(angle);
        return {1, 0, 0,
                0, c, -s,
                0, s, c};
    }
    static Matrix3x3T rotationY(T angle) {
        const T c = std::cos(angle), s = std::sin(angle);
        return {c, 0, s,
                0, 1, 0,
                -s, 0, c};
    }
    static Matrix3x3T rotationZ(T angle) {
        const T c = std::cos(angle), s = std::sin(angle);
        return {c, -s, 0,
                s, c, 0,
                0, 0, 1};
    }

    // Rodrigues rotation about the unit axis k, given the cosine c and sine s
    // of the angle: c I + (1 - c) k k^T + s [k]x. Taking c and s rather than
    // the angle lets callers that already have them from a dot and a cross
    // product skip the round trip through acos.
    static constexpr Matrix3x3T rodrigues(const Vector3T<T>& k, T c, T s) {
        const T t = 1 - c;
        return {k.x * k.x * t + c, k.x * k.y * t - s * k.z, k.x * k.z * t + s * k.y,
                k.x * k.y * t + s * k.z, k.y * k.y * t + c, k.y * k.z * t - s * k.x,
                k.x * k.z * t - s * k.y, k.y * k.z * t + s * k.x, k.z * k.z * t + c};
    }

    static Matrix3x3T axisAngle(const Vector3T<T>& unitAxis, T angle) {
        return rodrigues(unitAxis, std::cos(angle), std::sin(angle));
    }
};

template <typename T>
constexpr Matrix3x3T<T> operator*(T s, const Matrix3x3T<T>& a) { return a * s; }

using Matrix3x3 = Matrix3x3T<float>;
using Matrix3x3d = Matrix3x3T<double>;
using Matrix3 = Matrix3x3;
using Matrix3d = Matrix3x3d;

} // namespace GLTK
