// Ownership of OpenSSL's objects: std::unique_ptr<X509, bench::Deleter<X509_free>>.
#pragma once

namespace bench {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};

}  // namespace bench
