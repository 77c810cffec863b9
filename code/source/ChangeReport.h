// The JSON change report: the entries of one poll's change list, completed with what the detail
// cache and the vendor list know of each device.
#pragma once

#include <string>

// True when text holds "\u" (backslash, u), "," or ".".
bool IsContainInvailChar(std::string text);
// text with every occurrence of sub removed, searching again from the start after each removal.
std::string StripSubString(std::string text, std::string sub);
