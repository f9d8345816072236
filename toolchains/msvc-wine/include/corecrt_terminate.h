// Stands in for the Universal CRT's <corecrt_terminate.h>; Wine declares
// terminate and its handlers in <eh.h>. Test build only.
#pragma once
#include <eh.h>
