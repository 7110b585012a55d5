package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.security.cert.X509Certificate;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** Sixteen threads at once: each gets its own signatures and errors. */
@Tag("natives")
class ThreadsTest {
    private static final int THREADS = 16;
    /** Fewer in a checking JVM, where every call is slow. */
    private static final int TEXTS = Integer.getInteger("vex.test.texts", 2000);
    private static final int P7_EVERY = 50;
    private static final int ERROR_EVERY = 20;

    @Test
    void signsWithOneHandleInAllThreads() throws Exception {
        try (Client client = Client.openDemo(Client.EC)) {
            X509Certificate certificate = Signatures.signerOf(client);
            Together.run(THREADS, thread -> signTexts(client, certificate, thread));
        }
    }

    @Test
    void signsWithOneHandleInEachThread() throws Exception {
        Together.run(THREADS, thread -> {
            try (Client client = Client.openDemo(thread % 8 == 0 ? Client.RSA : Client.EC)) {
                signTexts(client, Signatures.signerOf(client), thread);
            }
        });
    }

    @Test
    void sharesSettingsAmongTheThreadsOfAHandle() throws Exception {
        try (Client client = Client.openDemo(Client.EC)) {
            X509Certificate certificate = Signatures.signerOf(client);
            ExecutorService other = Executors.newSingleThreadExecutor();
            try {
                other.submit(() -> client.setDigest("SHA512")).get();
            } finally {
                other.shutdown();
            }
            byte[] bytes = "text".getBytes(StandardCharsets.UTF_8);
            String p1 = client.require(client.p1SignString("text"));
            assertTrue(Signatures.isP1Good(p1, bytes, certificate, "SHA512"));
        }
    }

    private static void signTexts(Client client, X509Certificate certificate, int thread) throws Exception {
        for (int i = 0; i < TEXTS; ++i) {
            String text = "thread " + thread + ", text " + i + " 漢字😀";
            byte[] bytes = text.getBytes(StandardCharsets.UTF_8);
            String p1 = client.require(client.p1SignString(text));
            assertEquals(VCTKError.OK, client.lastError(), text);
            assertTrue(Signatures.isP1Good(p1, bytes, certificate, "SHA256"), text);
            if (i % P7_EVERY == thread) {
                String p7 = client.require(client.p7SignString(text, true, false));
                Signatures.assertP7(p7, bytes, true, false, certificate, Signatures.SHA256_OID);
            }
            if (i % ERROR_EVERY == thread) {
                failInOwnWay(client, thread);
            }
        }
    }

    /** Each third of the threads has its own error, so that an error of another thread would be noticed. */
    private static void failInOwnWay(Client client, int thread) {
        switch (thread % 3) {
            case 0 -> {
                assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), "MD5"));
                assertEquals(VCTKError.DIGEST_WEAK, client.lastError());
            }
            case 1 -> {
                assertEquals(1, Client.NATIVES.AddFilter(client.handle(), 99, "value"));
                assertEquals(VCTKError.FILTER_TYPE, client.lastError());
            }
            default -> {
                assertEquals(null, client.p1Sign("not Base64"));
                assertEquals(VCTKError.DATA_BASE64, client.lastError());
            }
        }
    }
}
