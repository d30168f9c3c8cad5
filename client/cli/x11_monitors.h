// The monitors of the X display in $DISPLAY, as RandR 1.5 declares them
// (one per active output, or as `xrandr --setmonitor` made them): what
// `sorvel monitors` lists and what `sorvel record --system --monitor NAME`
// records. The service is told a monitor by its name atom, which the X
// server gives every client alike.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/error.h"

namespace sv::cli {

struct X11Monitor {
    std::string name;
    uint32_t nameAtom = 0;
    int32_t x = 0, y = 0, width = 0, height = 0;
    bool primary = false;
};

// In the server's order. An error when there is no X display, or it has no
// RandR 1.5.
Result<std::vector<X11Monitor>> listX11Monitors();

}  // namespace sv::cli
