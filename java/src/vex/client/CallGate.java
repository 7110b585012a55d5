package vex.client;

import java.util.concurrent.atomic.AtomicInteger;

/**
 * Counts the calls in progress. After it is closed no other call begins, and the last one to end releases what the
 * calls used. Any thread may call any method; none of them waits.
 */
abstract class CallGate {
    private static final int CLOSED = Integer.MIN_VALUE;

    /** The number of calls in progress. The sign bit is set when the gate is closed. */
    private final AtomicInteger calls = new AtomicInteger();

    /** Runs once, when no call is in progress and none can begin any more. */
    abstract void release();

    /**
     * Begins a call.
     *
     * @throws IllegalStateException if the gate is closed
     */
    final void enter() {
        int before;
        do {
            before = calls.get();
            requireOpen(before);
        } while (!calls.compareAndSet(before, before + 1));
    }

    /** Ends what {@link #enter} began. */
    final void leave() {
        if (calls.decrementAndGet() == CLOSED) {
            release();
        }
    }

    /** Calls in progress finish normally. May be repeated. */
    final void close() {
        int before;
        do {
            before = calls.get();
        } while (!calls.compareAndSet(before, before | CLOSED));
        if (before == 0) {
            release();
        }
    }

    /** @throws IllegalStateException if the gate is closed */
    final void requireOpen() {
        requireOpen(calls.get());
    }

    private static void requireOpen(int number) {
        if (number < 0) {
            throw new IllegalStateException("The signing client or the KeyStore is closed");
        }
    }
}
