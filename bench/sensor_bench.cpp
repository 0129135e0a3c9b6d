// Cost of the accelerometer low-pass filter on an hour of 100 Hz samples
// (360000 per axis): one axis on one thread, and the three axes on three
// threads as the sensor-stream loader runs them. A one-accumulator
// convolution is measured beside it for comparison.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "sensor/SensorFilter.h"

namespace {

constexpr size_t HOUR_AT_100HZ = 360000;

// A synthetic accelerometer axis in raw units: a slowly turning gravity
// component plus hand-held shake and noise.
std::vector<double> axisSignal(size_t n, unsigned seed, double phase) {
    std::mt19937 gen(seed);
    std::normal_distribution<double> noise(0.0, 120.0);
    std::vector<double> v(n);
    for (size_t i = 0; i < n; i++)
        v[i] = 16384.0 * std::cos(phase + i * 1e-5) + 400.0 * std::sin(i * 0.37) + noise(gen);
    return v;
}

void BM_FilterForAcc_OneAxis(benchmark::State& state) {
    const std::vector<double> in = axisSignal(HOUR_AT_100HZ, 1, 0.0);
    std::vector<double> out;
    for (auto _ : state) {
        filterForAcc(in, out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_FilterForAcc_OneAxis)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FilterForAcc_ThreeAxesThreeThreads(benchmark::State& state) {
    const std::vector<double> x = axisSignal(HOUR_AT_100HZ, 1, 0.0);
    const std::vector<double> y = axisSignal(HOUR_AT_100HZ, 2, 2.0);
    const std::vector<double> z = axisSignal(HOUR_AT_100HZ, 3, 4.0);
    std::vector<double> fx, fy, fz;
    for (auto _ : state) {
        std::thread tx(filterForAcc, std::cref(x), std::ref(fx));
        std::thread ty(filterForAcc, std::cref(y), std::ref(fy));
        std::thread tz(filterForAcc, std::cref(z), std::ref(fz));
        tx.join();
        ty.join();
        tz.join();
        benchmark::DoNotOptimize(fx.data());
        benchmark::DoNotOptimize(fy.data());
        benchmark::DoNotOptimize(fz.data());
        benchmark::ClobberMemory();
    }
    // Samples of all three axes.
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(3 * HOUR_AT_100HZ));
}
BENCHMARK(BM_FilterForAcc_ThreeAxesThreeThreads)->Unit(benchmark::kMillisecond)->UseRealTime();

// One output at a time with a single running sum and clamped indices: the
// plain form of the same convolution, same results.
void referenceConvolution(const std::vector<double>& in, const std::vector<double>& kernel, std::vector<double>& out) {
    const long n = static_cast<long>(in.size());
    const long half = static_cast<long>(kernel.size() / 2);
    out.assign(in.size(), 0.0);
    for (long i = 0; i < n; i++) {
        double sum = 0;
        for (long k = 0; k < static_cast<long>(kernel.size()); k++)
            sum += in[std::clamp(i - half + k, 0L, n - 1)] * kernel[k];
        out[i] = sum;
    }
}

void BM_ReferenceConvolution_OneAxis(benchmark::State& state) {
    const std::vector<double> in = axisSignal(HOUR_AT_100HZ, 1, 0.0);
    const std::vector<double> kernel = SensorKernel::mirrored<double>(SensorKernel::ACC_HALF, SensorKernel::ACC_TAPS);
    std::vector<double> out;
    for (auto _ : state) {
        referenceConvolution(in, kernel, out);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_ReferenceConvolution_OneAxis)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
