package vex.jni;

import java.util.concurrent.ThreadLocalRandom;

/** How much a test of large numbers does, and the seed of its random choices: what Amount.h is to the native tests. */
final class Amounts {
    private Amounts() {}

    /** The number in the environment variable, which a long run sets, or else the one given. */
    static int of(String variable, int standard) {
        String amount = System.getenv(variable);
        return amount != null ? Integer.parseInt(amount) : standard;
    }

    /** That of the environment variable VEX_TEST_SEED or else a new one; printed, so that a failure can be repeated. */
    static long seed() {
        String text = System.getenv("VEX_TEST_SEED");
        long seed = text != null ? Long.parseLong(text) : ThreadLocalRandom.current().nextInt(Integer.MAX_VALUE);
        System.out.println("VEX_TEST_SEED=" + seed);
        return seed;
    }
}
