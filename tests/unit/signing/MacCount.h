// How many MACs of PKCS #12 files this program has computed.
#pragma once

#include <atomic>

extern std::atomic<int> g_cMacs;
