package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.Set;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Signatures;
import vex.jni.TestStore;
import vex.jni.Together;
import vex.jni.VCTKError;

/** Many threads sign with one client and with one KeyStore at once. */
@Tag("client")
class ParallelTest {
    private static final int THREADS = 16;
    private static final int ROUNDS = 25;
    private static final String SHA512_OID = "2.16.840.1.101.3.4.2.3";

    @TempDir
    private static Path directory;

    private static boolean isGood(String algorithm, X509Certificate certificate, byte[] data, byte[] signature)
            throws Exception {
        Signature verifier = Signature.getInstance(algorithm);
        verifier.initVerify(certificate);
        verifier.update(data);
        return verifier.verify(signature);
    }

    @Test
    void eachKeyOfAKeyStoreSignsItsOwnData() throws Exception {
        List<TestStore.Identity> identities = new ArrayList<>();
        for (int i = 0; i < 3; ++i) {
            identities.add(TestStore.identity("RSA", "CN=RSA " + i, 2 * i + 1, 30, 0));
            identities.add(TestStore.identity("secp256r1", "CN=EC " + i, 2 * i + 2, 30, 0));
        }
        Path file = directory.resolve("keys.pem");
        TestStore.writePem(file, identities);
        Provider provider = new SigningProvider();
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, provider);
        store.load(StoreParameter.file(file));
        List<String> aliases = Collections.list(store.aliases());
        assertEquals(identities.size(), aliases.size());
        String[] digests = {"SHA256", "SHA512"};
        Together.run(THREADS, thread -> {
            for (int round = 0; round < ROUNDS; ++round) {
                String alias = aliases.get((thread + round) % aliases.size());
                PrivateKey key = (PrivateKey) store.getKey(alias, null);
                String algorithm = digests[round % 2] + "with" + (key.getAlgorithm().equals("EC") ? "ECDSA" : "RSA");
                byte[] data = ("thread " + thread + ", round " + round).getBytes(StandardCharsets.US_ASCII);
                Signature signature = Signature.getInstance(algorithm, provider);
                signature.initSign(key);
                signature.update(data);
                assertTrue(isGood(algorithm, (X509Certificate) store.getCertificate(alias), data, signature.sign()));
            }
        });
    }

    @Test
    void eachCallOfAClientSignsItsOwnData() throws Exception {
        TestStore.Identity signer = TestStore.identity("RSA", "CN=Signer", 1, 60, 0);
        Path file = directory.resolve("client.pem");
        TestStore.writePem(file,
            List.of(TestStore.identity("secp256r1", "CN=Other", 2, 90, 0), signer));
        try (SigningClient client =
                SigningClient.file(file).keyAlgorithm(KeyAlgorithm.RSA).digest(Digest.SHA_512).open()) {
            Together.run(THREADS, thread -> {
                for (int round = 0; round < ROUNDS; ++round) {
                    signAndVerify(client, signer.certificate(), thread, round);
                }
            });
            assertTrue(client.session.pool().handles().size() <= Runtime.getRuntime().availableProcessors());
        }
    }

    private static void signAndVerify(SigningClient client, X509Certificate signer, int thread, int round)
            throws Exception {
        String text = "thread " + thread + ", round " + round;
        byte[] data = text.getBytes(StandardCharsets.US_ASCII);
        switch ((thread + round) % 4) {
            case 0 -> assertTrue(isGood("SHA512withRSA", signer, data, client.signRaw(text)));
            case 1 -> assertTrue(isGood("SHA512withRSA", signer, data,
                client.signDigest(MessageDigest.getInstance("SHA-512").digest(data))));
            case 2 -> assertCms(client.signCmsAttached(data), data, false, signer);
            default -> {
                Path file = Files.write(directory.resolve(thread + ".txt"), data);
                assertCms(client.signCmsDetached(file), data, true, signer);
            }
        }
    }

    private static void assertCms(byte[] cms, byte[] data, boolean detached, X509Certificate signer) throws Exception {
        Signatures.assertP7(Base64.getEncoder().encodeToString(cms), data, detached, true, signer,
            SHA512_OID);
    }

    /** Each toolkit gives the same signatures. One that does not share stores has one handle for all threads. */
    @ParameterizedTest
    @ValueSource(strings = {"handle:", "errors= list=", "handle: errors= list= chain="})
    void threadsSignWithToolkitsThatKnowLess(String without) throws Exception {
        Path file = directory.resolve("one.pem");
        TestStore.writePem(file, List.of(TestStore.identity("secp256r1", "CN=EC", 1, 30, 0)));
        List<String> printed = ReducedToolkit.run(WithoutSharing.class, Map.of("VEX_TEST_WITHOUT", without),
            file.toString()).output().lines().toList();
        if (without.contains("handle:")) {
            assertEquals("one handle", printed.get(0));
        } else {
            assertTrue(Set.of("one handle", "handles").contains(printed.get(0)), printed.get(0));
        }
        String message = VCTKError.message(VCTKError.STORE_NOT_FOUND);
        assertTrue(without.contains("errors=") ? printed.get(1).equals(message) : printed.get(1).startsWith(message),
            printed.get(1));
    }
}
