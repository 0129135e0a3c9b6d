// Cost of building the accelerometer table of an hour-long movie from its
// sensor boxes: QDTD (gravity) and QDTC (compass) at 30 records a second,
// 108000 each, read either as they stand (the movie has QDTI) or with QDTD
// resampled at 108000 QDTG frame times. For comparison, the raw stream of an
// hour at 100 samples a second read without filtering.
//
// The movies are written once to a temporary folder; each iteration reads
// the boxes from the file through an attached container. The loader's own
// console lines are sent to /dev/null while the benchmark runs.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "GLTKFileIO.h"
#include "MP4Container.h"
#include "sensor/AccelSensorStreamEmbed.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t RECORDS = 30 * 3600;     // 30 a second for an hour
constexpr uint32_t RAW_SAMPLES = 100 * 3600; // 100 a second for an hour
constexpr uint64_t STEP = 33333;             // microseconds between records
constexpr uint64_t QDTD_START = 4000000;      // the QDTD clock runs 4 s ahead

void be32(Bytes& b, uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8)
        b.push_back(uint8_t(v >> s));
}
void be16(Bytes& b, uint16_t v)
{
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}
template <class T> void le(Bytes& b, T v)
{
    uint8_t raw[sizeof(T)];
    std::memcpy(raw, &v, sizeof(T));
    b.insert(b.end(), raw, raw + sizeof(T));
}
Bytes box(const char* type, const Bytes& payload)
{
    Bytes b(payload.size() + 8);
    const uint32_t size = uint32_t(b.size());
    for (int i = 0; i < 4; i++)
        b[i] = uint8_t(size >> (24 - 8 * i));
    std::memcpy(b.data() + 4, type, 4);
    std::copy(payload.begin(), payload.end(), b.begin() + 8);
    return b;
}
// A little-endian sensor box: stream header, then the records.
Bytes sensorBox(const char* type, uint16_t unitSize, uint32_t count, const Bytes& records)
{
    Bytes p;
    le<uint32_t>(p, count);
    le<uint16_t>(p, 30);
    le<uint16_t>(p, unitSize);
    le<uint16_t>(p, 0x0123);
    p.resize(p.size() + 6, 0);
    p.insert(p.end(), records.begin(), records.end());
    return box(type, p);
}

// Gravity turning slowly through the hour (so that every resampled value is
// a real interpolation) and a compass turning with it.
Bytes gravityRecords()
{
    Bytes r;
    r.reserve(size_t(RECORDS) * 16);
    for (uint32_t i = 0; i < RECORDS; i++) {
        const double a = i * 0.0007, b = std::sin(i * 0.0003) * 0.4;
        le<int16_t>(r, int16_t(16384 * std::sin(b) * std::cos(a)));
        le<int16_t>(r, int16_t(16384 * std::sin(b) * std::sin(a)));
        le<int16_t>(r, int16_t(-16384 * std::cos(b)));
        le<uint16_t>(r, 0);
        le<uint64_t>(r, QDTD_START + i * STEP);
    }
    return r;
}
Bytes compassRecords()
{
    Bytes r;
    r.reserve(size_t(RECORDS) * 24);
    for (uint32_t i = 0; i < RECORDS; i++) {
        const float a = float(i) * 0.0011f;
        le<float>(r, std::cos(a) * 0.3f);
        le<float>(r, std::sin(a) * 0.3f);
        le<float>(r, -0.4f);
        le<uint32_t>(r, 0);
        le<uint64_t>(r, QDTD_START + i * STEP);
    }
    return r;
}
Bytes frameTimes()
{
    Bytes r;
    r.reserve(size_t(RECORDS) * 8);
    for (uint32_t i = 0; i < RECORDS; i++)
        le<uint64_t>(r, i * STEP + STEP / 2); // half way between two QDTD records
    return r;
}
Bytes yawRecords()
{
    Bytes r;
    for (uint32_t i = 0; i < RECORDS; i++) {
        le<float>(r, 1);
        le<float>(r, 0);
        le<float>(r, 0);
        le<float>(r, 0);
        le<uint64_t>(r, QDTD_START + i * STEP);
    }
    return r;
}

