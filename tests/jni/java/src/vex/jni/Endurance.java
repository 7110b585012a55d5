package vex.jni;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import java.util.SplittableRandom;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicLongArray;

/**
 * A program that calls natives from sixteen threads on 64 objects, millions of times, and fails if the process grows.
 *
 * <p>It runs in slices and waits after each one until the log is written, so that queued records do not count. Some
 * calls never free a string's characters, by their contract: the process grows by exactly these characters. These calls
 * come last, because each block that stays keeps its page of 4096 bytes in use.
 */
final class Endurance {
    private static final int THREADS = 16;
    private static final int OBJECTS = 64;
    /** The number of objects whose settings never change, so that each signature with them has to succeed. */
    private static final int SIGNING_OBJECTS = 16;
    private static final int CALLS_OF_SLICE = 1000;
    private static final int SAMPLES = 100;
    private static final int ROWS = 20;
    /** The number of other calls for each call that keeps characters. */
    private static final int CALLS_PER_KEPT = 200;

    /** The smallest block of malloc; the copy of an empty text fits into it. */
    private static final int SMALLEST_BLOCK = 32;
    /** The JVM copies each of these units as three bytes, which the natives cannot decode. */
    private static final String UNDECODABLE = "\uD800".repeat(1000);
    private static final int UNDECODABLE_BLOCK = 3 * 1000 + 16;

    private static final TAVClientJNI NATIVES = new TAVClientJNI();
    private static final String TEXT = "a text to sign, 漢字😀";
    private static final String BASE64 = Base64.getEncoder().encodeToString(new byte[100]);

    private enum Call {
        LAST_ERROR(3400),
        LAST_ERROR_MESSAGE(1000),
        VERSION(1000),
        DIGEST(1000),
        SINGLE(900),
        ADD_FILTER(700),
        CLEAR_FILTER(800),
        CERTIFICATE_LIST(300),
        CERTIFICATE(300),
        REFUSED(350),
        P1_STRING(150),
        P1(40),
        P7_STRING(30),
        P7(20),
        NEW_OBJECT(10);

        /** The number of these calls among ten thousand. */
        private final int share;

        Call(int share) {
            this.share = share;
        }
    }

    private static final Call[] CALLS = Call.values();

    private final AtomicLongArray objects = new AtomicLongArray(OBJECTS);
    private final AtomicLongArray counts = new AtomicLongArray(CALLS.length);
    private final String store;

    private Endurance(String store) {
        this.store = store;
        for (int i = 0; i < OBJECTS; ++i) {
            objects.set(i, initialize());
        }
        for (int i = 0; i < SIGNING_OBJECTS; ++i) {
            String key = i % 8 == 0 ? "RSA" : "EC";
            assertTrue(NATIVES.AddFilter(objects.get(i), TAVClientJNI.FILTER_KEY_ALGORITHM, key) == 0, "AddFilter");
        }
    }

    /**
     * Ends the JVM with status 0 if all calls worked and the process has not grown.
     *
     * @throws Exception when something is wrong
     */
    public static void main(String[] args) throws Exception {
        long slices = Amount.of("VEX_TEST_ENDURANCE_CALLS", 64_000) / (THREADS * CALLS_OF_SLICE);
        SplittableRandom random = new SplittableRandom(Amount.seedOfRun());
        LogEnd log = new LogEnd(NATIVES);
        log.await();
        Path file = Files.createTempFile("endurance", ".pem");
        Endurance endurance = new Endurance(TestStore.writePem(file, List.of(
            TestStore.identity("RSA", "CN=R", 1, 30, 0), TestStore.identity("secp256r1", "CN=E", 2, 30, 0))));

        Growth growth = new Growth(slices <= SAMPLES ? 1 : SAMPLES / ROWS);
        ExecutorService threads = Executors.newFixedThreadPool(THREADS);
        try {
            for (long slice = 1; slice <= slices; ++slice) {
                endurance.runSlice(threads, random);
                log.await();
                if (slices <= SAMPLES || slice * SAMPLES / slices != (slice - 1) * SAMPLES / slices) {
                    growth.add(slice * THREADS * CALLS_OF_SLICE, ProcessSize.now());
                }
            }
        } finally {
            threads.shutdown();
        }
        endurance.printMix();
        growth.check();
        endurance.keepTexts(log, slices * THREADS * CALLS_OF_SLICE / CALLS_PER_KEPT);
        endurance.finish();
        Files.delete(file);
    }

    /** Makes calls that keep characters; one text in ten is long. */
    private void keepTexts(LogEnd log, long calls) throws Exception {
        long before = ProcessSize.now().residentBytes();
        long kept = 0;
        for (long i = 0; i < calls; ++i) {
            boolean isLong = i % 10 == 0;
            assertTrue(NATIVES.SetDigestAlg(objects.get(0), isLong ? UNDECODABLE : "") == 1, "a refused text");
            kept += isLong ? UNDECODABLE_BLOCK : SMALLEST_BLOCK;
        }
        log.await();
        long grown = ProcessSize.now().residentBytes() - before;
        System.out.printf("%,d calls that keep %,d KiB: %,d KiB more%n", calls, kept / 1024, grown / 1024);
        assertTrue(grown <= kept + kept / 4 + Growth.ALLOWED, "these calls keep more memory than the characters");
    }

    private void runSlice(ExecutorService threads, SplittableRandom random) throws Exception {
        List<Callable<Void>> calls = new ArrayList<>();
        for (int i = 0; i < THREADS; ++i) {
            SplittableRandom own = random.split();
            calls.add(() -> {
                for (int n = 0; n < CALLS_OF_SLICE; ++n) {
                    call(own);
                }
                return null;
            });
        }
        for (Future<Void> result : threads.invokeAll(calls)) {
            result.get();
        }
    }

