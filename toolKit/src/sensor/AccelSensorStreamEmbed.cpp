// The accelerometer table of a camera movie: read from a raw stream or built
// from the embedded QDTx boxes, then the two orientation decisions made on
// it (upside down, front reversed).
#include "AccelSensorStreamEmbed.h"

#include "ByteArray.h"
#include "GLTKConsole.h"
#include "GLTKQuaternion.h"
#include "SensorFilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <system_error>
#include <thread>

namespace {

constexpr float TWO_PI = 6.2831855f;
constexpr float PI = 3.1415927f;
// QDTG times are presentation times; the QDTD clock runs this far behind.
constexpr uint64_t QDTG_TIME_OFFSET = 4000000;
// Length of the gravity vectors the resampling writes.
constexpr double GRAVITY_SCALE = 16384.0;

constexpr size_t RAW_HEADER_SIZE = 48;
constexpr size_t RAW_SAMPLE_SIZE = 12;

// 32-bit two's-complement arithmetic that wraps instead of overflowing: the
// header words come from the file and may hold anything.
int32_t add32(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
int32_t mul32(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b)); }

// A filtered value back to a 16-bit axis: truncated toward zero to 32 bits,
// of which the low 16 are kept.
int16_t truncateTo16(double v)
{
    if (!(v > -2147483648.0 && v < 2147483648.0))
        return v > 0 ? int16_t(-1) : int16_t(0); // the low 16 bits of 0x7FFFFFFF and 0x80000000
    return static_cast<int16_t>(static_cast<int32_t>(v));
}

int16_t negate16(int16_t v) { return static_cast<int16_t>(-static_cast<int32_t>(v)); }

// A unit-vector component scaled to the fixed-point gravity length, rounded
// half up by truncation as the camera's own tools do.
int16_t scaleGravity(double v) { return static_cast<int16_t>(static_cast<int32_t>(v * GRAVITY_SCALE + 0.5)); }

} // namespace

void AccelSensorStreamEmbed::clearState()
{
    samples.clear();
    reversed = false;
    upWeight = 0;
    downWeight = 0;
    frontReversed = false;
    frontScore = 0;
}

// ---------------------------------------------------------------- raw stream

bool AccelSensorStreamEmbed::load(int /*unused*/, GLTK::FileIO& file, bool filter)
{
    clearState();
    uint8_t raw[RAW_HEADER_SIZE];
    if (file.read(raw, RAW_HEADER_SIZE) != RAW_HEADER_SIZE)
        return false;
    int32_t words[12];
    for (size_t i = 0; i < 12; i++)
        words[i] = static_cast<int32_t>(be32(raw + 4 * i));
    static_assert(sizeof(StreamHeader) == sizeof(words));
    std::memcpy(&header, words, sizeof(words));

    std::vector<double> inX, inY, inZ;
    if (header.count >= 1) {
        // Room only for what the file can still hold, whatever the header says.
        const uint64_t length = file.length();
        const uint64_t available =
            length != UINT64_MAX && length > file.position ? (length - file.position) / RAW_SAMPLE_SIZE : 0;
        const size_t expected = static_cast<size_t>(std::min<uint64_t>(uint64_t(header.count), available));
        samples.reserve(expected);
        if (filter) {
            inX.reserve(expected);
            inY.reserve(expected);
            inZ.reserve(expected);
        }
        // Whole samples are read a block at a time; a short read keeps the
        // complete samples it brought and ends the stream.
        constexpr size_t BLOCK = 4096;
        std::vector<uint8_t> buf(BLOCK * RAW_SAMPLE_SIZE);
        size_t left = static_cast<size_t>(header.count);
        while (left > 0) {
            const size_t want = std::min(left, BLOCK);
            uint64_t got = file.read(buf.data(), want * RAW_SAMPLE_SIZE);
            if (got == UINT64_MAX || got > want * RAW_SAMPLE_SIZE)
                got = 0;
            const size_t whole = static_cast<size_t>(got / RAW_SAMPLE_SIZE);
            for (size_t i = 0; i < whole; i++) {
                const uint8_t* p = buf.data() + i * RAW_SAMPLE_SIZE;
                TAccelSensorInfo s;
                s.x = static_cast<int16_t>(be16(p));
                s.y = static_cast<int16_t>(be16(p + 2));
                s.z = static_cast<int16_t>(be16(p + 4));
                s.orientation = be16(p + 6);
                s.temperature = static_cast<int16_t>(be16(p + 8));
                std::memcpy(s.reserved, p + 10, 2);
                samples.push_back(s);
                if (filter) {
                    inX.push_back(s.x);
                    inY.push_back(s.y);
                    inZ.push_back(s.z);
                }
            }
            left -= whole;
            if (whole < want)
                break;
        }
    }

    if (filter) {
        GLTK::Console::out(L"filtering acc.\n");
        std::vector<double> outX, outY, outZ;
        filterAxes(inX, inY, inZ, outX, outY, outZ);
        for (size_t i = 0; i < samples.size(); i++) {
            samples[i].x = truncateTo16(outX[i]);
            samples[i].y = truncateTo16(outY[i]);
            samples[i].z = truncateTo16(outZ[i]);
        }
    }

    detectReverse();
    detectReverseFront();
    return header.count >= 0 && samples.size() == static_cast<size_t>(header.count);
}

