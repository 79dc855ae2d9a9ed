// The shared library is the subsystems' archives linked whole; the exported
// functions are defined where their subsystems live. This file only gives
// the library target a source of its own.
#include "zirlane/zirlane.h"
