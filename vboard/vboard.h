// SPDX-License-Identifier: MIT
#ifndef VBOARD_VBOARD_H
#define VBOARD_VBOARD_H

/// Everything a test needs to put a program or a library on a virtual board.

#include "vboard/board/Board.h"           // IWYU pragma: export
#include "vboard/board/Signal.h"          // IWYU pragma: export
#include "vboard/board/TriStateBuffer.h"  // IWYU pragma: export
#include "vboard/board/WireLog.h"         // IWYU pragma: export
#include "vboard/chips/Ad529x.h"          // IWYU pragma: export
#include "vboard/chips/Ads1248.h"         // IWYU pragma: export
#include "vboard/chips/Ads1256.h"         // IWYU pragma: export
#include "vboard/chips/At25640b.h"        // IWYU pragma: export
#include "vboard/chips/Catalog.h"         // IWYU pragma: export
#include "vboard/chips/Decoder3to8.h"     // IWYU pragma: export
#include "vboard/chips/Encoder.h"         // IWYU pragma: export
#include "vboard/chips/Hc595.h"           // IWYU pragma: export
#include "vboard/chips/Icmd.h"            // IWYU pragma: export
#include "vboard/chips/L6470.h"           // IWYU pragma: export
#include "vboard/chips/Lv165a.h"          // IWYU pragma: export
#include "vboard/chips/Mcp3201.h"         // IWYU pragma: export
#include "vboard/chips/Mcp4822.h"         // IWYU pragma: export
#include "vboard/chips/Powerstep01.h"     // IWYU pragma: export
#include "vboard/chips/StepperMotor.h"    // IWYU pragma: export
#include "vboard/chips/Tlc5947.h"         // IWYU pragma: export
#include "vboard/kernel/Kernel.h"         // IWYU pragma: export

#endif