void AccelSensorStreamEmbed::filterAxes(const std::vector<double>& x, const std::vector<double>& y,
                                        const std::vector<double>& z, std::vector<double>& fx,
                                        std::vector<double>& fy, std::vector<double>& fz)
{
    // One thread per axis; each touches only its own input and output. A
    // failure inside a filter is carried back to this thread, and every
    // thread started is joined on every path (jthread joins when it goes
    // away, also while an exception from a later thread's creation unwinds).
    std::exception_ptr failed[3];
    auto job = [](const std::vector<double>& in, std::vector<double>& out, std::exception_ptr& error) {
        return [&in, &out, &error] {
            try {
                filterForAcc(in, out);
            } catch (...) {
                error = std::current_exception();
            }
        };
    };
    {
        std::jthread threads[3];
        try {
            threads[0] = std::jthread(job(x, fx, failed[0]));
            threads[1] = std::jthread(job(y, fy, failed[1]));
            threads[2] = std::jthread(job(z, fz, failed[2]));
        } catch (const std::system_error& e) {
            for (std::jthread& t : threads)
                if (t.joinable())
                    t.join();
            throw std::system_error(e.code(), "thread constructor failed");
        }
        for (std::jthread& t : threads)
            t.join();
    }
    for (const std::exception_ptr& e : failed)
        if (e)
            std::rethrow_exception(e);
}

// ---------------------------------------------------------------- movie boxes

bool AccelSensorStreamEmbed::loadM29(const MP4::Container& container, int divisor)
{
    clearState();
    unsigned short extra = 0;
    std::vector<Ecompass> compass;
    std::vector<YawCorrection> yaw;
    std::vector<TopBottomCorrection> gravity;
    loadM29_QDTC(container, compass, extra);
    loadM29_QDTI(container, yaw, extra);
    // A movie with yaw correction keeps its QDTD on the frame clock already.
    if (!yaw.empty())
        loadM29_QDTD(container, gravity, extra);
    else
        loadM30_QDTD_with_QDTG(container, gravity, extra);

    if (compass.empty() || gravity.empty() || compass.size() < gravity.size()) {
        GLTK::Console::out(L"QDTC/QDTD is not enough size.\n");
        GLTK::Console::out(L"  QDTC:   %d\n", static_cast<int>(compass.size()));
        GLTK::Console::out(L"  QDTD/G: %d\n", static_cast<int>(gravity.size()));
        return false;
    }

    header = StreamHeader();
    header.count = static_cast<int32_t>(gravity.size());
    header.rate = 100;
    header.divisor = divisor;
    header.step = divisor != 0 ? 30 / divisor : 0;

    samples.reserve(gravity.size());
    for (size_t i = 0; i < gravity.size(); i++) {
        // The camera's gravity frame and the accelerometer frame differ by a
        // reversal of all axes and an exchange of y and z.
        const TopBottomCorrection& d = gravity[i];
        TAccelSensorInfo s;
        s.x = negate16(d.x);
        s.y = negate16(d.z);
        s.z = negate16(d.y);
        s.temperature = 20;
        calcOrientation(s, compass[i]);
        samples.push_back(s);
    }

    detectReverse();
    detectReverseFront();
    return samples.size() == static_cast<size_t>(header.count);
}

