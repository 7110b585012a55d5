package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.ref.WeakReference;
import java.nio.file.Path;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Security;
import java.security.Signature;
import java.security.SignatureException;
import java.security.UnrecoverableKeyException;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import javax.security.auth.Destroyable;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Garbage;
import vex.jni.TAVClientJNI;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** Destroying a key, closing a KeyStore, and the logout of the provider. */
@Tag("client")
class KeyStoreEndTest {
    private static final List<String> KEYS = List.of("RSA", "EC", "Ed25519");
    private static final String CLOSED = "The KeyStore is closed; load it again";
    private static final String LOGGED_OUT = "The provider VexClient was logged out; load the KeyStore again";

    @TempDir
    private static Path directory;

    private static Path file;

    private final SigningProvider provider = new SigningProvider();
    private KeyStore store;

    @BeforeAll
    static void writeStore() throws Exception {
        file = directory.resolve("keys.pem");
        TestStore.writePem(file, List.of(TestStore.identity("RSA", "CN=RSA", 1, 30, 0),
            TestStore.identity("secp256r1", "CN=EC", 2, 30, 0), TestStore.identity("Ed25519", "CN=Ed25519", 3, 30, 0)));
    }

    @BeforeEach
    void load() throws Exception {
        store = load(provider);
    }

