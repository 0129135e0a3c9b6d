#include "CameraModel.h"

namespace CameraModel {

namespace {

struct Model {
    const char* suffix;
    uint32_t code;
};
const Model kModels[] = {
    {"A1", 0x00001}, {"B1", 0x10001}, {"B2", 0x11001}, {"E2", 0x40002},
    {"C1", 0x20001}, {"D1", 0x30001}, {"E1", 0x40001},
};
const char kPrefix[] = "NARVI ORVEX ";

// The first code of the newer generation.
constexpr uint32_t kFirstNewer = 0x20001;

} // namespace

uint32_t code(const std::string& text)
{
    const size_t n = sizeof kPrefix - 1;
    if (text.size() <= n || text.compare(0, n, kPrefix) != 0)
        return 0;
    const std::string suffix = text.substr(n);
    for (const Model& m : kModels)
        if (suffix == m.suffix)
            return m.code;
    return 0;
}

bool isNewer(uint32_t c)
{
    return c >= kFirstNewer;
}

} // namespace CameraModel
