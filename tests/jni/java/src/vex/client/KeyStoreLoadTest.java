package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.UnrecoverableKeyException;
import java.security.cert.CertificateException;
import java.security.spec.ECGenParameterSpec;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HexFormat;
import java.util.List;
import java.util.logging.Handler;
import java.util.logging.LogRecord;
import java.util.logging.Logger;
import java.util.stream.Collectors;
import org.bouncycastle.asn1.ASN1GeneralizedTime;
import org.bouncycastle.asn1.x500.RDN;
import org.bouncycastle.asn1.x500.X500Name;
import org.bouncycastle.asn1.x509.SubjectPublicKeyInfo;
import org.bouncycastle.asn1.x509.Time;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cert.X509v3CertificateBuilder;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Run;
import vex.jni.Signatures;
import vex.jni.TestStore;

/** Loading a KeyStore: what makes it fail, what does not, and how the reason is reported. */
@Tag("client")
class KeyStoreLoadTest {
    private static final String LATER = "20991231235959Z";

    @TempDir
    private Path directory;

    private static KeyStore newStore() throws Exception {
        return KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider());
    }

    private static KeyStore load(String store) throws Exception {
        KeyStore keyStore = newStore();
        keyStore.load(StoreParameter.store(store, null));
        return keyStore;
    }

    // ---- Unusual certificates ----

    /** Certificates that the toolkit signs with, and whether Java can read them. */
    private enum Odd {
        NEGATIVE_SERIAL(true),
        FROM_THE_YEAR_950(true),
        WITHOUT_ISSUER(false);

        final boolean readable;

        Odd(boolean readable) {
            this.readable = readable;
        }
    }

    /** A certificate and its key. */
    private record OddIdentity(PrivateKey key, X509CertificateHolder certificate) {
        String pem() {
            return TestStore.pem("PRIVATE KEY", key.getEncoded()) + TestStore.pem("CERTIFICATE", encoded());
        }

        String alias() throws Exception {
            return HexFormat.of().withUpperCase().formatHex(MessageDigest.getInstance("SHA-256").digest(encoded()));
        }

        private byte[] encoded() {
            try {
                return certificate.getEncoded();
            } catch (IOException e) {
                throw new UncheckedIOException(e);
            }
        }
    }

    private static OddIdentity odd(Odd kind) throws Exception {
        KeyPairGenerator generator = KeyPairGenerator.getInstance("EC");
        generator.initialize(new ECGenParameterSpec("secp256r1"));
        return odd(kind, generator.generateKeyPair());
    }

    private static OddIdentity odd(Odd kind, KeyPair pair) throws Exception {
        SubjectPublicKeyInfo key = SubjectPublicKeyInfo.getInstance(pair.getPublic().getEncoded());
        String begin = kind == Odd.FROM_THE_YEAR_950 ? "09500101000000Z" : "20200101000000Z";
        X509CertificateHolder certificate = new X509v3CertificateBuilder(
            kind == Odd.WITHOUT_ISSUER ? new X500Name(new RDN[0]) : new X500Name("CN=issuer"),
            BigInteger.valueOf(kind == Odd.NEGATIVE_SERIAL ? -31 : 31),
            new Time(new ASN1GeneralizedTime(begin)), new Time(new ASN1GeneralizedTime(LATER)),
            new X500Name("CN=" + kind), key)
            .build(new JcaContentSignerBuilder(Signatures.jdkName("SHA256", pair.getPrivate().getAlgorithm()))
                .build(pair.getPrivate()));
        return new OddIdentity(pair.getPrivate(), certificate);
    }

    private String write(List<OddIdentity> identities) throws Exception {
        Path file = directory.resolve("keys.pem");
        Files.writeString(file, identities.stream().map(OddIdentity::pem).collect(Collectors.joining()));
        return "file:" + file;
    }

    private static List<LogRecord> record(Logger logger, AutoCloseable action) throws Exception {
        List<LogRecord> records = new ArrayList<>();
        Handler handler = new Handler() {
            @Override
            public void publish(LogRecord record) {
                records.add(record);
            }

            @Override
            public void flush() {}

            @Override
            public void close() {}
        };
        logger.addHandler(handler);
        logger.setUseParentHandlers(false);
        try {
            action.close();
        } finally {
            logger.removeHandler(handler);
            logger.setUseParentHandlers(true);
        }
        return records;
    }

    @Test
    void passesOverWhatJavaCannotReadAndTellsTheReason() throws Exception {
        List<OddIdentity> identities = new ArrayList<>();
        for (Odd kind : Odd.values()) {
            identities.add(odd(kind));
        }
        String uri = write(identities);
        try (SigningClient client = SigningClient.store(uri).open()) {
            assertEquals(identities.size(), client.certificates().size());
        }

        KeyStore store = newStore();
        List<LogRecord> records = record(Logger.getLogger("vex.client.SigningKeyStore"),
            () -> store.load(StoreParameter.store(uri, null)));
        List<String> expected = new ArrayList<>();
        for (Odd kind : Odd.values()) {
            String alias = identities.get(kind.ordinal()).alias();
            if (kind.readable) {
                expected.add(alias);
                assertNotNull(store.getKey(alias, null));
                continue;
            }
            assertFalse(store.containsAlias(alias));
            for (UnrecoverableKeyException e : List.of(
                    assertThrows(UnrecoverableKeyException.class, () -> store.getKey(alias, null)),
                    assertThrows(UnrecoverableKeyException.class, () -> store.getEntry(alias, null)))) {
                assertInstanceOf(CertificateException.class, e.getCause());
                assertTrue(e.getMessage().startsWith("Java cannot read the certificate "), e.getMessage());
            }
            assertTrue(records.stream().anyMatch(record -> record.getMessage().startsWith(
                "The key of the certificate " + alias + " is passed over: Java cannot read the certificate ")));
        }
        List<String> aliases = Collections.list(store.aliases());
        Collections.sort(aliases);
        Collections.sort(expected);
        assertEquals(expected, aliases);
        assertEquals(Odd.values().length - expected.size(), records.size());
    }

    @ParameterizedTest
    @EnumSource
    void loadsAStoreWithOneOddCertificateOrTellsTheReason(Odd kind) throws Exception {
        String uri = write(List.of(odd(kind)));
        if (kind.readable) {
            assertEquals(1, load(uri).size());
            return;
        }
        IOException e = assertThrows(IOException.class, () -> load(uri));
        assertTrue(e.getMessage().startsWith("None of the store's keys can be used: Java cannot read the certificate "),
            e.getMessage());
        assertInstanceOf(CertificateException.class, e.getCause());
    }

    @Test
    void aShortKeyHasNoAlias() throws Exception {
        KeyPairGenerator generator = KeyPairGenerator.getInstance("RSA");
        generator.initialize(1024);
        OddIdentity good = odd(Odd.NEGATIVE_SERIAL);
        KeyStore store = load(write(List.of(odd(Odd.NEGATIVE_SERIAL, generator.generateKeyPair()), good)));
        assertEquals(List.of(good.alias()), Collections.list(store.aliases()));
    }

    @Test
    void theNameOfAPassedOverKeyTellsTheReason() throws Exception {
        OddIdentity odd = odd(Odd.WITHOUT_ISSUER);
        OddIdentity shared = odd(Odd.WITHOUT_ISSUER);  // valid longer than the good one
        TestStore.Identity good = TestStore.identity("secp256r1", "CN=good", 1, 30, 0);
        Path file = directory.resolve("keys.p12");
        TestStore.writeNamed(file, List.of(new TestStore.Named("odd", odd.key(), odd.certificate()),
            new TestStore.Named("shared", shared.key(), shared.certificate()), TestStore.Named.of("Shared", good)));
        KeyStore store = newStore();
        store.load(StoreParameter.file(file, new KeyStore.PasswordProtection(TestStore.PIN.toCharArray())));

        assertEquals(List.of("Shared"), Collections.list(store.aliases()));
        assertEquals(good.certificate(), store.getCertificate("shared"), "a key that can be used comes first");
        assertFalse(store.containsAlias("odd"));
        for (String alias : List.of("odd", "ODD", odd.alias(), shared.alias())) {
            UnrecoverableKeyException e =
                assertThrows(UnrecoverableKeyException.class, () -> store.getKey(alias, null), alias);
            assertInstanceOf(CertificateException.class, e.getCause());
        }
        assertNull(store.getKey("other", null));
    }

    @Test
    void aConfiguredNameGoesOnToWorkWhenTheCertificateIsRenewed() throws Exception {
        Path file = directory.resolve("keys.p12");
        KeyStore store = newStore();
        List<TestStore.Named> entries = new ArrayList<>();
        for (int renewal = 0; renewal < 3; ++renewal) {
            TestStore.Identity newest = TestStore.identity("secp256r1", "CN=Signer", renewal + 1, 30 + renewal, 0);
            entries.add(renewal % 2, TestStore.Named.of("signer", newest));
            TestStore.writeNamed(file, entries);
            store.load(StoreParameter.file(file, new KeyStore.PasswordProtection(TestStore.PIN.toCharArray())));
            assertEquals(newest.certificate(), store.getCertificate("signer"));
            assertNotNull(store.getKey("signer", null));
            assertEquals(entries.size(), store.size());
            String alias = store.getCertificateAlias(newest.certificate());
            assertEquals(renewal == 0 ? "signer" : Certificates.fingerprint(newest.certificate()), alias);
            assertTrue(Collections.list(store.aliases()).contains(alias));
        }
    }

    /** A Java runtime may have no java.util.logging. */
    @Test
    void passesOverAKeyWithoutTheLoggingModule() throws Exception {
        // An RSA key, because older runtimes have EC keys in another module.
        TestStore.writePem(directory.resolve("keys.pem"), List.of(TestStore.identity("RSA", "CN=RSA", 1, 30, 0)));
        String uri = "file:" + Files.writeString(directory.resolve("keys.pem"), odd(Odd.WITHOUT_ISSUER).pem(),
            StandardOpenOption.APPEND);
        String jars = System.getProperty("vex.test.jar") + ":"
            + Path.of(KeyStoreLoadTest.class.getProtectionDomain().getCodeSource().getLocation().toURI());
        Run run = Run.of(new ProcessBuilder(Run.jdkProgram("java"),
            "--enable-native-access=ALL-UNNAMED", "--limit-modules", "java.base",
            "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp", jars, CountKeys.class.getName(), uri));
        assertEquals("false 1\n", run.output(), run.errors());
        assertEquals(0, run.status(), run.errors());
    }

    /** Prints whether the module for logging exists, and the number of keys in a store. */
    static final class CountKeys {
        public static void main(String[] args) throws Exception {
            KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider());
            store.load(StoreParameter.store(args[0], null));
            System.out.println(ModuleLayer.boot().findModule("java.logging").isPresent() + " " + store.size());
        }
    }

    // ---- The PIN, and the file ----

    @ParameterizedTest
    @ValueSource(strings = {"", "?pin-value=wrong-4711"})
    void throwsThePromisedCausesForAWrongOrMissingPin(String query) throws Exception {
        Path file = directory.resolve("keys.p12");
        TestStore.writePkcs12(file, List.of(TestStore.identity("secp256r1", "CN=EC", 2, 30, 0)));
        IOException e = assertThrows(IOException.class, () -> load("file:" + file + query));
        assertInstanceOf(UnrecoverableKeyException.class, e.getCause());
        SigningException reason = assertInstanceOf(SigningException.class, e.getCause().getCause());
        assertEquals(query.isEmpty() ? 1107 : 1108, reason.number());
        for (Throwable cause = e; cause != null; cause = cause.getCause()) {
            assertFalse(cause.toString().contains("4711"), cause.toString());
        }
    }

    @Test
    void opensAFileWithoutPin() throws Exception {
        write(List.of(odd(Odd.NEGATIVE_SERIAL)));
        KeyStore store = newStore();
        store.load(StoreParameter.file(directory.resolve("keys.pem")));
        assertEquals(1, store.size());
    }

    // ---- A URI in a stream ----

    @ParameterizedTest
    @ValueSource(strings = {"pkcs11:?module-path=/tmp/evil.so", "pkcs11:token=T?pin-value=1&module-path=/tmp/evil.so",
        "PKCS11:token=T?Module-Path=%2ftmp%2fevil.so", "pkcs11:token=T;module-path=/tmp/evil.so"})
    void refusesAUriFromAStreamThatNamesCode(String uri) {
        IOException e = assertThrows(IOException.class, () -> newStore().load(
            new ByteArrayInputStream(uri.getBytes(StandardCharsets.UTF_8)), null));
        assertTrue(e.getMessage().contains("module-path"), e.getMessage());
        assertTrue(e.getMessage().contains("it names code to run"), e.getMessage());
    }

    @Test
    void acceptsAModuleInAUriFromElsewhere() {
        String uri = "pkcs11:?module-path=" + directory.resolve("no-module.so");
        IOException e = assertThrows(IOException.class, () -> load(uri));
        assertEquals(1111, assertInstanceOf(SigningException.class, e.getCause()).number());
    }
}