    private void call(SplittableRandom random) {
        Call call = choose(random.nextInt(10_000));
        counts.incrementAndGet(call.ordinal());
        long handle = objects.get(random.nextInt(SIGNING_OBJECTS, OBJECTS));
        long signing = objects.get(random.nextInt(SIGNING_OBJECTS));
        switch (call) {
            case LAST_ERROR -> NATIVES.GetLastError(handle);
            case LAST_ERROR_MESSAGE -> NATIVES.GetLastErrorMessage(handle);
            case VERSION -> assertTrue(NATIVES.GetSignVersion(0).length() == 7, "GetSignVersion");
            case DIGEST -> NATIVES.SetDigestAlg(handle, random.nextBoolean() ? "SHA256" : "SHA512");
            case SINGLE -> NATIVES.SetChooseSingleCert(handle, random.nextInt(2));
            case ADD_FILTER -> NATIVES.AddFilter(handle, TAVClientJNI.FILTER_SUBJECT, "CN");
            case CLEAR_FILTER -> NATIVES.ClearFilter(handle);
            case CERTIFICATE_LIST -> assertTrue(NATIVES.GetCertList(signing) != null, "GetCertList");
            case CERTIFICATE -> NATIVES.GetSignCert(signing);
            case REFUSED -> refuse(random.nextInt(4), handle);
            case P1_STRING -> assertTrue(NATIVES.P1SignString(signing, TEXT) != null, "P1SignString");
            case P1 -> assertTrue(NATIVES.P1Sign(signing, BASE64) != null, "P1Sign");
            case P7_STRING -> assertTrue(NATIVES.P7SignString(signing, TEXT, 0, 1) != null, "P7SignString");
            case P7 -> assertTrue(NATIVES.P7Sign(signing, BASE64, 1, 0) != null, "P7Sign");
            case NEW_OBJECT -> renew(random.nextInt(SIGNING_OBJECTS, OBJECTS));
        }
    }

    private static Call choose(int number) {
        int last = 0;
        while (number >= CALLS[last].share) {
            number -= CALLS[last].share;
            ++last;
        }
        return CALLS[last];
    }

    private static void refuse(int how, long handle) {
        switch (how) {
            case 0 -> assertTrue(NATIVES.SetDigestAlg(handle, "MD5") == 1, "MD5");
            case 1 -> assertTrue(NATIVES.AddFilter(handle, 99, "value") == 1, "filter 99");
            case 2 -> assertTrue(NATIVES.P1Sign(handle, "not Base64") == null, "not Base64");
            default -> assertTrue(NATIVES.ClearFilter(4711) == 1, "no handle");
        }
    }

    /** Replaces an object, while other threads may be in calls on it. */
    private void renew(int index) {
        assertTrue(NATIVES.Finalize(objects.getAndSet(index, initialize())) == 0, "Finalize");
    }

    private long initialize() {
        long handle = NATIVES.Initialize(null, store);
        assertTrue(handle != 0, "Initialize");
        return handle;
    }

    private void finish() {
        for (int i = 0; i < OBJECTS; ++i) {
            assertTrue(NATIVES.Finalize(objects.get(i)) == 0, "Finalize");
        }
    }

    private void printMix() {
        for (Call call : CALLS) {
            System.out.printf("%-20s %,12d%n", call, counts.get(call.ordinal()));
        }
    }

    /** The growth of the process. The first third of the run does not count, because the JVM is still warming up. */
    private static final class Growth {
        private static final long MEGABYTE = 1 << 20;
        /** Less than one byte for each of ten million calls, with room for gaps that malloc leaves between blocks. */
        static final long ALLOWED = 4 * MEGABYTE;

        private record Sample(long calls, ProcessSize size) {}

        private final List<Sample> samples = new ArrayList<>();
        private final int samplesOfRow;

        Growth(int samplesOfRow) {
            this.samplesOfRow = samplesOfRow;
            System.out.printf("%12s %14s %12s %8s%n", "calls", "resident KiB", "descriptors", "threads");
        }

        void add(long calls, ProcessSize size) {
            samples.add(new Sample(calls, size));
            if (samples.size() % samplesOfRow == 0) {
                System.out.printf("%,12d %,14d %12d %8d%n", calls, size.residentBytes() / 1024, size.descriptors(),
                    size.threads());
            }
        }

        void check() {
            List<Sample> judged = samples.subList(samples.size() / 3, samples.size());
            int third = Math.max(1, judged.size() / 3);
            double before = average(judged.subList(0, third));
            double after = average(judged.subList(judged.size() - third, judged.size()));
            // A short run ends while the JVM is still warming up.
            long allowed = (samples.size() < SAMPLES ? 3 : 1) * ALLOWED;
            System.out.printf("Resident: %.1f MiB in the second third, %.1f MiB in the last%n", before / MEGABYTE,
                after / MEGABYTE);
            assertTrue(after - before <= allowed, "the resident memory grows");
            assertTrue(judged.stream().mapToInt(sample -> sample.size().descriptors()).distinct().count() == 1,
                "the number of descriptors changes");
            // The JVM may end some of its own threads, so the number may fall.
            int threads = judged.get(0).size().threads();
            assertTrue(judged.stream().allMatch(sample -> sample.size().threads() <= threads),
                "the number of threads grows");
        }

        private static double average(List<Sample> part) {
            return part.stream().mapToLong(sample -> sample.size().residentBytes()).average().orElseThrow();
        }
    }
}
