// The tests' fixtures: the sandbox shared with the sample host (tests/sandbox/:
// registry sandbox, scratch folders, environment guard, library copies, the
// child-process runner), for every test program through one include.
#pragma once

#include "tests/sandbox/Sandbox.h"
