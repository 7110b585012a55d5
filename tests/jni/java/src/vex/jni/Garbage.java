package vex.jni;

import java.util.concurrent.Callable;

/** Makes the JVM collect garbage. */
public final class Garbage {
    private static final long LONGEST_SECONDS = 30;

    private Garbage() {}

    /** Collects garbage until the effect is there. */
    public static void awaitCollection(Callable<Boolean> effect) throws Exception {
        long deadline = System.nanoTime() + LONGEST_SECONDS * 1_000_000_000L;
        while (!effect.call()) {
            if (System.nanoTime() > deadline) {
                throw new AssertionError("not collected within " + LONGEST_SECONDS + " s");
            }
            System.gc();
            Thread.sleep(5);
        }
    }
}
