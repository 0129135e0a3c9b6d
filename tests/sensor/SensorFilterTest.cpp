// The sensor low-pass filters: convolution arithmetic and edge handling, and
// the three kernels' frequency responses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "sensor/SensorFilter.h"

namespace {

using Filter = void (*)(const std::vector<double>&, std::vector<double>&);

struct FilterCase {
    const char* name;
    Filter filter;
    size_t taps;
    double tapSum;
    // Frequencies in cycles per sample of the -3 dB and -6 dB points and of
    // the start of the stop band.
    double f3dB, f6dB, stopBand;
};

const FilterCase CASES[] = {
    {"filterForAcc", filterForAcc, 301, 1.0001, 0.0025, 0.0035, 0.0075},
    {"filterForGap", filterForGap, 71, 1.0001, 0.0105, 0.0145, 0.032},
    {"filterForGap30", filterForGap30, 301, 0.99999, 0.0055, 0.0065, 0.0115},
};

double magnitudeAt(const std::vector<double>& kernel, double f)
{
    double re = 0, im = 0;
    for (size_t n = 0; n < kernel.size(); n++) {
        re += kernel[n] * std::cos(2 * std::numbers::pi * f * double(n));
        im -= kernel[n] * std::sin(2 * std::numbers::pi * f * double(n));
    }
    return std::hypot(re, im);
}

// Straightforward convolution with clamped indices, one output at a time.
std::vector<double> reference(const std::vector<double>& in, const std::vector<double>& kernel)
{
    std::vector<double> out(in.size(), 0.0);
    const long n = long(in.size()), half = long(kernel.size() / 2);
    for (long i = 0; i < n; i++)
        for (long k = 0; k < long(kernel.size()); k++)
            out[size_t(i)] += in[size_t(std::clamp(i - half + k, 0L, n - 1))] * kernel[size_t(k)];
    return out;
}

std::vector<double> randomSignal(size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> d(-2000.0, 2000.0);
    std::vector<double> v(n);
    for (auto& x : v)
        x = d(gen);
    return v;
}

} // namespace

TEST(CovFilter, CorrelatesRepeatingEdgeSamplesBitForBitLikeOneAtATimeConvolution)
{
    // Random (asymmetric) kernels show the orientation. Lengths around the
    // kernel length exercise the edge-only path, the grouped interior and its
    // remainder; the sums must come out in the same order.
    for (size_t taps : {1u, 3u, 71u, 301u}) {
        const std::vector<double> kernel = randomSignal(taps, unsigned(100 + taps));
        for (size_t n : {1u, 2u, 7u, 70u, 71u, 72u, 150u, 300u, 301u, 302u, 309u, 310u, 317u, 1000u, 1234u}) {
            const std::vector<double> in = randomSignal(n, unsigned(n * 7 + taps));
            std::vector<double> out;
            covFilter(in, kernel, out);
            ASSERT_EQ(out, reference(in, kernel)) << "taps " << taps << ", length " << n;
        }
    }
    std::vector<double> out(9, 7.0); // stale output is replaced
    covFilter(std::vector<double>{}, std::vector<double>{0.25, 0.5, 0.25}, out);
    EXPECT_TRUE(out.empty());
    covFilter(std::vector<double>{3.0, 5.0}, std::vector<double>{}, out);
    EXPECT_EQ(out, (std::vector<double>{0.0, 0.0}));
}

TEST(SensorFilters, KernelsAreSymmetricWithTheDesignedFrequencyResponse)
{
    for (const FilterCase& c : CASES) {
        SCOPED_TRACE(c.name);
        // The kernel as the filter applies it: the response to a unit impulse.
        std::vector<double> in(3 * c.taps, 0.0), out;
        in[3 * c.taps / 2] = 1.0;
        c.filter(in, out);
        const std::vector<double> k(out.begin() + long(c.taps), out.begin() + long(2 * c.taps));
        for (size_t i = 0; i < c.taps; i++)
            ASSERT_EQ(k[i], k[c.taps - 1 - i]) << "tap " << i;
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
