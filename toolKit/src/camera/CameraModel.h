#pragma once
// The camera models of the ORVEX line. A camera names itself in moov.udta.@mod
// as "NARVI ORVEX " followed by its model suffix; the model code's upper 16
// bits are the camera generation. Newer cameras (from C1 on) keep their
// sensor streams, maker thumbnail and spatial audio in a udta that is carried
// over whole, and record media before moov.
#include <cstdint>
#include <string>

namespace CameraModel {

// The model code of an @mod text, 0 when it names no known model (the
// comparison is exact: no trailing blank or zero byte).
uint32_t code(const std::string& modelText);

// True for the codes of the newer cameras.
bool isNewer(uint32_t code);

} // namespace CameraModel