// QDTD gives the gravity direction at its own times; QDTG lists the times at
// which values are wanted (shifted onto the QDTD clock). Both run forward, so
// one index into QDTD walks along with the QDTG times and never goes back.
// Before the first QDTD time the first vector is used, after the last the
// last record; in between the direction is turned from the earlier record
// towards the later by the fraction of the time elapsed.
void AccelSensorStreamEmbed::loadM30_QDTD_with_QDTG(const MP4::Container& container,
                                                    std::vector<TopBottomCorrection>& out, unsigned short& extra)
{
    std::vector<unsigned long long> times;
    loadM30_QDTG(container, times, extra);
    if (times.empty()) {
        GLTK::Console::out(L"QDTD: No QDTG entries.\n");
        loadM29_QDTD(container, out, extra);
        return;
    }
    std::vector<TopBottomCorrection> d;
    loadM29_QDTD(container, d, extra);
    out.clear();
    if (d.empty())
        return;
    out.reserve(times.size());

    auto at = [](const TopBottomCorrection& r, uint64_t t) {
        TopBottomCorrection v{};
        v.x = r.x;
        v.y = r.y;
        v.z = r.z;
        v.t = t;
        return v;
    };

    size_t j = 0;
    for (unsigned long long time : times) {
        const uint64_t g = time + QDTG_TIME_OFFSET;
        for (;;) {
            if (j >= d.size()) {
                GLTK::Console::out(L"QDTD: End of data : use %lld for %lld\n", static_cast<long long>(d.back().t),
                                   static_cast<long long>(g));
                out.push_back(d.back());
                break;
            }
            if (j == 0) {
                if (g <= d[0].t) {
                    out.push_back(at(d[0], g));
                    break;
                }
                j = 1;
                continue;
            }
            const TopBottomCorrection& p = d[j - 1];
            const TopBottomCorrection& q = d[j];
            if (q.t > g && p.t <= g) {
                out.push_back(interpolateGravity(p, q, g));
                break;
            }
            j++;
        }
    }
}

AccelSensorStreamEmbed::TopBottomCorrection
AccelSensorStreamEmbed::interpolateGravity(const TopBottomCorrection& p, const TopBottomCorrection& q, uint64_t g)
{
    TopBottomCorrection r{};
    r.x = p.x;
    r.y = p.y;
    r.z = p.z;
    r.t = g;
    if (q.t == p.t)
        return r;
    const GLTK::Vector3d a = GLTK::Vector3d(p.x, p.y, p.z).normalized();
    const GLTK::Vector3d b = GLTK::Vector3d(q.x, q.y, q.z).normalized();
    const double f = static_cast<double>(g - p.t) / static_cast<double>(q.t - p.t);
    // Parallel or opposite directions (or a zero vector) have no axis to turn
    // about: the earlier vector stands.
    GLTK::Quaterniond turn;
    if (!GLTK::Quaterniond::towards(a, b, f, turn))
        return r;
    const GLTK::Vector3d v = turn.toMatrix() * a;
    r.x = scaleGravity(v.x);
    r.y = scaleGravity(v.y);
    r.z = scaleGravity(v.z);
    return r;
}

// ---------------------------------------------------------------- orientation

void AccelSensorStreamEmbed::tiltMatrix0WithAxis(const GLTK::Vector3& v, const GLTK::Vector3& axis,
                                                 GLTK::Matrix3x3& result)
{
    result = GLTK::Matrix3x3::identity();
    const float length = v.length();
    if (length < 0.0001f)
        return;
    const GLTK::Vector3 cr = (v / length).cross(axis);
    const float crLength = cr.length();
    if (crLength < 0.0001f)
        return;
    const float axisLength = axis.length();
    const GLTK::Vector3 k = cr / crLength;
    const float c = v.dot(axis) / (length * axisLength);
    const float s = crLength / axisLength;
    result = GLTK::Matrix3x3::rodrigues(k, c, s);
}

