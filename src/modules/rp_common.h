// The module engine as the rest of the system sees it: the module base and
// both kinds of module.
#pragma once

#include "modules/rp_base.h"
#include "modules/rp_player.h"
#include "modules/rp_recorder.h"
