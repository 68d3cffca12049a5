// The layout assertions, compiled for this target as part of the test binary.
#include "interface/layout_check.cpp"
