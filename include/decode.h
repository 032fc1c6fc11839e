// Placement of the 144 chips of the four-module model on a 12 x 12 grid of chips
// covering the detector face, row by row; for callers that assemble images.
#pragma once

#include "varkel.h"

VARKEL_API extern const sensor decoderQuad[144];
