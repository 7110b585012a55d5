package vex.jni;

import java.util.concurrent.ThreadLocalRandom;

/** How much a test of large numbers does, and the seed of its random choices; see Amount.h, which reads the same. */
final class Amount {
    private static final long SEED = seed();

    private Amount() {}

    /** The number in the environment variable, which a long run sets, or else the one given. */
    static int of(String variable, int otherwise) {
        String amount = System.getenv(variable);
        return amount == null ? otherwise : Integer.parseInt(amount);
    }

    /** One seed for the whole JVM: that of the environment variable VEX_TEST_SEED or else a new one. It is reported. */
    static long seedOfRun() {
        return SEED;
    }

    private static long seed() {
        String given = System.getenv("VEX_TEST_SEED");
        long seed = given != null ? Long.parseLong(given) : ThreadLocalRandom.current().nextInt(Integer.MAX_VALUE);
        System.err.println("VEX_TEST_SEED=" + seed);
        return seed;
    }
}
