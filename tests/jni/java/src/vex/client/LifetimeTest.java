package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import vex.jni.Garbage;
import vex.jni.Run;
import vex.jni.TAVClientJNI;
import vex.jni.Together;
import vex.jni.VCTKError;

/** Closing a client, forgetting to close it, and many threads at once. */
@Tag("client")
class LifetimeTest {
    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final int THREADS = 16;
    private static final int ROUNDS = 200;
    private static final int VIRTUAL_THREADS = 2000;
    private static final int CLIENTS = 300;
    private static final int CALLS_UNTIL_COMPILED = 2000;

    private static boolean isFinalized(long handle) {
        return NATIVES.GetLastError(handle) == VCTKError.INVALID_HANDLE;
    }

    private static long firstHandle(SigningClient client) {
        return client.session.pool().handles().get(0).number;
    }

    private static SigningClient openEc() throws SigningException {
        return SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.EC).open();
    }

    private static Optional<Thread> reaper() {
        return Thread.getAllStackTraces().keySet().stream()
            .filter(thread -> thread.getName().equals("vex.client reaper")).findFirst();
    }

    @Test
    void closeReleasesTheHandleAndMayBeRepeated() throws Exception {
        SigningClient client = openEc();
        long handle = firstHandle(client);
        assertFalse(isFinalized(handle));
        client.close();
        assertTrue(isFinalized(handle));
        client.close();
    }

    @Test
    void refusesUseAfterCloseWithoutANativeCall() throws Exception {
        SigningClient client = openEc();
        long handle = firstHandle(client);
        client.close();
        for (Executable use : List.<Executable>of(() -> client.signRaw("x"), () -> client.signRaw(new byte[1]),
                () -> client.signCmsDetached("x"), () -> client.signCmsDetached(new byte[1]),
                () -> client.signCmsAttached("x"), () -> client.signCmsAttached(new byte[1]), client::certificates,
                client::signer, () -> client.sign(SigningRequest.raw("x")),
                () -> client.signDigest(new byte[32]), () -> client.signCmsAttached(Path.of("/proc/version")),
                () -> client.signCmsDetached(Path.of("/proc/version")),
                () -> client.signCmsDetached(new ByteArrayInputStream(new byte[1])))) {
            assertThrows(IllegalStateException.class, use);
        }
        assertTrue(isFinalized(handle));
    }

    @Test
    void releasesAClientThatWasNeverClosed() throws Exception {
        long handle = handleOfAForgottenClient();
        Garbage.awaitCollection(() -> isFinalized(handle));
    }

    private static long handleOfAForgottenClient() throws SigningException {
        return firstHandle(openEc());
    }

    /** Compiled code forgets the client as soon as it has read its fields. */
    @Test
    void keepsAForgottenClientWhileItSigns() throws Exception {
        try (SigningClient client = openEc()) {
            for (int i = 0; i < CALLS_UNTIL_COMPILED; ++i) {
                client.signCmsDetached(new ByteArrayInputStream(new byte[1]));
                client.sign(SigningRequest.cmsDetached(new ByteArrayInputStream(new byte[1])));
            }
        }
        for (int i = 0; i < 3; ++i) {
            assertTrue(openEc().signCmsDetached(collectingStream()).length > 0);
            assertTrue(openEc().sign(SigningRequest.cmsDetached(collectingStream())).signature().length > 0);
        }
    }

    /** A stream that is not read before another forgotten client was released. */
    private static InputStream collectingStream() throws SigningException {
        long other = handleOfAForgottenClient();
        return new FirstCalled("text", () -> Garbage.awaitCollection(() -> isFinalized(other)));
    }

    /** A stream that does something when it is read for the first time. */
    private static final class FirstCalled extends ByteArrayInputStream {
        private Executable first;

        FirstCalled(String text, Executable first) {
            super(text.getBytes(StandardCharsets.UTF_8));
            this.first = first;
        }

        @Override
        public int read(byte[] bytes) throws IOException {
            Executable now = first;
            first = null;
            if (now != null) {
                try {
                    now.execute();
                } catch (Throwable e) {
                    throw new IOException(e);
                }
            }
            return super.read(bytes);
        }
    }

    @Test
    void theReaperGoesOnAfterAnError() throws Exception {
        AtomicInteger thrown = new AtomicInteger();
        Reaper.register(new Object(), () -> {
            thrown.incrementAndGet();
            throw new OutOfMemoryError("for the test");
        });
        Garbage.awaitCollection(() -> thrown.get() > 0);
        long handle = handleOfAForgottenClient();
        Garbage.awaitCollection(() -> isFinalized(handle));
        Garbage.awaitCollection(() -> reaper().isEmpty());
    }

    @Test
    void leavesNoHandleOpenWhenOpeningFails() throws Exception {
        for (int i = 0; i < 10; ++i) {
            assertThrows(SigningException.class, () -> SigningClient.store("demo:").keyAlgorithm("x").open());
        }
        Garbage.awaitCollection(() -> reaper().isEmpty());
    }

    @Test
    void theReaperEndsAfterTheLastClientAndRestartsWithTheNext() throws Exception {
        for (int i = 0; i < 2; ++i) {
            SigningClient first = openEc();
            SigningClient second = openEc();
            first.close();
            assertTrue(reaper().isPresent());
            second.close();
            Garbage.awaitCollection(() -> reaper().isEmpty());
        }
    }

    @Test
    void theReaperStaysWhileClientsComeAndGo() throws Exception {
        long before = ManagementFactory.getThreadMXBean().getTotalStartedThreadCount();
        for (int i = 0; i < CLIENTS; ++i) {
            openEc().close();
        }
        long started = ManagementFactory.getThreadMXBean().getTotalStartedThreadCount() - before;
        assertTrue(started <= 2 + CLIENTS / 100, started + " threads were started for " + CLIENTS + " clients");
    }

    @Test
    void theReaperKeepsNoReferenceToItsStarter() throws Exception {
        Garbage.awaitCollection(() -> reaper().isEmpty());
        try (SigningClient client = openEc()) {
            Thread reaper = reaper().orElseThrow();
            assertTrue(reaper.isDaemon());
            assertEquals(null, reaper.getContextClassLoader());
            assertTrue(client.certificates().size() > 0);
        }
    }

    /** Each of these calls the toolkit more than once. */
    @Test
    void closeLetsACallFinishThatReadsItsContent() throws Exception {
        for (Signer signer : List.<Signer>of((client, stream) -> client.signCmsDetached(stream),
                (client, stream) -> client.sign(SigningRequest.cmsDetached(stream)).signature())) {
            SigningClient client = openEc();
            long handle = firstHandle(client);
            InputStream stream = new FirstCalled("text", client::close);
            assertTrue(signer.sign(client, stream).length > 0);
            assertTrue(isFinalized(handle));
            assertThrows(IllegalStateException.class, () -> client.signRaw("text"));
        }
    }

    private interface Signer {
        byte[] sign(SigningClient client, InputStream stream) throws Exception;
    }

    @Test
    void closeLetsCallsOfOtherThreadsFinish() throws Exception {
        for (int round = 0; round < 20; ++round) {
            SigningClient client = openEc();
            long handle = firstHandle(client);
            CountDownLatch signing = new CountDownLatch(THREADS);
            AtomicInteger signatures = new AtomicInteger();
            ExecutorService threads = Executors.newFixedThreadPool(THREADS);
            List<Future<Void>> results = new ArrayList<>();
            for (int i = 0; i < THREADS; ++i) {
                results.add(threads.submit(() -> {
                    signing.countDown();
                    while (true) {
                        try {
                            client.signRaw("text");
                            signatures.incrementAndGet();
                        } catch (IllegalStateException e) {
                            return null;  // a SigningException would mean a call on a finalized handle
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
        run(Executors.newFixedThreadPool(THREADS), THREADS, ROUNDS);
    }

    @Test
    void eachVirtualThreadGetsTheErrorOfItsOwnCall() throws Exception {
        if (Runtime.version().feature() >= 21) {
            run((ExecutorService) Executors.class.getMethod("newVirtualThreadPerTaskExecutor").invoke(null),
                VIRTUAL_THREADS, 3);
        } else {
            assertThrows(NoSuchMethodException.class,
                () -> Executors.class.getMethod("newVirtualThreadPerTaskExecutor"));
        }
    }

    @Test
    void virtualThreadsWaitWithoutTheirCarrier() throws Exception {
        ProcessBuilder builder = new ProcessBuilder(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED",
            "-Djdk.virtualThreadScheduler.parallelism=1", "-Djdk.virtualThreadScheduler.maxPoolSize=1",
            "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp", System.getProperty("java.class.path"),
            WaitingVirtualThreads.class.getName());
        Run run = Run.of(builder);
        if (Runtime.version().feature() >= 21) {
            assertEquals("runs while others wait\n100 signed\n", run.succeeded().output());
        } else {
            assertTrue(run.errors().contains("NoSuchMethodException"), run.errors());
        }
    }

    private static void run(ExecutorService executor, int threads, int rounds) throws Exception {
        try (SigningClient client = openEc()) {
            Together.run(executor, threads, thread -> {
                for (int round = 0; round < rounds; ++round) {
                    failOrSign(client, thread);
                    Thread.yield();
                }
            });
        }
    }

    private static void failOrSign(SigningClient client, int thread) throws SigningException {
        switch (thread % 4) {
            case 0 -> assertError(VCTKError.DIGEST_WEAK, "MD5", () -> client.session.check(Selection.ALL, "MD5"));
            case 1 -> assertError(VCTKError.DIGEST_UNKNOWN, "none-" + thread,
                () -> client.session.check(Selection.ALL, "none-" + thread));
            case 2 -> assertError(VCTKError.FILTER_VALUE, "\"DSA\"",
                () -> client.session.check(Selection.ALL.with(Filter.keyAlgorithm("DSA")), null));
            default -> assertTrue(client.signRaw("thread " + thread).length > 0);
        }
    }

    private static void assertError(int number, String detail, Executable call) {
        SigningException e = assertThrows(SigningException.class, call);
        assertEquals(number, e.number(), e.getMessage());
        assertTrue(e.getMessage().contains(detail), e.getMessage());
    }
}
