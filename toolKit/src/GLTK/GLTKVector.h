#pragma once
// Small fixed-size vectors for the sensor and remapping code: a 2-component
// vector (normalised image positions) and a 3-component vector (sensor axes,
// directions on the unit sphere).
//
// The arithmetic is done in the component type and nothing else: a float
// vector stays in single precision throughout, as the orientation and
// rotation calculations expect. Every operation is written out in a fixed
// order so that results are reproducible.
#include <cmath>
#include <cstddef>

namespace GLTK {

template <typename T>
struct Vector2T {
    T x = 0;
    T y = 0;

    constexpr Vector2T() = default;
    constexpr Vector2T(T x_, T y_) : x(x_), y(y_) {}

    constexpr T& operator[](size_t i) { return i == 0 ? x : y; }
    constexpr const T& operator[](size_t i) const { return i == 0 ? x : y; }

    constexpr Vector2T operator+(const Vector2T& o) const { return {x + o.x, y + o.y}; }
    constexpr Vector2T operator-(const Vector2T& o) const { return {x - o.x, y - o.y}; }
    constexpr Vector2T operator-() const { return {-x, -y}; }
    constexpr Vector2T operator*(T s) const { return {x * s, y * s}; }
    constexpr Vector2T operator/(T s) const { return {x / s, y / s}; }
    constexpr Vector2T& operator+=(const Vector2T& o) { x += o.x; y += o.y; return *this; }
    constexpr Vector2T& operator-=(const Vector2T& o) { x -= o.x; y -= o.y; return *this; }
    constexpr Vector2T& operator*=(T s) { x *= s; y *= s; return *this; }
    constexpr Vector2T& operator/=(T s) { x /= s; y /= s; return *this; }
    constexpr bool operator==(const Vector2T& o) const { return x == o.x && y == o.y; }

    constexpr T dot(const Vector2T& o) const { return x * o.x + y * o.y; }
    T length() const { return std::sqrt(dot(*this)); }
    // Divides by the length; a zero vector gives NaN components, which
    // callers that care test for.
    Vector2T normalized() const { return *this / length(); }
};

template <typename T>
struct Vector3T {
    T x = 0;
    T y = 0;
    T z = 0;

    constexpr Vector3T() = default;
    constexpr Vector3T(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}

    // Conversion between precisions is explicit, component by component.
    template <typename U>
    constexpr explicit Vector3T(const Vector3T<U>& o)
        : x(static_cast<T>(o.x)), y(static_cast<T>(o.y)), z(static_cast<T>(o.z)) {}

    constexpr T& operator[](size_t i) { return i == 0 ? x : (i == 1 ? y : z); }
    constexpr const T& operator[](size_t i) const { return i == 0 ? x : (i == 1 ? y : z); }

    constexpr Vector3T operator+(const Vector3T& o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vector3T operator-(const Vector3T& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vector3T operator-() const { return {-x, -y, -z}; }
    constexpr Vector3T operator*(T s) const { return {x * s, y * s, z * s}; }
    constexpr Vector3T operator/(T s) const { return {x / s, y / s, z / s}; }
    constexpr Vector3T& operator+=(const Vector3T& o) { x += o.x; y += o.y; z += o.z; return *this; }
    constexpr Vector3T& operator-=(const Vector3T& o) { x -= o.x; y -= o.y; z -= o.z; return *this; }
    constexpr Vector3T& operator*=(T s) { x *= s; y *= s; z *= s; return *this; }
    constexpr Vector3T& operator/=(T s) { x /= s; y /= s; z /= s; return *this; }
    constexpr bool operator==(const Vector3T& o) const { return x == o.x && y == o.y && z == o.z; }

    constexpr T dot(const Vector3T& o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr Vector3T cross(const Vector3T& o) const {
        return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
    }
    T length() const { return std::sqrt(dot(*this)); }
    // Divides by the length; a zero vector gives NaN components, which
    // callers that care test for.
    Vector3T normalized() const { return *this / length(); }
};

template <typename T>
constexpr Vector2T<T> operator*(T s, const Vector2T<T>& v) { return v * s; }
template <typename T>
constexpr Vector3T<T> operator*(T s, const Vector3T<T>& v) { return v * s; }

template <typename T>
constexpr T dot(const Vector3T<T>& a, const Vector3T<T>& b) { return a.dot(b); }
template <typename T>
constexpr Vector3T<T> cross(const Vector3T<T>& a, const Vector3T<T>& b) { return a.cross(b); }
template <typename T>
T length(const Vector3T<T>& v) { return v.length(); }
template <typename T>
Vector3T<T> normalize(const Vector3T<T>& v) { return v.normalized(); }

using Vector2 = Vector2T<float>;
using Vector3 = Vector3T<float>;
using Vector2d = Vector2T<double>;
using Vector3d = Vector3T<double>;

} // namespace GLTK
