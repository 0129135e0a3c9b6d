// The sensor low-pass filters: convolution arithmetic and edge handling, the
// three kernels' shapes and frequency responses, and thread independence.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <thread>
#include <vector>

#include "sensor/SensorFilter.h"

namespace {

using Filter = void (*)(const std::vector<double>&, std::vector<double>&);

struct FilterCase {
    const char* name;
    Filter filter;
    size_t taps;
    double tapSum;
    double centreTap;
    // Frequencies in cycles per sample of the -3 dB and -6 dB points and of
    // the start of the stop band.
    double f3dB, f6dB, stopBand;
};

const FilterCase CASES[] = {
    {"filterForAcc", filterForAcc, 301, 1.0001, 0.00695370241241445, 0.0025, 0.0035, 0.0075},
    {"filterForGap", filterForGap, 71, 1.0001, 0.0297464025277169, 0.0105, 0.0145, 0.032},
    {"filterForGap30", filterForGap30, 301, 0.99999, 0.0129418381862429, 0.0055, 0.0065, 0.0115},
};

// The kernel as the filter applies it: the response to a unit impulse in the
// middle of a zero signal, read back around the impulse.
std::vector<double> impulseResponse(Filter filter, size_t taps, size_t length, size_t at) {
    std::vector<double> in(length, 0.0), out;
    in[at] = 1.0;
    filter(in, out);
    EXPECT_EQ(out.size(), length);
    const size_t half = taps / 2;
    return std::vector<double>(out.begin() + (at - half), out.begin() + (at + half + 1));
}

double magnitudeAt(const std::vector<double>& kernel, double f) {
    double re = 0, im = 0;
    for (size_t n = 0; n < kernel.size(); n++) {
        re += kernel[n] * std::cos(2 * std::numbers::pi * f * n);
        im -= kernel[n] * std::sin(2 * std::numbers::pi * f * n);
    }
    return std::hypot(re, im);
}

// Straightforward convolution with clamped indices, one output at a time.
std::vector<double> reference(const std::vector<double>& in, const std::vector<double>& kernel) {
    std::vector<double> out(in.size(), 0.0);
    const long n = static_cast<long>(in.size());
    const long half = static_cast<long>(kernel.size() / 2);
    for (long i = 0; i < n; i++) {
        double sum = 0;
        for (long k = 0; k < static_cast<long>(kernel.size()); k++)
            sum += in[std::clamp(i - half + k, 0L, n - 1)] * kernel[k];
        out[i] = sum;
    }
    return out;
}

std::vector<double> randomSignal(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> d(-2000.0, 2000.0);
    std::vector<double> v(n);
    for (auto& x : v) x = d(gen);
    return v;
}

} // namespace

TEST(CovFilter, CorrelatesWithoutDelayAndRepeatsEdgeSamples) {
    // An asymmetric kernel shows the orientation: output[i] takes kernel[0]
    // from the sample before i and kernel[2] from the one after.
    const std::vector<double> in{1, 2, 3, 4};
    const std::vector<double> kernel{1, 10, 100};
    std::vector<double> out;
    covFilter(in, kernel, out);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0], 1 * 1 + 1 * 10 + 2 * 100);  // first sample repeated before the start
    EXPECT_EQ(out[1], 1 * 1 + 2 * 10 + 3 * 100);
    EXPECT_EQ(out[2], 2 * 1 + 3 * 10 + 4 * 100);
    EXPECT_EQ(out[3], 3 * 1 + 4 * 10 + 4 * 100);  // last sample repeated after the end
}

TEST(CovFilter, EmptyInputGivesEmptyOutputAndStaleOutputIsReplaced) {
    std::vector<double> out(5, 7.0);
    covFilter(std::vector<double>{}, std::vector<double>{0.25, 0.5, 0.25}, out);
    EXPECT_TRUE(out.empty());

    out.assign(9, 7.0);
    covFilter(std::vector<double>{3.0, 5.0}, std::vector<double>{}, out);
    EXPECT_EQ(out, (std::vector<double>{0.0, 0.0}));
}

TEST(CovFilter, MatchesOneAtATimeConvolutionBitForBit) {
    // Lengths around the kernel length exercise the edge-only path, the grouped
    // interior and its remainder; the sums must come out in the same order.
    for (size_t taps : {1u, 3u, 71u, 301u}) {
        const std::vector<double> kernel = randomSignal(taps, 100 + taps);
        for (size_t n : {1u, 2u, 7u, 70u, 71u, 72u, 150u, 300u, 301u, 302u, 309u, 310u, 317u, 1000u, 1234u}) {
            const std::vector<double> in = randomSignal(n, static_cast<unsigned>(n * 7 + taps));
            std::vector<double> out;
            covFilter(in, kernel, out);
            ASSERT_EQ(out, reference(in, kernel)) << "taps " << taps << ", length " << n;
        }
    }
}

