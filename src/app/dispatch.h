// Checking of a received request's header and its dispatch to the manager.
#pragma once

#include "protocol/zor_play_msg.h"

// The header check; 0 or the first failing code.
enumZorPlayResult ValidateRequest(structZorPlayMsg& msg);
// Checks, dispatches and returns the result for the response. Main thread only.
enumZorPlayResult HandleMessage(structZorPlayMsg& msg);
