// The filter lists the USB suites and benchmarks load once per process: vendor 6353 ("Acme") is
// an Android vendor, product 20199 is on its white list and its black list, product 11 only on
// its black list; any other vendor is not configured.
#pragma once

#include <cstdint>

inline constexpr uint16_t kAndroidVid = 6353;
inline constexpr uint16_t kWhitePid = 20199;
inline constexpr uint16_t kBlackPid = 11;
inline constexpr uint16_t kPlainPid = 1;
inline constexpr uint16_t kUnknownVid = 4660;

void LoadUsbTestFilterLists();
