#include "tests/haldo_sdk/WrapperTest.h"
