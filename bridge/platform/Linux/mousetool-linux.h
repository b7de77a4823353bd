// Whether a mouse button is held down right now, asked of the X server.
#pragma once

#include "bridge/pointerevents.h"

namespace zel {

struct MouseTool {
    /// True when `button` is down now; `Left`, `Middle`, and any other value stands for `Right`.
    /// False when the X server cannot be asked.
    static bool getButtonState(MouseButton button);
};

}  // namespace zel
