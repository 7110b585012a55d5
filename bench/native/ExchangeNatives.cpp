// The class vex.bench.ExchangeInJvm: the exchanges that exchange_bench compares, in the process of a JVM.
#include <jni.h>

#include "Exchanges.h"
#include "vex_bench_ExchangeInJvm.h"

namespace {

// The server is there from the first use on; it is a fork of the JVM that does no more than copy bytes.
bench::Exchanges& TheExchanges() {
    static bench::Exchanges s_exchanges;
    return s_exchanges;
}

}  // namespace

extern "C" {

JNIEXPORT jdouble JNICALL Java_vex_bench_ExchangeInJvm_product(JNIEnv*, jclass, jint nExchanges) {
    return TheExchanges().Product(nExchanges);
}
JNIEXPORT jdouble JNICALL Java_vex_bench_ExchangeInJvm_floor(JNIEnv*, jclass, jint nExchanges) {
    return TheExchanges().Floor(nExchanges);
}

}  // extern "C"
