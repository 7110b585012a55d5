package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.BooleanSupplier;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

/** Closing, forgetting to close, and many threads at once. */
@Tag("client")
class LifetimeTest {
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final int THREADS = 16;
    private static final int ROUNDS = 200;
    private static final long DEADLINE_SECONDS = 30;

    private static boolean isFinalized(long handle) {
        return NATIVES.GetLastError(handle) == VCTKError.INVALID_HANDLE;
    }

    private static SigningClient openEc() throws SigningException {
        return SigningClient.store("demo:").keyAlgorithm("EC").open();
    }

    /** Collecting garbage has no other sign than its effect. */
    private static void awaitCollection(BooleanSupplier effect) throws InterruptedException {
        long deadline = System.nanoTime() + DEADLINE_SECONDS * 1_000_000_000L;
        while (!effect.getAsBoolean()) {
            assertTrue(System.nanoTime() < deadline, "not collected");
            System.gc();
            Thread.sleep(5);
        }
    }

    @Test
    void closeReleasesTheHandleAndIsHarmlessWhenRepeated() throws Exception {
        SigningClient client = openEc();
        long handle = client.session.handle;
        assertFalse(isFinalized(handle));
        client.close();
        assertTrue(isFinalized(handle));
        client.close();
    }

    @Test
    void useAfterCloseIsRefusedWithoutANativeCall() throws Exception {
        SigningClient client = openEc();
        long handle = client.session.handle;
        client.close();
        for (Executable use : List.<Executable>of(() -> client.signPkcs1("x"), () -> client.signPkcs1(new byte[1]),
                () -> client.signCms("x"), () -> client.signCms(new byte[1]), client::certificates)) {
            assertThrows(IllegalStateException.class, use);
        }
        assertTrue(isFinalized(handle));
    }

    @Test
    void aClientThatWasNeverClosedIsReleased() throws Exception {
        long handle = handleOfAForgottenClient();
        awaitCollection(() -> isFinalized(handle));
    }

    private static long handleOfAForgottenClient() throws SigningException {
        return openEc().session.handle;
    }

    @Test
    void aBuilderThatFailsLeavesNoHandleOpen() throws Exception {
        for (int i = 0; i < 10; ++i) {
            assertThrows(SigningException.class, () -> SigningClient.store("demo:").keyAlgorithm("x").open());
        }
        awaitCollection(() -> !Reaper.isRunning());
    }

    @Test
    void theReaperEndsWithTheLastClientAndComesBackWithTheNext() throws Exception {
        for (int i = 0; i < 3; ++i) {
            SigningClient first = openEc();
            SigningClient second = openEc();
            first.close();
            assertTrue(Reaper.isRunning());
            second.close();
            awaitCollection(() -> !Reaper.isRunning());
        }
    }

    @Test
    void theReaperHoldsOnToNothingOfItsStarter() throws Exception {
        awaitCollection(() -> !Reaper.isRunning());
        try (SigningClient client = openEc()) {
            Thread reaper = Thread.getAllStackTraces().keySet().stream()
                .filter(thread -> thread.getName().equals("vex.client reaper")).findFirst().orElseThrow();
            assertTrue(reaper.isDaemon());
            assertEquals(null, reaper.getContextClassLoader());
            assertTrue(client.certificates().size() > 0);
        }
    }

    @Test
    void closeWhileOthersSignLetsTheirCallsFinish() throws Exception {
        for (int round = 0; round < 20; ++round) {
            SigningClient client = openEc();
            long handle = client.session.handle;
            CountDownLatch signing = new CountDownLatch(THREADS);
            AtomicInteger signatures = new AtomicInteger();
            ExecutorService threads = Executors.newFixedThreadPool(THREADS);
            List<Future<Void>> results = new ArrayList<>();
            for (int i = 0; i < THREADS; ++i) {
                results.add(threads.submit(() -> {
                    signing.countDown();
                    while (true) {
                        try {
                            client.signPkcs1("text");
                            signatures.incrementAndGet();
                        } catch (IllegalStateException e) {
                            return null;  // any SigningException would be a call on a handle that is gone
                        }
                    }
                }));
            }
            signing.await();
            client.close();
            threads.shutdown();
            for (Future<Void> result : results) {
                result.get();
            }
            assertTrue(isFinalized(handle));
        }
    }

    @Test
    void eachThreadGetsTheErrorOfItsOwnCall() throws Exception {
        run(Executors.newFixedThreadPool(THREADS));
    }

    @Test
    void soDoVirtualThreads() throws Exception {
        if (Runtime.version().feature() >= 21) {
            run((ExecutorService) Executors.class.getMethod("newVirtualThreadPerTaskExecutor").invoke(null));
        } else {
            assertThrows(NoSuchMethodException.class,
                () -> Executors.class.getMethod("newVirtualThreadPerTaskExecutor"));
        }
    }

    private static void run(ExecutorService threads) throws Exception {
        CyclicBarrier start = new CyclicBarrier(THREADS);
        try (SigningClient client = openEc()) {
            List<Callable<Void>> calls = new ArrayList<>();
            for (int i = 0; i < THREADS; ++i) {
                int thread = i;
                calls.add(() -> {
                    start.await();
                    for (int round = 0; round < ROUNDS; ++round) {
                        failOrSign(client, thread);
                        Thread.yield();
                    }
                    return null;
                });
            }
            for (Future<Void> result : threads.invokeAll(calls)) {
                result.get();
            }
        } finally {
            threads.shutdown();
        }
    }

    private static void failOrSign(SigningClient client, int thread) throws SigningException {
        switch (thread % 4) {
            case 0 -> assertError(VCTKError.DIGEST_WEAK, "MD5", () -> client.session.setDigest("MD5"));
            case 1 -> assertError(VCTKError.DIGEST_UNKNOWN, "none-" + thread,
                () -> client.session.setDigest("none-" + thread));
            case 2 -> assertError(VCTKError.FILTER_VALUE, "\"DSA\"",
                () -> client.session.addFilter(Filter.keyAlgorithm("DSA")));
            default -> assertTrue(client.signPkcs1("thread " + thread).length > 0);
        }
    }

    private static void assertError(int number, String detail, Executable call) {
        SigningException e = assertThrows(SigningException.class, call);
        assertEquals(number, e.number(), e.getMessage());
        assertTrue(e.getMessage().contains(detail), e.getMessage());
    }
}
