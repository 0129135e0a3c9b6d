#pragma once
// Coarse remapping tables for equirectangular images. A table holds, for
// every node of a 113 x 57 grid laid over the output image, the normalised
// source position (u, v) that the node takes its pixel from:
// u = longitude / 2 pi in [0, 1], v = colatitude / pi in [0, 1] (v = 0 at the
// top). The nodes are 1/112 apart in u and 1/56 apart in v, so column 112
// repeats column 0 (u = 1 is u = 0 again).
//
// RotateAffineTable makes the identity table, builds the table of a camera
// rotation, composes tables and looks positions up in them bilinearly.
#include <cstdint>
#include <vector>

#include "GLTKVector.h"

struct NormalizedAfn {
    uint64_t width = 0;  // nodes per row (113)
    uint64_t height = 0; // rows (57)
    // Row-major: node (row j, column i) is nodes[j * width + i].
    std::vector<GLTK::Vector2> nodes;

    // True when the table has the grid every table of this class has.
    bool isGrid() const;
};

class RotateAffineTable {
public:
    static constexpr uint64_t WIDTH = 113;
    static constexpr uint64_t HEIGHT = 57;
    static constexpr float STEP_U = 0.008928572f; // 1/112
    static constexpr float STEP_V = 0.017857144f; // 1/56

    // Makes table the identity: node (j, i) = (i / 112, j / 56).
    static void initTable(NormalizedAfn& table);

    // The table of the rotation given by angles.y (about the y axis) and
    // angles.z (about the x axis), in radians, composed with source: result
    // maps each node through the rotation first, then through source.
    // angles.x is not used. Returns false, with one console line, when
    // source is not a full 113 x 57 table.
    static bool rotateAfnTable(const NormalizedAfn& source, const GLTK::Vector3& angles, NormalizedAfn& result);

    // Composition: replaces every node of b by b looked up at a's node, so
    // that b then maps each node first through a and then through the old b.
    // Returns false, with one console line, unless both are full 113 x 57
    // tables.
    static bool transrateAffineTable(NormalizedAfn& a, NormalizedAfn& b);

    // Bilinear lookup of the position (u, v) in table. The right neighbour
    // column wraps around in longitude; the last row interpolates with
    // itself. Positions outside [0, 1] are kept on the grid (longitude
    // wrapped, colatitude clamped). Returns false, leaving the results alone,
    // when table is not a full 113 x 57 table.
    static bool bilinearFromTable(const NormalizedAfn& table, float u, float v, float& outU, float& outV);

    // One linear interpolation step: y is y0 at x0 and y1 at x1, taken at x
    // (y0 when x0 equals x1).
    static void linearInterpolation(float x0, float y0, float x1, float y1, float x, float& y);
};
