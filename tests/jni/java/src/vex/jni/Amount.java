package vex.jni;

import java.util.concurrent.ThreadLocalRandom;

/** How often a test repeats its work, and the seed of its random choices. Amount.h reads the same variables. */
public final class Amount {
    private static final long SEED = seed();

    private Amount() {}

    /** The number in the environment variable, which a long run sets; otherwise the given one. */
    public static int of(String variable, int otherwise) {
        String amount = System.getenv(variable);
        return amount == null ? otherwise : Integer.parseInt(amount);
    }

    /** The seed of this JVM: that of the environment variable VEX_TEST_SEED, otherwise a new one. It is printed. */
    public static long seedOfRun() {
        return SEED;
    }

    private static long seed() {
        String given = System.getenv("VEX_TEST_SEED");
        long seed = given != null ? Long.parseLong(given) : ThreadLocalRandom.current().nextInt(Integer.MAX_VALUE);
        System.err.println("VEX_TEST_SEED=" + seed);
        return seed;
    }
}
