// The class vex.bench.ExchangeInJvm: the exchanges of exchange_bench in the process of a JVM.
#include <jni.h>

#include "Exchanges.h"
#include "vex_bench_ExchangeInJvm.h"

namespace {

// The first use starts the server. It is a fork of the JVM that only copies bytes.
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