void AccelSensorStreamEmbed::calcOrientation(TAccelSensorInfo& info, const Ecompass& compass)
{
    const GLTK::Vector3 a(info.x, info.y, info.z);
    GLTK::Matrix3x3 tilt;
    tiltMatrix0WithAxis(a, GLTK::Vector3(0, -1, 0), tilt);
    const GLTK::Vector3 m = tilt * GLTK::Vector3(static_cast<float>(compass.x), static_cast<float>(compass.y),
                                                 static_cast<float>(compass.z));
    float theta = std::atan2(m.x, m.y);
    if (m.x > 0)
        theta = TWO_PI - theta;
    else
        theta = -theta;
    const float degrees100 = theta * 18000 / PI;
    // A compass record of infinities or NaNs has no heading.
    info.orientation = std::isfinite(degrees100) ? static_cast<uint16_t>(static_cast<int32_t>(degrees100)) : 0;
}

GLTK::Vector3 AccelSensorStreamEmbed::axis(int i) const
{
    if (samples.empty())
        return GLTK::Vector3(0, 0, 0);
    const size_t index = i < 0 ? 0 : std::min(static_cast<size_t>(i), samples.size() - 1);
    const TAccelSensorInfo& s = samples[index];
    const int32_t x = add32(s.x, header.offsetX);
    const int32_t y = add32(s.y, header.offsetY);
    int32_t z = add32(s.z, header.offsetZ);
    if (header.tempCorrection != 0) {
        // The z sensor drifts with temperature; the camera's calibration gives
        // the gain, offset and scale of the correction around 25 degrees.
        const int32_t celsius = add32(mul32(header.tempGain, s.temperature), header.tempOffset) / 100;
        const int32_t steps = mul32(header.tempScale, add32(25, -celsius)) / 100;
        z = add32(z, mul32(16, steps));
    }
    return GLTK::Vector3(static_cast<float>(x), static_cast<float>(y), static_cast<float>(z));
}

void AccelSensorStreamEmbed::detectReverse()
{
    upWeight = 0;
    downWeight = 0;
    const int n = static_cast<int>(std::min<size_t>(samples.size(), INT32_MAX));
    for (int i = 0; i < n; i++) {
        const GLTK::Vector3 v = axis(i);
        const GLTK::Vector3 u = v / v.length();
        const float h = std::sqrt(u.x * u.x + u.z * u.z);
        const float w = 1.0f / std::max(0.00001f, h);
        // Only samples with gravity within 30 degrees of the y axis vote,
        // the closer the heavier.
        if (w > 2.0f) {
            if (v.y > 0)
                upWeight += w;
            if (v.y < 0)
                downWeight += w;
        }
    }
    reversed = upWeight > downWeight;
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"rev-up/down: [P]%f, [N]:%f -> %c\n", static_cast<double>(upWeight),
                       static_cast<double>(downWeight), reversed ? 'Y' : 'N');
}

void AccelSensorStreamEmbed::detectReverseFront()
{
    const float s = reversed ? -1.0f : 1.0f;
    frontScore = 0;
    for (const TAccelSensorInfo& sample : samples) {
        const float x = sample.x, y = sample.y, z = sample.z;
        const float length = std::sqrt(x * x + y * y + z * z);
        const GLTK::Vector3 u(-z / length, -y / length, -x / length);
        // u x (0, s, 0), and u . (0, s, 0)
        const float c0 = -s * u.z;
        const float c2 = s * u.x;
        const float d = s * u.y;
        const float cLength = std::sqrt(c0 * c0 + c2 * c2);
        if (cLength != 0) {
            const float r = c0 / cLength;
            frontScore += (1 - d) * (r * r) + d;
        } else {
            frontScore += 1;
        }
    }
    frontReversed = reversed != !(frontScore >= 0);
    GLTK::Console::LocaleC c;
    GLTK::Console::out(L"rev-front:   [F]%f -> %c\n", static_cast<double>(frontScore), frontReversed ? 'Y' : 'N');
}
