#pragma once
// The box tree of an MP4 file, with every family of typed boxes.
#include "MP4BoxTree.h"
#include "MP4Headers.h"
#include "MP4Location.h"
#include "MP4SampleTables.h"
#include "MP4Spherical.h"
#include "MP4UUID.h"
