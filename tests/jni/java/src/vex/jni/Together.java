package vex.jni;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/** Runs the same work in many threads at once. */
public final class Together {
    /** What a thread does. */
    public interface Work {
        /** @param thread the number of the thread, from 0 on */
        void run(int thread) throws Exception;
    }

    private Together() {}

    public static void run(int threads, Work work) throws Exception {
        run(Executors.newFixedThreadPool(threads), threads, work);
    }

    /** Starts the work in all threads at the same time, waits for all of them, and throws the first failure. */
    public static void run(ExecutorService executor, int threads, Work work) throws Exception {
        CyclicBarrier start = new CyclicBarrier(threads);
        List<Callable<Void>> calls = new ArrayList<>();
        for (int i = 0; i < threads; ++i) {
            int thread = i;
            calls.add(() -> {
                start.await();
                work.run(thread);
                return null;
            });
        }
        try {
            for (Future<Void> result : executor.invokeAll(calls)) {
                result.get();
            }
        } finally {
            executor.shutdown();
        }
    }
}
