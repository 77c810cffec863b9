// Stand-in: the IOKit message types the macOS USB source tells apart (IOMessage.h's values:
// system 0x38, subsystem 0, then the message number).
#pragma once

#include <IOKit/IOKitLib.h>

#define kIOMessageServiceIsTerminated ((natural_t)0xE0000010)
