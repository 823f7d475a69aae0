// SPDX-License-Identifier: MIT
//
// Who reaches whom, as a picture that browsers show: SVG.

#pragma once

#include <string>

#include "helperctl/commands/Matrix.h"

namespace tarnvale::helperctl {

/// A picture of it, whose cells link to the rules below. No text leaves its place, whatever font a
/// browser takes; where one is cut off, it shows whole while the pointer rests on it.
std::string svgOf(const Matrix& matrix);

}  // namespace tarnvale::helperctl
