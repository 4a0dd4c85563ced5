// A map as a picture one can look at: Scalable Vector Graphics.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "MapReport.h"

/// Draws the virtual file as a band, coloured by source, with holes hatched and overlaps marked; below it each source
/// as a band of its own, tied to what it stands for while the stretches are few. Marks are virtual offsets to be
/// pointed at. However many segments there are, the picture stays small.
std::string DrawMap(const LaidOutMap& laidOut, const std::string& sTitle, const std::vector<std::int64_t>& viMarks);
