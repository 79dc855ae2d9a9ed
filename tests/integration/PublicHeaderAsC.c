/* The public header as a C program sees it: it must compile as C11. */
#include "zirlane/zirlane.h"

bool (*const g_pfnInitialize)(int) = InitializeZR;
