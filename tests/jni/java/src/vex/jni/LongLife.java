package vex.jni;

import java.io.IOException;
import java.io.PrintStream;
import java.io.UncheckedIOException;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;

/**
 * A program that signs at a steady rate with PKCS #12 files and with a token, and writes a line about each period.
 * LongLife.py starts it and judges the lines.
 *
 * <p>Each signature has a time at which it is due. Its latency counts from there, so that a signature that had to wait
 * for the one before it counts with its wait.
 */
final class LongLife {
    private static final int THREADS = 4;
    /** Prime numbers, so that every kind of signature has its turn. */
    private static final int SIGNATURES_PER_CHECK = 41;
    private static final int SIGNATURES_PER_OBJECT = 1009;
    private static final int SIGNATURES_PER_VISIT = 400;
    private static final int MOST_FAILURES_SHOWN = 20;  // in each period
    private static final long LOOK_AT_LOG = TimeUnit.MILLISECONDS.toNanos(100);
    private static final double[] QUANTILES = {0.5, 0.99, 0.999};
    private static final Path LOG = Path.of(System.getenv("VEX_TEST_LOG_DIR"), "PILog.txt");
    private static final TAVClientJNI NATIVES = new TAVClientJNI();

    /** A kind of signature. */
    private enum Kind {
        FILE_P1(false, false, Client.EC),
        FILE_P7(false, true, Client.RSA),
        TOKEN_P1(true, false, Client.RSA),
        TOKEN_P7(true, true, Client.EC);

        final boolean token;
        final boolean p7;
        final String key;

        Kind(boolean token, boolean p7, String key) {
            this.token = token;
            this.p7 = p7;
            this.key = key;
        }
    }

    private static final Kind[] KINDS = Kind.values();

    private final Stores stores;
    private final long interval;  // between two signatures, in nanoseconds
    private final X509Certificate[] certificates = new X509Certificate[KINDS.length];
    private final AtomicLong next = new AtomicLong();
    private final AtomicLong signed = new AtomicLong();
    private final AtomicLong failed = new AtomicLong();
    private final AtomicLong verified = new AtomicLong();
    private final AtomicLong opened = new AtomicLong();
    private final Latencies file;
    private final Latencies token;
    private final Latencies late;
    private final ExecutorService verifier = Executors.newSingleThreadExecutor();
    private volatile boolean stop;
    private long start;

    /** The stores' URIs. The visited token is another one than that which is always in use. */
    private record Stores(String rsaFile, String ecFile, String token, String visitedToken) {
        String of(Kind kind) {
            return kind.token ? token : kind.key.equals(Client.RSA) ? rsaFile : ecFile;
        }
    }

    private LongLife(Stores stores, int rate, double secondsOfPeriod) {
        this.stores = stores;
        interval = TimeUnit.SECONDS.toNanos(1) / rate;
        int capacity = (int) (rate * secondsOfPeriod);
        file = new Latencies(capacity);
        token = new Latencies(capacity);
        late = new Latencies(2 * capacity);
    }

    /**
     * Runs until all periods are over or its standard input ends.
     *
     * @param args the table's file, the seconds of a period, the number of periods, the signatures in a second, and the
     *     URIs of the stores: RSA in a file, EC in a file, a token with both, and another token with both
     */
    public static void main(String[] args) throws Exception {
        double seconds = Double.parseDouble(args[1]);
        LongLife life = new LongLife(new Stores(args[4], args[5], args[6], args[7]), Integer.parseInt(args[3]), seconds);
        Thread main = Thread.currentThread();
        Thread input = new Thread(() -> {
            readToEnd();
            life.stop = true;
            LockSupport.unpark(main);
        });
        input.setDaemon(true);
        input.start();
        try (PrintStream table = new PrintStream(args[0], StandardCharsets.UTF_8)) {
            life.run(table, seconds, Long.parseLong(args[2]));
        } finally {
            life.stop = true;
        }
    }

