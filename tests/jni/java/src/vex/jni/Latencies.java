package vex.jni;

import java.util.Arrays;

/** The latencies of a period in nanoseconds. Keeps its memory from period to period, so that it adds nothing to it. */
final class Latencies {
    private final long[] values;
    private int count;
    private long longest;

    /** @param capacity what is added beyond it counts only for the longest */
    Latencies(int capacity) {
        values = new long[capacity];
    }

    synchronized void add(long nanoseconds) {
        longest = Math.max(longest, nanoseconds);
        if (count < values.length) {
            values[count++] = nanoseconds;
        }
    }

    /** Returns these quantiles and the longest, in milliseconds, and begins a new period. */
    synchronized double[] take(double... quantiles) {
        Arrays.sort(values, 0, count);
        double[] taken = new double[quantiles.length + 1];
        for (int i = 0; i < quantiles.length; ++i) {
            int rank = Math.max(0, (int) Math.ceil(quantiles[i] * count) - 1);
            taken[i] = count == 0 ? Double.NaN : values[rank] / 1e6;
        }
        taken[quantiles.length] = longest / 1e6;
        count = 0;
        longest = 0;
        return taken;
    }
}
