// Forwards to the one harness of the session and sync tests.
#pragma once
#include "SessionHarness.h"
