package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.SplittableRandom;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import vex.jni.Amount;
import vex.jni.ProcessSize;
import vex.jni.TAVClientJNI;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/**
 * A program that closes stores while sixteen threads sign with them, and opens and closes clients one after the other,
 * many times. It fails if a call fails with anything else than "closed", or if anything is left of a closed store.
 *
 * <p>It needs MALLOC_ARENA_MAX=1 in the environment, because malloc gives back the free memory of its first arena only.
 */
final class ClientLives {
    private static final int THREADS = 16;
    private static final int MOST_SIGNATURES = 50;
    private static final int MEGABYTE = 1 << 20;
    /** In MiB. One signature of each thread would be more. */
    private static final int MOST_LEFT = 6;
    private static final byte[] DATA = {1, 2, 3};
    private static final TAVClientJNI NATIVES = new TAVClientJNI();

    private final String store;
    private final String[] fingerprints;
    private final ExecutorService threads = Executors.newFixedThreadPool(THREADS, ClientLives::daemon);
    private long handles;
    private long signatures;

    private ClientLives(String store, String... fingerprints) {
        this.store = store;
        this.fingerprints = fingerprints;
    }

    /** Does not keep the JVM from ending when a check fails. */
    private static Thread daemon(Runnable work) {
        Thread thread = new Thread(work);
        thread.setDaemon(true);
        return thread;
    }

    /** Signs once, in the thread with this number. */
    private interface Signer {
        void sign(int thread) throws Exception;
    }

    /**
     * Ends the JVM with status 0 if all stores could be closed and nothing is left.
     *
     * @throws Exception when something is wrong
     */
    public static void main(String[] args) throws Exception {
        int closings = Amount.of("VEX_TEST_CLOSINGS", 200);
        int clients = Amount.of("VEX_TEST_CLIENTS", 2000);
        SplittableRandom random = new SplittableRandom(Amount.seedOfRun());
        TestStore.Identity rsa = TestStore.identity("RSA", "CN=R", 1, 30, 0);
        TestStore.Identity ec = TestStore.identity("secp256r1", "CN=E", 2, 30, 0);
        Path file = Files.createTempFile("lives", ".pem");
        ClientLives lives = new ClientLives(TestStore.writePem(file, List.of(rsa, ec)),
            Certificates.fingerprint(rsa.certificate()), Certificates.fingerprint(ec.certificate()));
        lives.closeWhileThreadsSign(10, random);  // starts all threads
        ProcessSize before = ProcessSize.now();
        lives.closeWhileThreadsSign(closings, random);
        lives.openAndClose(clients);
        lives.signLargeData();
        ProcessSize after = ProcessSize.now();
        assertEquals(before.descriptors(), after.descriptors(), "descriptors");
        assertTrue(after.threads() <= before.threads(), "threads: " + before.threads() + ", then " + after.threads());
        lives.threads.shutdown();
        Files.delete(file);
        System.out.printf("%,d closed stores had %,d handles, which made %,d signatures%n", closings, lives.handles,
            lives.signatures);
    }

    /** Closes clients and the stores of KeyStores in turns. */
    private void closeWhileThreadsSign(int rounds, SplittableRandom random) throws Exception {
        for (int round = 0; round < rounds; ++round) {
            int wanted = random.nextInt(MOST_SIGNATURES);
            if (round % 2 == 0) {
                SigningClient client = SigningClient.store(store).keyAlgorithm("EC").open();
                signUntilClosed(wanted, thread -> client.signRaw(DATA), client.session, client::close);
            } else {
                StoreSession keys = StoreSession.open(store);
                signUntilClosed(wanted, thread -> keys.sign(fingerprints[thread % 8 == 0 ? 0 : 1], "SHA-256", DATA),
                    keys.session, keys::close);
            }
        }
    }

    private void signUntilClosed(int wanted, Signer signer, Session session, Runnable close) throws Exception {
        AtomicInteger signed = new AtomicInteger();
        List<Future<Void>> results = new ArrayList<>();
        for (int i = 0; i < THREADS; ++i) {
            int thread = i;
            results.add(threads.submit(() -> {
                while (true) {
                    try {
                        signer.sign(thread);
                    } catch (IllegalStateException closed) {
                        return null;  // a SigningException would mean a call on a finalized handle
                    }
                    signed.incrementAndGet();
                }
            }));
        }
        while (signed.get() < wanted) {
            Thread.onSpinWait();
        }
        close.run();
        close.run();
        for (Future<Void> result : results) {
            result.get();
        }
        for (Handle handle : session.pool().handles()) {
            assertEquals(VCTKError.INVALID_HANDLE, NATIVES.GetLastError(handle.number), "a handle is left");
            ++handles;
        }
        signatures += signed.get();
    }

    /** The toolkit must not keep the signatures of all pairs of a handle and a thread. */
    private void signLargeData() throws Exception {
        byte[] large = new byte[MEGABYTE / 2];
        try (SigningClient client = SigningClient.store(store).keyAlgorithm("EC").open()) {
            ProcessSize before = ProcessSize.now();
            List<Future<Void>> results = new ArrayList<>();
            for (int i = 0; i < 8 * THREADS; ++i) {
                results.add(threads.submit(() -> {
                    assertTrue(client.signCmsAttached(large).length > large.length);
                    return null;
                }));
            }
            for (Future<Void> result : results) {
                result.get();
            }
            long grown = (ProcessSize.now().residentBytes() - before.residentBytes()) / MEGABYTE;
            System.out.printf("%d signatures with 512 KiB of content left %d MiB%n", results.size(), grown);
            assertTrue(grown <= MOST_LEFT, "large signatures are left");
        }
    }

    private void openAndClose(int clients) throws Exception {
        long before = ManagementFactory.getThreadMXBean().getTotalStartedThreadCount();
        for (int i = 0; i < clients; ++i) {
            SigningClient.store(store).open().close();
        }
        long started = ManagementFactory.getThreadMXBean().getTotalStartedThreadCount() - before;
        System.out.printf("%,d clients, one after the other, started %,d threads%n", clients, started);
        assertTrue(started <= 2 + clients / 100, "threads are started for clients");
    }
}