    private static void readToEnd() {
        try {
            while (System.in.read() != -1) {
                continue;
            }
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    private void run(PrintStream table, double seconds, long periods) throws Exception {
        for (Kind kind : KINDS) {
            certificates[kind.ordinal()] = certificate(kind);
        }
        table.println(String.join("\t", "time", "seconds", "signed", "failed", "verified", "opened", "rss_kib",
            "malloc_kib", "heap_kib", "descriptors", "threads", "log_bytes", "log_cuts", "own_cpu", "other_cpu",
            "file_p50", "file_p99", "file_p99.9", "file_max", "token_p50", "token_p99", "token_p99.9", "token_max",
            "late_p50", "late_p99", "late_p99.9", "late_max"));
        start = System.nanoTime();
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < THREADS; ++i) {
            Thread thread = new Thread(this::sign, "signer " + i);
            thread.start();
            threads.add(thread);
        }
        Processors processors = new Processors();
        LogSize log = new LogSize(LOG);
        long begin = start;
        long visit = start;
        for (long period = 1; period <= periods && !stop; ++period) {
            long end = start + (long) (period * seconds * TimeUnit.SECONDS.toNanos(1));
            for (long now; !stop && (now = System.nanoTime()) < end;) {
                if (now >= visit) {
                    visit();
                    visit += SIGNATURES_PER_VISIT * interval;
                }
                log.look();
                LockSupport.parkNanos(Math.min(LOOK_AT_LOG, end - now));
            }
            stop |= period == periods;
            if (stop) {
                for (Thread thread : threads) {
                    thread.join();
                }
                verifier.shutdown();
                verifier.awaitTermination(1, TimeUnit.MINUTES);
            }
            long now = System.nanoTime();
            writeLine(table, (now - begin) / 1e9, log, processors.sinceLast());
            begin = now;
        }
    }

    private void writeLine(PrintStream table, double seconds, LogSize log, Processors.Use use) throws IOException {
        System.gc();
        long heap = ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getUsed();
        ProcessSize size = ProcessSize.untrimmed();
        StringBuilder line = new StringBuilder();
        line.append(Instant.now().truncatedTo(ChronoUnit.SECONDS)).append(String.format(Locale.ROOT, "\t%.3f", seconds));
        for (long number : new long[] {signed.getAndSet(0), failed.getAndSet(0), verified.getAndSet(0),
                opened.getAndSet(0), size.residentBytes() / 1024, MallocInUse.bytes() / 1024, heap / 1024,
                size.descriptors(), size.threads(), log.largest(), log.cuts()}) {
            line.append('\t').append(number);
        }
        line.append(String.format(Locale.ROOT, "\t%.3f\t%.3f", use.own(), use.others()));
        for (Latencies latencies : List.of(file, token, late)) {
            for (double value : latencies.take(QUANTILES)) {
                line.append(String.format(Locale.ROOT, "\t%.3f", value));
            }
        }
        table.println(line);
        table.flush();
    }

    private X509Certificate certificate(Kind kind) throws Exception {
        long handle = open(stores.of(kind), kind.key);
        try {
            String signature = require(NATIVES.P7SignString(handle, "who?", 1, 1), handle);
            return Signatures.certificateIn(Base64.getDecoder().decode(signature));
        } finally {
            close(handle);
        }
    }

    /** Signs what is due next, until the run ends. Each thread has objects of its own. */
    private void sign() {
        try {
            long[] handles = new long[KINDS.length];
            for (Kind kind : KINDS) {
                handles[kind.ordinal()] = open(stores.of(kind), kind.key);
            }
            while (!stop) {
                long number = next.getAndIncrement();
                long due = start + number * interval;
                for (long wait; (wait = due - System.nanoTime()) > 0;) {
                    LockSupport.parkNanos(wait);
                }
                Kind kind = KINDS[(int) (number % KINDS.length)];
                late.add(System.nanoTime() - due);
                sign(kind, handles[kind.ordinal()], number, due);
                if (number % SIGNATURES_PER_OBJECT == 0) {
                    close(handles[kind.ordinal()]);
                    handles[kind.ordinal()] = open(stores.of(kind), kind.key);
                }
            }
            for (long handle : handles) {
                close(handle);
            }
        } catch (RuntimeException e) {
            fail(e);
        }
    }

    private void sign(Kind kind, long handle, long number, long due) {
        String text = "Document " + number + ", 漢字😀";
        String signature = switch (kind) {
            case FILE_P1 -> NATIVES.P1SignString(handle, text);
            case FILE_P7 -> NATIVES.P7SignString(handle, text, 1, 1);
            case TOKEN_P1 -> NATIVES.P1Sign(handle, base64(text));
            case TOKEN_P7 -> NATIVES.P7Sign(handle, base64(text), 0, 1);
        };
        (kind.token ? token : file).add(System.nanoTime() - due);
        signed.incrementAndGet();
        if (signature == null) {
            fail(reason(handle));
        } else if (number % SIGNATURES_PER_CHECK == 0) {
            verifier.execute(() -> verify(kind, text, signature));
        }
    }

    private static String base64(String text) {
        return Base64.getEncoder().encodeToString(text.getBytes(StandardCharsets.UTF_8));
    }

    private void verify(Kind kind, String text, String signature) {
        try {
            X509Certificate certificate = certificates[kind.ordinal()];
            byte[] content = text.getBytes(StandardCharsets.UTF_8);
            if (kind.p7) {
                Signatures.assertP7(signature, content, kind == Kind.FILE_P7, true, certificate,
                    Signatures.SHA256_OID);
            } else if (!Signatures.isP1Good(signature, content, certificate, "SHA256")) {
                throw new AssertionError("The signature is wrong");
            }
            verified.incrementAndGet();
        } catch (Exception | AssertionError e) {
            fail(e);
        }
    }

    /** Opens stores that nobody else uses and so ends their use: a file that is new each time, and a token's login. */
    private void visit() {
        try {
            visitStores();
        } catch (IOException | RuntimeException e) {
            fail(e);
        }
    }

    private void visitStores() throws IOException {
        Path original = Path.of(stores.rsaFile.replaceFirst("^file:([^?]*).*", "$1"));
        Path copy = Files.copy(original, Files.createTempDirectory("visited").resolve("copy.p12"));
        for (String store : List.of(stores.rsaFile.replace(original.toString(), copy.toString()),
                stores.visitedToken)) {
            long handle = open(store, Client.RSA);
            if (NATIVES.P1SignString(handle, "a visit") == null || NATIVES.GetCertList(handle) == null) {
                fail(reason(handle));
            }
            if (NATIVES.P1Sign(handle, "not Base64") != null) {
                fail("signed what is not Base64");
            }
            close(handle);
        }
        Files.delete(copy);
        Files.delete(copy.getParent());
    }

    private long open(String store, String key) {
        long handle = NATIVES.Initialize(null, store);
        if (handle == 0 || NATIVES.AddFilter(handle, TAVClientJNI.FILTER_KEY_ALGORITHM, key) != 0) {
            throw new IllegalStateException(store + " cannot be opened: " + reason(handle));
        }
        opened.incrementAndGet();
        return handle;
    }

    private void close(long handle) {
        if (NATIVES.Finalize(handle) != 0) {
            fail("Finalize: " + reason(handle));
        }
    }

    private static String require(String signature, long handle) {
        if (signature == null) {
            throw new IllegalStateException(reason(handle));
        }
        return signature;
    }

    private static String reason(long handle) {
        return NATIVES.GetLastError(handle) + " " + NATIVES.GetLastErrorMessage(handle);
    }

    private void fail(Object reason) {
        if (failed.incrementAndGet() <= MOST_FAILURES_SHOWN) {
            System.err.println(Instant.now() + " " + reason);
        }
    }

    /** Watches the log's file. */
    private static final class LogSize {
        private final Path log;
        private long last;
        private long largest;
        private long cuts;

        LogSize(Path log) {
            this.log = log;
        }

        void look() {
            long size = log.toFile().length();
            cuts += size < last ? 1 : 0;
            last = size;
            largest = Math.max(largest, size);
        }

        /** The largest size since the last call, in bytes. */
        long largest() {
            long taken = largest;
            largest = 0;
            return taken;
        }

        /** The number of times since the last call that the file became smaller. */
        long cuts() {
            long taken = cuts;
            cuts = 0;
            return taken;
        }
    }
}
