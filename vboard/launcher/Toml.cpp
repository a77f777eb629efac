// SPDX-License-Identifier: MIT
#define TOML_IMPLEMENTATION
#include "vboard/launcher/BoardLoader.h"
