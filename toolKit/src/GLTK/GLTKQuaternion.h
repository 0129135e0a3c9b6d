#pragma once
// Rotation quaternions (w + xi + yj + zk) for the sensor code: built from an
// axis and an angle, turned into rotation matrices, and used to rotate one
// direction part of the way towards another (the spherical interpolation of
// gravity directions between two sensor samples).
//
// Named QuaternionT / Quaternionf / Quaterniond so as not to be confused
// with the camera's quaternion stream record.
#include <algorithm>
#include <cmath>

#include "GLTKMatrix.h"
#include "GLTKVector.h"

namespace GLTK {

template <typename T>
struct QuaternionT {
    T w = 1;
    T x = 0;
    T y = 0;
    T z = 0;

    constexpr QuaternionT() = default;
    constexpr QuaternionT(T w_, T x_, T y_, T z_) : w(w_), x(x_), y(y_), z(z_) {}

    static constexpr QuaternionT identity() { return QuaternionT(); }

    // Rotation by angle (radians) about a unit axis:
    // w = cos(angle / 2), (x, y, z) = axis sin(angle / 2).
    static QuaternionT fromAxisAngle(const Vector3T<T>& unitAxis, T angle) {
        const T h = angle / 2;
        const T s = std::sin(h);
        return {std::cos(h), unitAxis.x * s, unitAxis.y * s, unitAxis.z * s};
    }

    // The rotation that turns the unit direction a by the fraction f of the
    // way towards the unit direction b, about the axis a x b. f = 0 gives the
    // identity rotation, f = 1 one that takes a onto b. Returns false, leaving
    // q alone, when a x b has length 0 (a and b parallel or opposite: no axis
    // is defined). The cosine is clamped to [-1, 1] so that rounding in a . b
    // cannot make the angle NaN.
    static bool towards(const Vector3T<T>& a, const Vector3T<T>& b, T f, QuaternionT& q) {
        const Vector3T<T> c = a.cross(b);
        const T len = c.length();
        if (len == 0 || std::isnan(len)) return false;
        const Vector3T<T> k = c / len;
        const T theta = std::acos(std::clamp(a.dot(b), T(-1), T(1)));
        q = fromAxisAngle(k, theta * f);
        return true;
    }

    constexpr QuaternionT operator*(const QuaternionT& o) const {
        return {w * o.w - x * o.x - y * o.y - z * o.z,
                w * o.x + x * o.w + y * o.z - z * o.y,
                w * o.y - x * o.z + y * o.w + z * o.x,
                w * o.z + x * o.y - y * o.x + z * o.w};
    }

    constexpr QuaternionT conjugate() const { return {w, -x, -y, -z}; }
    constexpr T dot(const QuaternionT& o) const { return w * o.w + x * o.x + y * o.y + z * o.z; }
    T norm() const { return std::sqrt(dot(*this)); }
    QuaternionT normalized() const {
        const T n = norm();
        return {w / n, x / n, y / n, z / n};
    }

    // Rotation matrix of a unit quaternion, in the standard form.
    constexpr Matrix3x3T<T> toMatrix() const {
        return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y),
                2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
                2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)};
    }

    // Rotates v by this unit quaternion (the same as toMatrix() * v).
    constexpr Vector3T<T> rotate(const Vector3T<T>& v) const { return toMatrix() * v; }

    // Spherical linear interpolation between two unit quaternions, along the
    // shorter arc. Nearly equal quaternions fall back to a normalised linear
    // blend, where the sine of the angle would be too small to divide by.
    static QuaternionT slerp(const QuaternionT& a, QuaternionT b, T t) {
        T d = a.dot(b);
        if (d < 0) {
            b = {-b.w, -b.x, -b.y, -b.z};
            d = -d;
        }
        T ka, kb;
        if (d > T(0.9995)) {
            ka = 1 - t;
            kb = t;
        } else {
            const T theta = std::acos(std::min(d, T(1)));
            const T s = std::sin(theta);
            ka = std::sin((1 - t) * theta) / s;
            kb = std::sin(t * theta) / s;
        }
        const QuaternionT r{a.w * ka + b.w * kb, a.x * ka + b.x * kb,
                            a.y * ka + b.y * kb, a.z * ka + b.z * kb};
        return d > T(0.9995) ? r.normalized() : r;
    }
};

using Quaternionf = QuaternionT<float>;
using Quaterniond = QuaternionT<double>;

} // namespace GLTK
