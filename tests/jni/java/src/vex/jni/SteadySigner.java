package vex.jni;

import java.io.BufferedReader;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.Base64;
import java.util.concurrent.atomic.AtomicLong;

/**
 * A program that signs at a steady pace and verifies each signature. It answers each line of its input with its counts,
 * and ends with the input and a last answer.
 *
 * <p>It writes the real log of the machine. The test that starts it gives it a {@code /tmp} of its own.
 */
final class SteadySigner {
    private static final int PAUSE_MILLISECONDS = 5;

    private static final TAVClientJNI NATIVES = new TAVClientJNI();

    private final AtomicLong verified = new AtomicLong();
    private final AtomicLong failed = new AtomicLong();
    /** In microseconds, since the last answer. */
    private final AtomicLong longest = new AtomicLong();
    private final long handle;
    private final X509Certificate certificate;

    private SteadySigner(String store, X509Certificate certificate) {
        handle = NATIVES.Initialize(null, store);
        this.certificate = certificate;
    }

    /**
     * Ends with status 0 if each signature was good.
     *
     * @param args the store and the PEM file of its only certificate, which has an RSA key
     */
    public static void main(String[] args) throws Exception {
        X509Certificate certificate;
        try (InputStream pem = Files.newInputStream(Path.of(args[1]))) {
            certificate = (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(pem);
        }
        SteadySigner signer = new SteadySigner(args[0], certificate);
        Thread signing = new Thread(signer::sign);
        signing.setDaemon(true);
        signing.start();
        BufferedReader input = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.US_ASCII));
        while (input.readLine() != null) {
            signer.report();
        }
        signing.interrupt();
        signing.join();
        signer.report();
        System.exit(signer.failed.get() == 0 && NATIVES.Finalize(signer.handle) == 0 ? 0 : 1);
    }

    private void report() {
        System.out.println(verified + " " + failed + " " + longest.getAndSet(0) + " 0 0");
        System.out.flush();
    }

    private void sign() {
        try {
            for (long n = 0; !Thread.interrupted(); ++n) {
                String text = "text " + n;
                long begin = System.nanoTime();
                String signature = NATIVES.P1SignString(handle, text);
                long took = (System.nanoTime() - begin) / 1000;
                longest.accumulateAndGet(took, Math::max);
                byte[] bytes = text.getBytes(StandardCharsets.UTF_8);
                (signature != null && isGood(Base64.getDecoder().decode(signature), bytes) ? verified : failed)
                    .incrementAndGet();
                Thread.sleep(PAUSE_MILLISECONDS);
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        } catch (GeneralSecurityException | RuntimeException e) {
            e.printStackTrace();
            failed.incrementAndGet();
        }
    }

    private boolean isGood(byte[] signature, byte[] text) throws GeneralSecurityException {
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(certificate);
        verifier.update(text);
        return verifier.verify(signature);
    }
}
