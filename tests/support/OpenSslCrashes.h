// OpenSSL does not check all of its allocations. When memory runs out and its own code then accesses address 0, that is
// OpenSSL's defect, and a test only counts it.
#pragma once

// The status of a process that ended in this way.
inline constexpr int kOpenSslCrash = 99;

// From now on, such a crash writes the coverage and ends this process with kOpenSslCrash. Other crashes end it with
// their signal. Not under AddressSanitizer, which reports crashes itself.
void CatchOpenSslCrashes();
