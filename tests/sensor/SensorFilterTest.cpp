// The sensor low-pass filters (a toolkit part the program does not call
// yet): each kernel's frequency response.
#include "sensor/SensorFilter.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

TEST(SensorFilters, KernelsAreSymmetricWithTheDesignedFrequencyResponse)
{
    const struct {
        void (*filter)(const std::vector<double>&, std::vector<double>&);
        size_t taps;
        double f3dB, stopBand; // in cycles per sample
    } filters[] = {{filterForAcc, 301, 0.0025, 0.0075}, {filterForGap, 71, 0.0105, 0.032}, {filterForGap30, 301, 0.0055, 0.0115}};
    for (const auto& f : filters) {
        // The kernel as the filter applies it: the response to a unit impulse.
        std::vector<double> in(3 * f.taps, 0.0), out;
        in[3 * f.taps / 2] = 1.0;
        f.filter(in, out);
        const std::vector<double> k(out.begin() + long(f.taps), out.begin() + long(2 * f.taps));
        auto gain = [&](double freq) {
            double re = 0, im = 0;
            for (size_t n = 0; n < k.size(); n++) {
                re += k[n] * std::cos(2 * std::numbers::pi * freq * double(n));
                im -= k[n] * std::sin(2 * std::numbers::pi * freq * double(n));
            }
            return std::hypot(re, im);
        };
        // Symmetric, a gain of 1, half power where designed, and about 60 dB
        // down from a little past the stop band to Nyquist.
        EXPECT_TRUE(std::equal(k.begin(), k.end(), k.rbegin())) << f.taps;
        EXPECT_NEAR(gain(0), 1.0, 2e-4);
        EXPECT_NEAR(gain(f.f3dB), std::sqrt(0.5), 0.05);
        for (double freq = 1.5 * f.stopBand; freq <= 0.5; freq += 0.0005)
            ASSERT_LT(gain(freq), 0.00105) << "at " << freq;
    }
}
