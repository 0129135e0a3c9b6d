#pragma once
// Low-pass filters for sampled sensor signals, one axis at a time: fixed
// symmetric FIR kernels applied by direct convolution, centred on each output
// sample (no delay), with the signal's first and last samples repeated beyond
// its ends.
//
//   filterForAcc    accelerometer axes, 301 taps (lpfForAcc)
//   filterForGap    smoothing across a gap, 71 taps (lpfForTsunagi)
//   filterForGap30  the same with a longer, narrower kernel, 301 taps
//                   (lpfForTsunagi30)
//
// The functions keep no state of their own: each call works only on its
// input, its own copy of the kernel and its output, so the three axes of a
// sensor stream can be filtered on three threads at once.
#include <algorithm>
#include <cstddef>
#include <vector>

namespace SensorKernel {

// The kernels are symmetric, so only the first half up to and including the
// centre tap is stored; the second half mirrors it. Their taps sum to 1.0001
// (accelerometer), 1.0001 (gap) and 0.99999 (second gap).
constexpr size_t ACC_TAPS = 301;
constexpr size_t GAP_TAPS = 71;
constexpr size_t GAP30_TAPS = 301;
extern const double ACC_HALF[ACC_TAPS / 2 + 1];
extern const double GAP_HALF[GAP_TAPS / 2 + 1];
extern const double GAP30_HALF[GAP30_TAPS / 2 + 1];

// The full kernel of `taps` taps (odd) from its stored first half.
template <typename T>
std::vector<T> mirrored(const double* half, size_t taps) {
    std::vector<T> kernel(taps);
    const size_t centre = taps / 2;
    for (size_t k = 0; k <= centre; k++) {
        kernel[k] = static_cast<T>(half[k]);
        kernel[taps - 1 - k] = static_cast<T>(half[k]);
    }
    return kernel;
}

} // namespace SensorKernel

// Convolves input with kernel into output (resized to the input's length).
// With K taps and half = K / 2, output[i] is the sum over k of
// input[clamp(i - half + k)] * kernel[k], accumulated in T in the order
// k = 0, 1, 2, ..., where clamp keeps the index inside the input. An empty
// input gives an empty output, an empty kernel an output of zeros.
//
// Away from the edges no clamping is needed; there the outputs are computed
// in groups of eight, each output still summed in its own tap order, so that
// the independent sums overlap in the processor instead of waiting on one
// another. The results are the same as one output at a time.
template <typename T>
void covFilter(const std::vector<T>& input, const std::vector<T>& kernel, std::vector<T>& output) {
    const size_t n = input.size();
    output.assign(n, T(0));
    const size_t taps = kernel.size();
    if (n < 1 || taps < 1) return;
    const ptrdiff_t half = static_cast<ptrdiff_t>(taps / 2);
    const ptrdiff_t last = static_cast<ptrdiff_t>(n) - 1;
    const T* in = input.data();
    const T* w = kernel.data();
    T* out = output.data();

    auto clamped = [&](ptrdiff_t i) {
        T sum = 0;
        for (size_t k = 0; k < taps; k++) {
            const ptrdiff_t j = std::clamp(i - half + static_cast<ptrdiff_t>(k), ptrdiff_t(0), last);
            sum += in[j] * w[k];
        }
        out[i] = sum;
    };

    // Outputs [lo, hi) read only samples inside the input.
    const ptrdiff_t lo = std::min<ptrdiff_t>(half, static_cast<ptrdiff_t>(n));
    const ptrdiff_t hi = std::max<ptrdiff_t>(lo, static_cast<ptrdiff_t>(n) - (static_cast<ptrdiff_t>(taps) - 1 - half));

    for (ptrdiff_t i = 0; i < lo; i++) clamped(i);
    ptrdiff_t i = lo;
    for (; i + 8 <= hi; i += 8) {
        const T* p = in + (i - half);
        T s0 = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0, s5 = 0, s6 = 0, s7 = 0;
        for (size_t k = 0; k < taps; k++) {
            const T c = w[k];
            const T* q = p + k;
            s0 += q[0] * c;
            s1 += q[1] * c;
            s2 += q[2] * c;
            s3 += q[3] * c;
            s4 += q[4] * c;
            s5 += q[5] * c;
            s6 += q[6] * c;
            s7 += q[7] * c;
        }
        out[i] = s0;
        out[i + 1] = s1;
        out[i + 2] = s2;
        out[i + 3] = s3;
        out[i + 4] = s4;
        out[i + 5] = s5;
        out[i + 6] = s6;
        out[i + 7] = s7;
    }
    for (; i < hi; i++) {
        const T* p = in + (i - half);
        T sum = 0;
        for (size_t k = 0; k < taps; k++) sum += p[k] * w[k];
        out[i] = sum;
    }
    for (i = hi; i <= last; i++) clamped(i);
}

// The kernel functions: copy the kernel into a vector and convolve.
template <typename T>
void lpfForAcc(const std::vector<T>& input, std::vector<T>& output) {
    const std::vector<T> kernel = SensorKernel::mirrored<T>(SensorKernel::ACC_HALF, SensorKernel::ACC_TAPS);
    covFilter(input, kernel, output);
}

template <typename T>
void lpfForTsunagi(const std::vector<T>& input, std::vector<T>& output) {
    const std::vector<T> kernel = SensorKernel::mirrored<T>(SensorKernel::GAP_HALF, SensorKernel::GAP_TAPS);
    covFilter(input, kernel, output);
}

template <typename T>
void lpfForTsunagi30(const std::vector<T>& input, std::vector<T>& output) {
    const std::vector<T> kernel = SensorKernel::mirrored<T>(SensorKernel::GAP30_HALF, SensorKernel::GAP30_TAPS);
    covFilter(input, kernel, output);
}

// Accelerometer axis smoothing (301 taps, pass band up to about 0.0025
// cycles per sample).
void filterForAcc(const std::vector<double>& input, std::vector<double>& output);
// Gap smoothing (71 taps, pass band up to about 0.0105 cycles per sample).
void filterForGap(const std::vector<double>& input, std::vector<double>& output);
// Gap smoothing with the narrower kernel (301 taps, pass band up to about
// 0.0055 cycles per sample).
void filterForGap30(const std::vector<double>& input, std::vector<double>& output);
