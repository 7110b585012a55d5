package vex.jni;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.CountDownLatch;

/** A program for {@link JvmEnds}: gets ready, says so, and ends in a given way when it is told to. */
final class EndingJvm {
    private static final int THREADS = 4;
    private static final int CALLS = 200;

    private EndingJvm() {}

    /**
     * Prints a line when it is ready, and ends when its standard input ends.
     *
     * @param args a {@link JvmEnds.Way}, a {@link JvmEnds.With}, and the URI of the store to sign with
     * @throws Exception when something is wrong
     */
    public static void main(String[] args) throws Exception {
        JvmEnds.Way way = JvmEnds.Way.valueOf(args[0]);
        JvmEnds.With with = JvmEnds.With.valueOf(args[1]);
        boolean natives = with == JvmEnds.With.NATIVES;
        if (natives) {
            trace(CALLS);
            awaitFile(way == JvmEnds.Way.STALLED ? "stalled" : "PILog.txt");
        }
        if (with == JvmEnds.With.PAUSE) {
            Runtime.getRuntime().addShutdownHook(new Thread(EndingJvm::pauseASecond));
        }
        if (way == JvmEnds.Way.IN_FLIGHT) {
            startThreads(natives, args[2]);
        }
        System.out.println("ready");
        while (System.in.read() >= 0) {
            // Wait for the end of the input.
        }
        switch (way) {
            case RETURN -> { }
            case EXIT, IN_FLIGHT, STALLED -> System.exit(way.status());
            case HALT -> Runtime.getRuntime().halt(way.status());
            case SIGNAL -> Thread.currentThread().join();
        }
    }

    private static void trace(int calls) {
        TAVClientJNI natives = new TAVClientJNI();
        for (int i = 0; i < calls; ++i) {
            natives.GetLastError(0);
        }
    }

    private static void awaitFile(String name) throws IOException, InterruptedException {
        Path file = Path.of(System.getenv("VEX_TEST_LOG_DIR"), name);
        while (!Files.exists(file) || (Files.size(file) == 0 && !name.equals("stalled"))) {
            Thread.sleep(1);
        }
    }

    private static void pauseASecond() {
        try {
            Thread.sleep(1000);
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
    }

    /** Half of the threads sign, half of them write records as fast as they can. Returns when all have started. */
    private static void startThreads(boolean natives, String store) throws InterruptedException {
        CountDownLatch atWork = new CountDownLatch(THREADS);
        for (int i = 0; i < THREADS; ++i) {
            boolean signs = i % 2 == 0;
            Thread thread = new Thread(() -> {
                Runnable work = natives ? (signs ? signing(store) : () -> trace(1)) : EndingJvm::compute;
                work.run();
                atWork.countDown();
                while (true) {
                    work.run();
                    Thread.yield();
                }
            });
            thread.setDaemon(true);
            thread.start();
        }
        atWork.await();
    }

    private static Runnable signing(String store) {
        TAVClientJNI natives = new TAVClientJNI();
        long handle = natives.Initialize(null, store);
        return () -> natives.P7SignString(handle, "a text to sign", 1, 1);
    }

    /** Keeps a processor as busy as a native does. */
    private static void compute() {
        double sum = 0;
        for (int i = 1; i < 10_000; ++i) {
            sum += Math.sqrt(i);
        }
        if (Double.isNaN(sum)) {
            throw new AssertionError();
        }
    }
}
