// What the driver sees of the emulated Windows kernel: the same names and
// meanings as the WDK headers. Layouts may differ on the 64-bit host, so
// driver code uses sizeof, never literal sizes.
#pragma once

#include "hostkernel/ktypes.h"
#include "hostkernel/ke.h"
#include "hostkernel/io.h"
#include "hostkernel/ntddser.h"
#include "hostkernel/registry.h"