Bytes movie(bool withYaw)
{
    Bytes udta = sensorBox("QDTC", 24, RECORDS, compassRecords());
    Bytes d = sensorBox("QDTD", 16, RECORDS, gravityRecords());
    udta.insert(udta.end(), d.begin(), d.end());
    Bytes extra = withYaw ? sensorBox("QDTI", 24, RECORDS, yawRecords()) : sensorBox("QDTG", 8, RECORDS, frameTimes());
    udta.insert(udta.end(), extra.begin(), extra.end());
    Bytes ftyp = box("ftyp", Bytes{'i', 's', 'o', 'm', 0, 0, 2, 0, 'i', 's', 'o', 'm'});
    Bytes moov = box("moov", box("udta", udta));
    ftyp.insert(ftyp.end(), moov.begin(), moov.end());
    return ftyp;
}

Bytes rawStream()
{
    Bytes b;
    be32(b, RAW_SAMPLES);
    be32(b, 100);
    for (int i = 2; i < 12; i++)
        be32(b, 0);
    for (uint32_t i = 0; i < RAW_SAMPLES; i++) {
        be16(b, uint16_t(int16_t(16000 * std::cos(i * 1e-4))));
        be16(b, uint16_t(int16_t(-16000 * std::sin(i * 1e-4))));
        be16(b, uint16_t(int16_t(300 * std::sin(i * 0.37))));
        be16(b, 0);
        be16(b, 20);
        be16(b, 0);
    }
    return b;
}

// The three files, written on first use and removed at exit.
struct Files {
    fs::path dir;
    fs::path direct, resampled, raw;
    Files()
    {
        char name[] = "/tmp/sensor-load-bench-XXXXXX";
        if (mkdtemp(name) == nullptr)
            std::abort();
        dir = name;
        direct = dir / "direct.mp4";
        resampled = dir / "resampled.mp4";
        raw = dir / "raw.bin";
        write(direct, movie(true));
        write(resampled, movie(false));
        write(raw, rawStream());
    }
    ~Files()
    {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    static void write(const fs::path& p, const Bytes& b)
    {
        std::ofstream f(p, std::ios::binary);
        f.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
    }
};
const Files& files()
{
    static Files f;
    return f;
}

// Standard output goes to /dev/null for the life of the object.
class Quiet {
public:
    Quiet()
    {
        std::fflush(stdout);
        saved = dup(1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~Quiet()
    {
        std::fflush(stdout);
        dup2(saved, 1);
        close(saved);
    }

private:
    int saved;
};

void runLoadM29(benchmark::State& state, const fs::path& path)
{
    MP4::Container c;
    if (!c.attach(path.wstring())) {
        state.SkipWithError("cannot attach the movie");
        return;
    }
    bool ok = true;
    {
        Quiet quiet;
        for (auto _ : state) {
            AccelSensorStreamEmbed embed;
            ok = embed.loadM29(c, 1) && ok;
            benchmark::DoNotOptimize(embed.getSamples().data());
        }
    }
    if (!ok)
        state.SkipWithError("loadM29 failed");
    state.SetItemsProcessed(state.iterations() * int64_t(RECORDS));
}

void BM_LoadM29_HourDirect(benchmark::State& state) { runLoadM29(state, files().direct); }
BENCHMARK(BM_LoadM29_HourDirect)->Unit(benchmark::kMillisecond);

void BM_LoadM29_HourResampledAtQDTG(benchmark::State& state) { runLoadM29(state, files().resampled); }
BENCHMARK(BM_LoadM29_HourResampledAtQDTG)->Unit(benchmark::kMillisecond);

void BM_LoadRaw_Hour100HzUnfiltered(benchmark::State& state)
{
    bool ok = true;
    {
        Quiet quiet;
        for (auto _ : state) {
            AccelSensorStreamEmbed embed;
            const std::wstring path = files().raw.wstring();
            GLTK::FileIO f(path, 'r');
            ok = f.isOpen() && embed.load(0, f, false) && ok;
            benchmark::DoNotOptimize(embed.getSamples().data());
        }
    }
    if (!ok)
        state.SkipWithError("load failed");
    state.SetItemsProcessed(state.iterations() * int64_t(RAW_SAMPLES));
}
BENCHMARK(BM_LoadRaw_Hour100HzUnfiltered)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