TEST(SensorFilters, KernelsAreSymmetricWithTheirTapSumsAndCentreTaps) {
    for (const FilterCase& c : CASES) {
        SCOPED_TRACE(c.name);
        const std::vector<double> k = impulseResponse(c.filter, c.taps, 3 * c.taps, 3 * c.taps / 2);
        ASSERT_EQ(k.size(), c.taps);
        for (size_t i = 0; i < c.taps; i++) ASSERT_EQ(k[i], k[c.taps - 1 - i]) << "tap " << i;
        double sum = 0;
        for (double x : k) sum += x;
        EXPECT_NEAR(sum, c.tapSum, 1e-9);
        EXPECT_EQ(k[c.taps / 2], c.centreTap);
        // The designs' outermost tap is larger than its neighbour.
        EXPECT_GT(k[0], k[1]);
    }
}

TEST(SensorFilters, ImpulseFarFromTheEdgesReproducesTheKernelCentredAndNothingElse) {
    for (const FilterCase& c : CASES) {
        SCOPED_TRACE(c.name);
        const size_t n = 5000, at = 2345, half = c.taps / 2;
        std::vector<double> in(n, 0.0), out;
        in[at] = 4.0;
        c.filter(in, out);
        ASSERT_EQ(out.size(), n);
        const std::vector<double> k = impulseResponse(c.filter, c.taps, 3 * c.taps, 3 * c.taps / 2);
        for (size_t i = 0; i < n; i++) {
            if (i + half < at || i > at + half)
                ASSERT_EQ(out[i], 0.0) << "index " << i;
            else
                ASSERT_EQ(out[i], 4.0 * k[i + half - at]) << "index " << i;
        }
        EXPECT_EQ(out[at], 4.0 * c.centreTap);
    }
}

TEST(SensorFilters, ConstantAndSingleSampleInputsScaleByTheTapSumEverywhere) {
    for (const FilterCase& c : CASES) {
        SCOPED_TRACE(c.name);
        std::vector<double> out;
        c.filter(std::vector<double>{}, out);
        EXPECT_TRUE(out.empty());

        c.filter(std::vector<double>{-812.0}, out);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_NEAR(out[0], -812.0 * c.tapSum, 1e-9);

        for (size_t n : {size_t(2), c.taps / 2, c.taps, c.taps + 1, size_t(4000)}) {
            const double value = 16384.0;
            c.filter(std::vector<double>(n, value), out);
            ASSERT_EQ(out.size(), n);
            for (size_t i = 0; i < n; i++)
                ASSERT_NEAR(out[i], value * c.tapSum, 1e-7) << "length " << n << ", index " << i;
        }
    }
}

TEST(SensorFilters, FrequencyResponseMatchesTheDesigns) {
    for (const FilterCase& c : CASES) {
        SCOPED_TRACE(c.name);
        const std::vector<double> k = impulseResponse(c.filter, c.taps, 3 * c.taps, 3 * c.taps / 2);
        EXPECT_NEAR(magnitudeAt(k, 0.0), c.tapSum, 1e-9);
        EXPECT_NEAR(magnitudeAt(k, c.f3dB), std::sqrt(0.5), 0.05);
        EXPECT_NEAR(magnitudeAt(k, c.f6dB), 0.5, 0.05);
        EXPECT_LT(magnitudeAt(k, c.stopBand), 0.01);
        // From a little past the start of the stop band to the Nyquist
        // frequency the designs hold about 60 dB; one mistyped tap spoils it.
        for (double f = 1.5 * c.stopBand; f <= 0.5; f += 0.0005)
            ASSERT_LT(magnitudeAt(k, f), 0.00105) << "at " << f << " cycles per sample";
    }
}

TEST(SensorFilters, ThreeAxesOnThreeThreadsGiveTheSameResultsAsInTurn) {
    const std::vector<double> x = randomSignal(20000, 1), y = randomSignal(20000, 2), z = randomSignal(20000, 3);
    std::vector<double> fx, fy, fz;
    std::thread tx(filterForAcc, std::cref(x), std::ref(fx));
    std::thread ty(filterForAcc, std::cref(y), std::ref(fy));
    std::thread tz(filterForAcc, std::cref(z), std::ref(fz));
    tx.join();
    ty.join();
    tz.join();
    std::vector<double> sx, sy, sz;
    filterForAcc(x, sx);
    filterForAcc(y, sy);
    filterForAcc(z, sz);
    EXPECT_EQ(fx, sx);
    EXPECT_EQ(fy, sy);
    EXPECT_EQ(fz, sz);
}