    private static KeyStore load(SigningProvider from) throws Exception {
        KeyStore loaded = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, from);
        loaded.load(StoreParameter.file(file));
        return loaded;
    }

    private static PrivateKey key(KeyStore from, String name) throws Exception {
        String algorithm = name.equals("Ed25519") ? "EdDSA" : name;
        for (String alias : Collections.list(from.aliases())) {
            if (from.getCertificate(alias).getPublicKey().getAlgorithm().equals(algorithm)) {
                return (PrivateKey) from.getKey(alias, null);
            }
        }
        throw new AssertionError(name);
    }

    private static String algorithm(String name) {
        return name.equals("Ed25519") ? name : "SHA256with" + (name.equals("EC") ? "ECDSA" : name);
    }

    private Signature begin(PrivateKey key, String name) throws Exception {
        Signature signature = Signature.getInstance(algorithm(name), provider);
        signature.initSign(key);
        signature.update((byte) 1);
        return signature;
    }

    private void assertSigns(PrivateKey key, String name) throws Exception {
        assertTrue(begin(key, name).sign().length > 0);
    }

    /** Neither a new Signature nor one that has begun signs with the key. */
    private void assertEnded(String message, PrivateKey key, String name, Signature begun) throws Exception {
        InvalidKeyException invalid = assertThrows(InvalidKeyException.class, () -> begin(key, name));
        assertEquals(message, invalid.getMessage());
        SignatureException failed = assertThrows(SignatureException.class, begun::sign);
        assertEquals(message, failed.getMessage());
    }

    /** Java keeps the message of the first provider that refuses the key. */
    @ParameterizedTest
    @CsvSource({"RSA," + CLOSED, "EC," + CLOSED, "Ed25519,No private key value"})
    void javaSaysWhatHasEndedIfNoProviderIsNamed(String name, String message) throws Exception {
        PrivateKey key = key(store, name);
        SigningProvider.close(store);
        Security.addProvider(provider);
        try {
            Signature signature = Signature.getInstance(algorithm(name));
            assertEquals(message, assertThrows(InvalidKeyException.class, () -> signature.initSign(key)).getMessage());
        } finally {
            Security.removeProvider(SigningProvider.NAME);
        }
    }

    // ---- Keys ----

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC", "Ed25519"})
    void aDestroyedKeyDoesNotSignAndOthersDo(String name) throws Exception {
        PrivateKey key = key(store, name);
        PrivateKey same = key(store, name);
        Signature begun = begin(key, name);
        assertFalse(key.isDestroyed());
        String description = key.toString();
        for (int round = 0; round < 2; ++round) {
            key.destroy();
            assertTrue(((Destroyable) key).isDestroyed());
            assertEnded("The " + description + ", was destroyed; get another one from the KeyStore", key, name, begun);
        }
        assertEquals(description, key.toString());
        assertFalse(same.isDestroyed());
        assertSigns(same, name);
        for (String other : KEYS) {
            assertSigns(key(store, other), other);
        }
    }

    @Test
    void aDestroyedKeyCannotBeginAgainWithParameters() throws Exception {
        PrivateKey key = key(store, "RSA");
        Signature pss = Signature.getInstance("RSASSA-PSS", provider);
        pss.initSign(key);
        key.destroy();
        InvalidAlgorithmParameterException e = assertThrows(InvalidAlgorithmParameterException.class,
            () -> pss.setParameter(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, 32, 1)));
        assertTrue(e.getMessage().contains("was destroyed"), e.getMessage());
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "EC", "Ed25519"})
    void keysOfOneCertificateAreEqual(String name) throws Exception {
        PrivateKey key = key(store, name);
        PrivateKey same = key(load(new SigningProvider()), name);
        assertEquals(key, same);
        assertEquals(same, key);
        assertEquals(key.hashCode(), same.hashCode());
        same.destroy();
        assertEquals(key, same);
        Set<PrivateKey> keys = new HashSet<>(List.of(same));
        for (String other : KEYS) {
            keys.add(key(store, other));
        }
        assertEquals(KEYS.size(), keys.size());
        assertNotEquals(key, new Object());
        assertNotEquals(null, key);
    }

    @ParameterizedTest
    @ValueSource(strings = {"RSA", "Ed25519"})
    void aDestroyedKeyDoesNotKeepTheStoreOpen(String name) throws Exception {
        PrivateKey key = key(store, name);
        WeakReference<StoreSession> session = new WeakReference<>(SigningKey.from(key).openStore().session());
        store = null;
        System.gc();
        assertNotNull(session.get());
        assertSigns(key, name);
        key.destroy();
        Garbage.awaitCollection(() -> session.get() == null);
        assertTrue(key.isDestroyed());
    }

    // ---- A KeyStore ----

    private interface End {
        void of(SigningProvider provider, KeyStore store) throws Exception;
    }

    private void assertEnds(End end, String message) throws Exception {
        List<String> aliases = Collections.list(store.aliases());
        StoreSession session = SigningKey.from(key(store, "EC")).openStore().session();
        List<PrivateKey> keys = List.of(key(store, "RSA"), key(store, "EC"), key(store, "Ed25519"));
        List<Signature> begun =
            List.of(begin(keys.get(0), "RSA"), begin(keys.get(1), "EC"), begin(keys.get(2), "Ed25519"));
        List<Handle> handles = session.session.pool().handles();
        end.of(provider, store);
        assertFalse(handles.isEmpty());
        for (Handle handle : handles) {
            assertEquals(VCTKError.INVALID_HANDLE, new TAVClientJNI().GetLastError(handle.number));
        }
        for (int i = 0; i < KEYS.size(); ++i) {
            assertEnded(message, keys.get(i), KEYS.get(i), begun.get(i));
            assertFalse(keys.get(i).isDestroyed());
        }
        assertEquals(aliases, Collections.list(store.aliases()));
        for (String alias : aliases) {
            assertNotNull(store.getCertificate(alias));
            UnrecoverableKeyException e =
                assertThrows(UnrecoverableKeyException.class, () -> store.getKey(alias, null));
            assertEquals(message, e.getMessage());
            assertThrows(UnrecoverableKeyException.class, () -> store.getEntry(alias, null));
        }
        end.of(provider, store);  // once more changes nothing

        store.load(StoreParameter.file(file));
        for (String name : KEYS) {
            assertSigns(key(store, name), name);
        }
        assertThrows(InvalidKeyException.class, () -> begin(keys.get(0), "RSA"));
    }

    @Test
    void aClosedKeyStoreSignsNoMore() throws Exception {
        KeyStore other = load(provider);
        assertEnds((from, keyStore) -> SigningProvider.close(keyStore), CLOSED);
        assertSigns(key(other, "EC"), "EC");
    }

    @Test
    void logoutClosesEveryKeyStoreOfTheProvider() throws Exception {
        KeyStore second = load(provider);
        PrivateKey ofSecond = key(second, "EC");
        KeyStore ofAnother = load(new SigningProvider());
        assertEnds((from, keyStore) -> from.logout(), LOGGED_OUT);
        InvalidKeyException e = assertThrows(InvalidKeyException.class, () -> begin(ofSecond, "EC"));
        assertEquals(LOGGED_OUT, e.getMessage());
        assertSigns(key(ofAnother, "EC"), "EC");
    }

    @Test
    void closeEndsTheKeysOfEarlierLoadsToo() throws Exception {
        PrivateKey earlier = key(store, "EC");
        store.load(StoreParameter.file(file));
        assertSigns(earlier, "EC");
        SigningProvider.close(store);
        assertEquals(CLOSED, assertThrows(InvalidKeyException.class, () -> begin(earlier, "EC")).getMessage());
    }

    @Test
    void closeTakesAnyKeyStoreOfTheProviderAndNoOther() throws Exception {
        KeyStore never = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, provider);
        SigningProvider.close(never);
        assertEquals(0, never.size());
        KeyStore foreign = KeyStore.getInstance("PKCS12");
        foreign.load(null, null);
        IllegalArgumentException e =
            assertThrows(IllegalArgumentException.class, () -> SigningProvider.close(foreign));
        assertTrue(e.getMessage().contains(foreign.getProvider().getName()), e.getMessage());
        assertEquals("keyStore",
            assertThrows(NullPointerException.class, () -> SigningProvider.close(null)).getMessage());
    }

    /** Other providers that would take any key must not hide the reason. */
    @Test
    void aSignatureWithoutANamedProviderTellsTheReasonToo() throws Exception {
        PrivateKey key = key(store, "RSA");
        SigningProvider.close(store);
        Security.addProvider(provider);
        Security.addProvider(new BouncyCastleProvider());
        try {
            Signature signature = Signature.getInstance("SHA256withRSA");
            InvalidKeyException e = assertThrows(InvalidKeyException.class, () -> signature.initSign(key));
            assertEquals(CLOSED, e.getMessage());
        } finally {
            Security.removeProvider(SigningProvider.NAME);
            Security.removeProvider(BouncyCastleProvider.PROVIDER_NAME);
        }
    }

    @Test
    void signaturesInProgressEndInOrder() throws Exception {
        int threads = 8;
        for (int round = 0; round < 20; ++round) {
            load();
            ExecutorService executor = Executors.newFixedThreadPool(threads);
            CountDownLatch signing = new CountDownLatch(threads);
            List<Future<?>> results = new ArrayList<>();
            for (int i = 0; i < threads; ++i) {
                String name = i % 2 == 0 ? "EC" : "Ed25519";
                PrivateKey key = key(store, name);
                results.add(executor.submit(() -> {
                    signing.countDown();
                    while (true) {
                        try {
                            assertSigns(key, name);
                        } catch (InvalidKeyException | SignatureException e) {
                            assertInstanceOf(IllegalStateException.class, e.getCause(), e.toString());
                            assertEquals(LOGGED_OUT, e.getMessage());
                            return null;
                        }
                    }
                }));
            }
            signing.await();
            provider.logout();
            executor.shutdown();
            for (Future<?> result : results) {
                result.get();
            }
        }
    }

    @Test
    void aForgottenKeyStoreIsClosed() throws Exception {
        WeakReference<StoreSession> session =
            new WeakReference<>(SigningKey.from(key(store, "EC")).openStore().session());
        store = null;
        Garbage.awaitCollection(() -> session.get() == null);
        provider.logout();
    }
}
